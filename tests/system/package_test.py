"""The package's scripts: what they do to the configuration and the services, and ask of systemd. The programs and the store
are real; the scripts run on a directory of the test, and the systemctl there writes down what it is asked."""

import json
import os
import shutil
import subprocess
import tempfile
import unittest

from harness import BIN, NET

SCRIPTS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "packaging", "debian")
PROGRAMS = ("vtsmtpproxy", "vtregistry", "vtmaild", "vtlogd", "vtstatd")
# Of each service: `show` prints one property, `is-active` is asked by its exit.
SYSTEMCTL = """#!/bin/sh
echo "$*" >>{root}/asked
for last; do :; done
last=${{last%.service}}
case $1 in
  is-active) [ -e {root}/active/$last ] ;;
  show) [ -e {root}/masked/$last ] && echo masked || echo loaded ;;
esac
"""


class Package(unittest.TestCase):
    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="vantrel-package.")
        self.addCleanup(shutil.rmtree, self.root, ignore_errors=True)  # behind all other cleanups
        self.wants = os.path.join(self.root, "etc/systemd/system/multi-user.target.wants")
        for name in ("lib", "bin", "active", "masked", "run/systemd/system", self.wants):
            os.makedirs(os.path.join(self.root, name))
        self.home = os.path.join(self.root, "home")
        for program in PROGRAMS:
            os.symlink(os.path.join(BIN, program), os.path.join(self.root, "lib", program))
        self.tool("systemctl", SYSTEMCTL.format(root=self.root))
        for other in ("adduser", "chown", "deluser"):
            self.tool(other, "#!/bin/sh\n")

    def tool(self, name, text, folder="bin"):
        path = os.path.join(self.root, folder, name)
        if os.path.lexists(path):
            os.unlink(path)
        with open(path, "w") as file:
            file.write(text)
        os.chmod(path, 0o755)

    def script(self, name, *words):
        with open(os.path.join(SCRIPTS, name)) as file:
            text = file.read()
        for old, new in (("/var/lib/vantrel", self.home), ("/usr/lib/vantrel/", self.root + "/lib/"),
                         ("/run/", self.root + "/run/"), ("/etc/", self.root + "/etc/")):
            text = text.replace(old, new)
        env = dict(os.environ, PATH=self.root + "/bin:" + os.environ["PATH"])
        return subprocess.run(["sh", "-c", text, name, *words], env=env, text=True, capture_output=True, timeout=60)

    def asked(self):
        try:
            with open(self.root + "/asked") as file:
                return [line for line in file.read().splitlines() if not line.startswith(("show", "is-active"))]
        except OSError:
            return []

    def registry(self, *words):
        return subprocess.run([BIN + "/vtregistry", *words], env=dict(os.environ, VANTREL_HOME=self.home), text=True,
                              capture_output=True, timeout=60, check=True).stdout

    def install(self):
        self.script("preinst", "install")
        done = self.script("postinst", "configure", "")
        self.assertEqual(done.returncode, 0, done.stderr)
        os.unlink(self.root + "/asked")

    def test_a_first_installation_registers_all_and_leaves_the_proxy_off(self):
        self.script("preinst", "install")
        done = self.script("postinst", "configure", "")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertIn("Vantrel is installed", done.stdout)
        versions = [key.split("/")[3] for key in json.loads(self.registry("dump")) if key.startswith("/VTWIN/Versions/")
                    and key.endswith("/Version")]
        self.assertEqual(sorted(versions), sorted(["VTSMTPProxy", "VTREGISTRY", "VTMAILD", "VTLOGD", "VTSTATD"]))
        self.assertEqual([line.split()[-1] for line in self.asked() if line.startswith("enable")],
                         [name + ".service" for name in ("vtregistry", "vtlogd", "vtstatd", "vtmaild")])

    def test_an_upgrade_keeps_the_configuration_and_starts_nothing(self):
        self.install()
        self.registry("set", NET + "/ServerToForward", "192.0.2.1:25")
        before = self.registry("dump")
        self.script("preinst", "upgrade", "1.0")
        done = self.script("postinst", "configure", "1.0")
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))
        self.assertEqual(self.registry("dump"), before)
        self.assertEqual([line for line in self.asked() if line.startswith(("enable", "start", "restart"))], [])
        self.assertEqual([line.split()[-1] for line in self.asked() if line.startswith("try-restart")],
                         [name + ".service" for name in ("vtregistry", "vtlogd", "vtstatd", "vtmaild", "vtsmtpproxy")])

    def test_a_configuration_that_cannot_be_read_is_not_overwritten(self):
        self.install()
        self.registry("set", NET + "/ServerToForward", "192.0.2.1:25")
        before = self.registry("dump")
        self.tool("vtregistry", "#!/bin/sh\nexit 1\n", "lib")
        done = self.script("postinst", "configure", "1.0")
        self.assertEqual(self.registry("dump"), before)
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("can't be read", done.stderr)
        self.assertEqual(self.asked(), [], "the old programs run on")

    def test_an_installation_that_failed_is_one_when_it_is_tried_again(self):
        self.install()
        self.script("preinst", "install", "1.0")  # it was removed
        broken = self.root + "/lib/vtregistry"
        os.rename(broken, broken + ".whole")
        self.tool("vtregistry", "#!/bin/sh\nexit 1\n", "lib")
        self.assertNotEqual(self.script("postinst", "configure", "1.0").returncode, 0)
        os.rename(broken + ".whole", broken)
        self.assertEqual(self.script("postinst", "configure", "1.0").returncode, 0)
        self.assertEqual(len([line for line in self.asked() if line.startswith("enable")]), 4)
        self.assertFalse(os.path.exists(self.root + "/run/vantrel-install"))

    def test_a_masked_service_that_runs_is_named(self):
        self.install()
        for folder, name in (("active", "vtmaild"), ("masked", "vtmaild"), ("active", "vtlogd"), ("masked", "vtstatd")):
            open(os.path.join(self.root, folder, name), "w").close()
        done = self.script("postinst", "configure", "1.0")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertIn("vtmaild is masked", done.stdout)
        self.assertNotIn("vtlogd", done.stdout)
        self.assertNotIn("vtstatd", done.stdout)

    def test_a_removal_leaves_no_link_to_a_unit_that_is_gone(self):
        os.symlink(self.root + "/gone.service", self.wants + "/vtlogd.service")
        os.symlink("/bin/sh", self.wants + "/vtstatd.service")
        os.symlink(self.root + "/gone.service", self.wants + "/another.service")
        self.assertEqual(self.script("postrm", "upgrade", "2.0").returncode, 0)
        self.assertTrue(os.path.lexists(self.wants + "/vtlogd.service"))
        self.assertEqual(self.script("postrm", "remove").returncode, 0)
        self.assertEqual(sorted(os.listdir(self.wants)), ["another.service", "vtstatd.service"])

    def state(self, name):
        try:
            with open("%s/services/%s.status" % (self.home, name)) as file:
                return dict(line.rstrip("\n").split(" ", 1) for line in file).get("state")
        except OSError:
            return "never started"

    def test_without_systemd_what_did_not_start_is_named_and_tried_again_by_the_next_upgrade(self):
        self.install()
        os.rmdir(self.root + "/run/systemd/system")
        env = dict(os.environ, VANTREL_HOME=self.home)
        self.addCleanup(lambda: self.script("prerm", "remove"))
        for program in ("vtregistry", "vtmaild", "vtlogd"):
            subprocess.run([BIN + "/" + program, "install"], env=env, check=True, timeout=60)
        for program in ("vtregistry", "vtmaild"):
            subprocess.run([BIN + "/" + program, "start"], env=env, check=True, timeout=60, stdout=subprocess.DEVNULL)

        self.assertEqual(self.script("prerm", "upgrade", "2.0").returncode, 0)
        self.assertEqual([self.state("VTREGISTRY"), self.state("VTMAILD")], ["stopped", "stopped"])
        program = self.root + "/lib/vtmaild"
        os.rename(program, program + ".whole")
        self.tool("vtmaild", "#!/bin/sh\necho no; exit 1\n", "lib")
        done = self.script("postinst", "configure", "1.0")
        self.assertEqual((done.returncode, done.stdout), (0, "vtmaild did not start: no\n"))
        self.assertEqual([self.state("VTREGISTRY"), self.state("VTMAILD")], ["running", "stopped"])

        self.assertEqual(self.script("prerm", "upgrade", "3.0").returncode, 0)
        os.rename(program + ".whole", program)
        done = self.script("postinst", "configure", "2.0")
        self.assertEqual((done.returncode, done.stdout), (0, ""))
        self.assertEqual([self.state(name) for name in ("VTREGISTRY", "VTMAILD", "VTLOGD")], ["running", "running", "never started"])
        self.assertFalse(os.path.exists(self.root + "/run/vantrel-restart"))
