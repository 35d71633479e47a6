"""The package's scripts: what they do to the configuration and the services, and ask of systemd. The programs, the store and
Debian's helpers are real; the scripts run on a directory of the test, and the systemctl there writes down what it is asked.
And what lintian says of the package."""

import json
import os
import re
import shutil
import subprocess
import tempfile
import unittest

from harness import BIN, NET

PACKAGING = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "packaging")
SCRIPTS = os.path.join(PACKAGING, "debian")
UNITS = os.path.join(PACKAGING, "systemd")
DAEMONS = ("vtregistry", "vtlogd", "vtstatd", "vtmaild")
PROGRAMS = ("vtsmtpproxy", "vtregistry", "vtmaild", "vtlogd", "vtstatd")
# Of each service: `show` prints one property, `is-active` is asked by its exit.
SYSTEMCTL = """#!/bin/sh
echo "$*" >>{root}/asked
for last; do :; done
last=${{last%.service}}
case " $* " in
  *" is-active "*) [ -e {root}/active/$last ] ;;
  *" is-enabled "*) [ -L {wants}/$last.service ] && echo enabled || echo disabled ;;
  *" preset "*) mkdir -p {wants}; ln -s /lib/systemd/system/$last.service {wants}/ ;;
  *" show "*) [ -e {root}/masked/$last ] && echo masked || echo loaded ;;
esac
"""


class Package(unittest.TestCase):
    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="vantrel-package.")
        self.addCleanup(shutil.rmtree, self.root, ignore_errors=True)  # behind all other cleanups
        self.wants = os.path.join(self.root, "etc/systemd/system/multi-user.target.wants")
        for name in ("lib", "bin", "active", "masked", "run/systemd/system", self.wants):
            os.makedirs(os.path.join(self.root, name))
        shutil.copytree(UNITS, self.root + "/usr/lib/systemd/system")
        self.home = os.path.join(self.root, "home")
        for program in PROGRAMS:
            os.symlink(os.path.join(BIN, program), os.path.join(self.root, "lib", program))
        self.tool("systemctl", SYSTEMCTL.format(root=self.root, wants=self.wants))
        self.tool("policy-rc.d", "#!/bin/sh\n")  # the machine's may forbid everything
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
        env = dict(os.environ, PATH=self.root + "/bin:" + os.environ["PATH"], DPKG_ROOT=self.root, DPKG_MAINTSCRIPT_PACKAGE="vantrel")
        return subprocess.run(["sh", "-c", text, name, *words], env=env, text=True, capture_output=True, timeout=60)

    def asked(self):
        try:
            with open(self.root + "/asked") as file:
                return [line for line in file.read().splitlines() if not re.match(r"show |(--\S+ )*(is-(active|enabled)|preset) ", line)]
        except OSError:
            return []

    def started(self):
        return [line.split()[-1] for line in self.asked() if re.match(r"(--\S+ )*start ", line)]

    def links(self):
        return sorted(os.listdir(self.wants))

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
        self.assertEqual(self.started(), [name + ".service" for name in DAEMONS])
        self.assertEqual(self.links(), sorted(name + ".service" for name in DAEMONS))

    def test_an_upgrade_keeps_the_configuration_and_starts_nothing(self):
        self.install()
        self.registry("set", NET + "/ServerToForward", "192.0.2.1:25")
        os.unlink(self.wants + "/vtstatd.service")  # the administrator has disabled one and enabled another
        os.symlink("/lib/systemd/system/vtsmtpproxy.service", self.wants + "/vtsmtpproxy.service")
        before, links = self.registry("dump"), self.links()
        self.script("preinst", "upgrade", "1.0")
        done = self.script("postinst", "configure", "1.0")
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))
        self.assertEqual((self.registry("dump"), self.links()), (before, links))
        self.assertEqual(self.asked(), ["--system daemon-reload"] + ["try-restart --job-mode=ignore-requirements %s.service" % name
                                                                    for name in (*DAEMONS, "vtsmtpproxy")])

    def test_a_policy_that_forbids_it_has_nothing_started(self):
        policy = self.root + "/usr/sbin"
        os.makedirs(policy)
        for folder in ("bin", "usr/sbin"):  # one for PATH, one for the helper
            self.tool("policy-rc.d", "#!/bin/sh\nexit 101\n", folder)
        self.script("preinst", "install")
        self.assertEqual(self.script("postinst", "configure", "").returncode, 0)
        self.assertEqual(self.started(), [])
        self.assertEqual(self.links(), sorted(name + ".service" for name in DAEMONS), "they are started at boot")
        done = self.script("postinst", "configure", "1.0")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertIn("forbids to restart vtmaild", done.stdout)
        self.assertEqual([line for line in self.asked() if "restart" in line], [])

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
        self.assertEqual(len(self.started()), 4)
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

    def test_units_leave_what_the_configuration_may_ask_for(self):
        """Engines and spam filters on other hosts; servers that a release of the quarantine's page goes to."""
        for name in ("vtmaild", "vtstatd", "vtsmtpproxy"):
            with open(os.path.join(UNITS, name + ".service"), encoding="utf-8") as file:
                unit = file.read()
            self.assertIn("\nRestrictAddressFamilies=AF_UNIX AF_INET AF_INET6\n", unit, name)
            self.assertNotRegex(unit, r"(?m)^(PrivateNetwork=yes|IPAddressDeny=)", name)

    def test_a_removal_leaves_no_link_to_a_unit_that_is_gone(self):
        self.install()
        os.symlink("/lib/systemd/system/vtsmtpproxy.service", self.wants + "/vtsmtpproxy.service")  # the administrator's
        os.symlink("/lib/systemd/system/another.service", self.wants + "/another.service")
        os.symlink("/dev/null", self.root + "/etc/systemd/system/vtmaild.service")  # masked
        every = self.links()
        self.assertEqual(self.script("postrm", "upgrade", "2.0").returncode, 0)
        self.assertEqual(self.links(), every)
        self.assertEqual(self.script("prerm", "remove").returncode, 0)
        self.assertEqual([line for line in self.asked() if line.startswith("stop")],
                         ["stop %s.service" % name for name in ("vtsmtpproxy", "vtmaild", "vtlogd", "vtstatd", "vtregistry")])
        shutil.rmtree(self.root + "/usr/lib/systemd")
        self.assertEqual(self.script("postrm", "remove").returncode, 0)
        self.assertEqual(self.links(), ["another.service"])
        self.assertTrue(os.path.lexists(self.root + "/etc/systemd/system/vtmaild.service"), "the mask is the administrator's")
        shutil.copytree(UNITS, self.root + "/usr/lib/systemd/system")
        self.script("preinst", "install", "1.0")
        self.assertEqual(self.script("postinst", "configure", "1.0").returncode, 0)
        self.assertIn("vtlogd.service", self.links(), "it begins as at first")
        self.assertNotIn("vtsmtpproxy.service", self.links())

    def files(self):
        return sorted(os.path.join(folder, name)[len(self.root):] for folder, _, names in os.walk(self.root) for name in names
                      if not folder.startswith((self.root + "/bin", self.root + "/lib", self.root + "/usr")) and name != "asked")

    def test_a_purge_leaves_nothing_at_whatever_point_it_comes(self):
        before = self.files()
        for words in ((), ("upgrade", "2.0")):
            with self.subTest(words):
                self.install()
                os.symlink("/lib/systemd/system/vtsmtpproxy.service", self.wants + "/vtsmtpproxy.service")
                self.script("preinst", "install", "1.0")  # an installation that has not come to its end
                if words:
                    os.rename(self.root + "/run/systemd", self.root + "/no-systemd")
                    self.script("prerm", *words)
                    os.rename(self.root + "/no-systemd", self.root + "/run/systemd")
                    self.assertIn("/run/vantrel-restart", self.files())
                self.assertNotEqual(self.files(), before)
                for step in (("prerm", "remove"), ("postrm", "remove"), ("postrm", "purge")):
                    self.assertEqual(self.script(*step).returncode, 0)
                self.assertEqual(self.files(), before)
                self.assertFalse(os.path.exists(self.home))
                self.assertEqual(self.script("postrm", "purge").returncode, 0, "again")

    def test_an_installation_that_was_given_up_leaves_nothing(self):
        before = self.files()
        self.script("preinst", "install")
        self.assertEqual(self.script("postrm", "abort-install").returncode, 0)
        self.assertEqual(self.files(), before)

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


