"""What the pages for people say is so: commands and configurations are taken as they stand there, what they point to is there,
each alert is explained, and the manual pages can be read."""

import os
import re
import shutil
import subprocess
import tempfile
import unittest

from harness import BIN
from tls import Authority

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
DOCS = os.path.join(ROOT, "docs")
MANUAL = os.path.join(ROOT, "packaging", "man")
REFERENCES = {"configuration.md", "log.md", "metrics.md", "statistics.md"}  # longer than what one reads at a time
MOST_LINES = 80
HAPROXY = shutil.which("haproxy", path="/usr/sbin:/usr/bin")


def read(*path):
    with open(os.path.join(ROOT, *path), encoding="utf-8") as file:
        return file.read()


def pages():
    return sorted(name for name in os.listdir(DOCS) if name.endswith(".md"))


def commands(text):
    """Of the indented blocks, or the examples of a manual page: one text a command, continued lines with it."""
    if text.startswith(".Dd"):
        text = re.sub(r"(?m)^(?:\.Dl |(?=vt))", "    ", text.partition("\n.Sh EXAMPLES\n")[2].partition("\n.Sh ")[0]).replace("\\e", "\\")
    return re.findall(r"(?m)^ {4,}((?:vtregistry|vtlog|vtsmtpproxy setup)\b(?:.*\\\n)*.*)$", text)


def blocks(text):
    return [re.sub(r"(?m)^    ", "", block) for block in re.findall(r"(?m)(?:^ {4}.*\n)+", text)]