def for_people():
    """Whether this is a build that could be given to somebody: none with a sanitizer."""
    with open(os.path.join(BIN, "..", "CMakeCache.txt"), encoding="utf-8") as file:
        return "\nVANTREL_SANITIZE:STRING=\n" in file.read()


@unittest.skipUnless(shutil.which("lintian") and shutil.which("cpack") and for_people(), "needs lintian, and no sanitizer")
class Lintian(unittest.TestCase):
    def test_no_error_and_no_warning(self):
        build = os.path.join(BIN, "..")
        with tempfile.TemporaryDirectory(prefix="vantrel-package.") as folder:
            subprocess.run(["cpack", "-B", folder], cwd=build, check=True, capture_output=True, timeout=300)
            made = [os.path.join(folder, name) for name in os.listdir(folder) if name.endswith(".deb")]
            self.assertEqual(len(made), 1)
            said = subprocess.run(["lintian", "--allow-root", *made], capture_output=True, text=True, timeout=300)
            self.assertEqual((said.returncode, [line for line in said.stdout.splitlines() if line[:2] in ("E:", "W:")]), (0, []))
            version = subprocess.run(["dpkg-deb", "-f", *made, "Version"], capture_output=True, text=True, check=True).stdout.strip()
            unpacked = os.path.join(folder, "unpacked")
            subprocess.run(["dpkg-deb", "-x", *made, unpacked], check=True)
            log = subprocess.run(["zcat", unpacked + "/usr/share/doc/vantrel/changelog.gz"], capture_output=True, text=True, check=True).stdout
            self.assertTrue(log.startswith("vantrel (%s) " % version), log)
            self.assertNotIn("@", re.sub(r"<[^>]*>", "", log))