class Pages(unittest.TestCase):
    def setUp(self):
        self.home = tempfile.mkdtemp(prefix="vantrel-docs.")
        self.addCleanup(shutil.rmtree, self.home, ignore_errors=True)
        os.mkdir(self.home + "/files")
        self.env = dict(os.environ, VANTREL_HOME=self.home, PATH=BIN + ":" + os.environ["PATH"])
        for program in ("vtregistry", "vtmaild", "vtlogd", "vtstatd", "vtsmtpproxy"):
            self.run_it(program + " register", {0})
        self.run_it("vtregistry dump >changed.json", {0})
        authority = Authority()
        self.addCleanup(authority.close)
        shutil.copy(authority.issue("issued", days=90), self.home + "/files/mx.pem")
        shutil.copy(self.home + "/files/mx.pem", self.home + "/files/mx.key")

    def run_it(self, command, codes):
        done = subprocess.run(command, shell=True, env=self.env, cwd=self.home + "/files", text=True, capture_output=True, timeout=60,
                              stdin=subprocess.DEVNULL)
        self.assertIn(done.returncode, codes, "%s\n%s%s" % (command, done.stdout, done.stderr))
        return done

    def test_the_first_day_is_in_the_readme(self):
        """The script that goes that way takes each command from there, and says so if one is missing."""
        script = os.path.join(ROOT, "packaging", "first-day")
        done = subprocess.run([script, "--commands"], text=True, capture_output=True)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        found = done.stdout.splitlines()
        for word in ("apt install ./", "vtsmtpproxy setup ", "vtsmtpproxy check", "swaks ", "vtlog find --id", "/metrics", "/find?q="):
            self.assertTrue([each for each in found if word in each], word)
        for line in found:
            self.assertIn(line[:40], read("README.md"))
        inside = os.path.join(ROOT, "packaging", "first-day-inside")
        with tempfile.NamedTemporaryFile("w", suffix=".md") as other:
            other.write(read("README.md").replace("vtlog find --id ID\n    curl", "vtlog find --to ID\n    curl"))
            other.flush()
            done = subprocess.run([inside, "--commands", other.name], text=True, capture_output=True)
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("README has no command that begins: vtlog find --id", done.stderr)

    def test_the_commands_are_taken_as_they_stand_there(self):
        taken = 0
        for path in [("README.md",), *(("docs", name) for name in pages()), *(("packaging", "man", name) for name in sorted(os.listdir(MANUAL)))]:
            for command in commands(read(*path)):
                words = command.split()
                # Those that wait for somebody, need a history of their own, or are words of the service.
                if words[1] in ("edit", "undo", "watch", "follow", "install") or words[:2] == ["vtsmtpproxy", "setup"] and len(words) == 2:
                    continue
                with self.subTest("/".join(path) + ": " + command):
                    command = re.sub(r"/(?:root|var/backups/vantrel)/", "", command).partition(" | ")[0]
                    command = command.replace("/etc/vantrel/", self.home + "/files/")
                    if words[0] == "vtsmtpproxy":  # it sets all, and then complains of servers that aren't there
                        self.assertRegex(self.run_it(command + " --force", {0, 1, 2}).stdout, "/ServerToForward = ")
                        continue
                    codes = {"vtlog": {0, 1, 3}, "vtregistry": {0, 1} if words[1] == "diff" else {0}}[words[0]]  # there is no log
                    done = self.run_it(command, codes)
                    if words[1] == "set":
                        self.assertEqual([line for line in done.stderr.splitlines() if not re.search(r": (interface|attachments|content)\.[\w-]+ is new; ", line)], [])
                taken += 1
        self.assertGreater(taken, 80)

    def test_all_pages_are_listed_short_and_lead_somewhere(self):
        listed = re.findall(r"(?m)^- \[([\w-]+\.md)\]\(\1\): ", read("docs", "README.md"))
        self.assertEqual(sorted(listed + ["README.md"]), pages())
        for path in [("README.md",), ("CONTRIBUTING.md",), ("ARCHITECTURE.md",), *(("docs", name) for name in pages())]:
            text = read(*path)
            for target in re.findall(r"\]\(((?!https?:)[^)#]+)", text):
                self.assertTrue(os.path.exists(os.path.join(ROOT, *path[:-1], target)), "%s: %s" % ("/".join(path), target))
            if path[0] == "docs" and path[1] not in REFERENCES:
                self.assertLess(text.count("\n"), MOST_LINES, path)

    def test_the_hook_of_certbot_puts_a_file_that_the_proxy_takes(self):
        lineage, place = self.home + "/lineage", self.home + "/etc-vantrel"
        os.mkdir(lineage)
        for name in ("privkey.pem", "fullchain.pem"):
            shutil.copy(self.home + "/files/mx.pem", lineage)
            os.rename(lineage + "/mx.pem", lineage + "/" + name)
        hook = next(block for block in blocks(read("docs", "certificates.md")) if "RENEWED_LINEAGE" in block)
        group = subprocess.run(["id", "-gn"], text=True, capture_output=True, check=True).stdout.strip()
        for old, new in (("/etc/letsencrypt/live/mx.example.org", lineage), ("/etc/vantrel", place), ("-g vantrel", "-g " + group),
                         ("-o root ", ""), ("chgrp vantrel", "chgrp " + group)):
            self.assertIn(old, hook)
            hook = hook.replace(old, new)
        for renewed, files in (("/another", None), (lineage, ["mx.pem"])):
            subprocess.run(["sh", "-c", hook], env=dict(self.env, RENEWED_LINEAGE=renewed), check=True, timeout=60)
            self.assertEqual(os.listdir(place) if os.path.isdir(place) else None, files)
        self.assertEqual((os.stat(place + "/mx.pem").st_mode & 0o777, os.stat(place).st_mode & 0o777), (0o640, 0o750))
        self.run_it("vtsmtpproxy setup --server 127.0.0.1:9 --domain example.org --force --certificate %s/mx.pem" % place, {0, 1, 2})
        self.assertNotIn("TLS/Certificate", self.run_it("vtsmtpproxy check", {0, 1, 2}).stdout)

    @unittest.skipUnless(HAPROXY, "needs HAProxy")
    def test_the_configuration_of_haproxy_is_one(self):
        first, second = (block for block in blocks(read("docs", "load-balancer.md")) if "server mx1" in block)
        for options in ("", second):
            with open(self.home + "/cfg", "w", encoding="ascii") as file:
                file.write(first if not options else re.sub(r"(?m)^ *(option smtpchk|server) .*\n", "", first) + options)
            said = subprocess.run([HAPROXY, "-c", "-f", self.home + "/cfg"], text=True, capture_output=True, timeout=60)
            self.assertEqual((said.returncode, said.stderr), (0, ""), said.stdout)

    @unittest.skipUnless(shutil.which("postconf", path="/usr/sbin:/usr/bin"), "needs Postfix")
    def test_the_lines_for_master_cf_are_some(self):
        services = [block for block in blocks(read("docs", "postfix-same-machine.md")) if " smtpd\n" in block]
        with open(self.home + "/master.cf", "w", encoding="ascii") as file:
            file.write("".join(services))
        with open(self.home + "/main.cf", "w", encoding="ascii") as file:
            file.write("compatibility_level = 3.6\n")

        def postconf(*words):
            done = subprocess.run(["/usr/sbin/postconf", "-c", self.home, *words], text=True, capture_output=True, timeout=60)
            self.assertEqual((done.returncode, done.stderr), (0, ""))  # an option that nobody knows is a warning there
            return done.stdout.splitlines()
        self.assertEqual([line.split()[0] for line in postconf("-M")], ["127.0.0.1:10025", "submission", "pickup", "127.0.0.1:10027"])
        self.assertEqual(len(postconf("-P")), 12)

    def test_each_alert_is_explained(self):
        rules = re.findall(r"(?m)^ +- alert: (\w+)$", read("packaging", "prometheus", "alerts.yml"))
        self.assertEqual(re.findall(r"(?m)^## (\w+)$", read("docs", "alerts.md")), rules)

    @unittest.skipUnless(shutil.which("mandoc"), "needs mandoc")
    def test_the_manual_pages_have_examples_and_no_slip(self):
        made = self.home + "/vantrel-keys.5"
        with open(made, "w", encoding="utf-8") as file:
            subprocess.run([os.path.join(ROOT, "packaging", "keys-page"), DOCS + "/configuration.md"], stdout=file, check=True)
        names = [os.path.join(MANUAL, name) for name in sorted(os.listdir(MANUAL))]
        for path in [*names, made]:
            said = subprocess.run(["mandoc", "-T", "lint", path], text=True, capture_output=True, timeout=60)
            # Pages that aren't installed here; that ours are there is looked at below.
            self.assertEqual([line for line in said.stdout.splitlines() if "referenced manual not found" not in line], [])
        known = {os.path.basename(path) for path in [*names, made]} | {"clamd.8"}
        for path in names:
            text = read(path)
            self.assertIn("\n.Sh EXAMPLES\n.", re.sub(r"(?m)^[^.\n].*\n", "", text), path)
            for name, section in re.findall(r"(?m)^\.Xr (\S+) (\d)", text):
                self.assertIn(name + "." + section, known, path)


if __name__ == "__main__":
    unittest.main()
