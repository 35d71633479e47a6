"""The table of keys is the only one: what is written about keys is made from it, and nothing is read around it."""

import os
import re
import shutil
import subprocess
import tempfile
import unittest

from harness import BIN

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
RAW = re.compile(r"\bTrelis(GetValue|EnumOpen|PlaceNotify|WaitNotify)\(")
# The store itself; its tool, which is asked for any key; the server that other hosts ask.
MAY_READ = ("trelis/", "daemons/registryd/vtregistry.cpp", "daemons/registryd/store_server.cpp")


class Reference(unittest.TestCase):
    def setUp(self):
        self.home = tempfile.mkdtemp(prefix="vantrel-reference.")
        self.env = dict(os.environ, VANTREL_HOME=self.home)

    def tearDown(self):
        shutil.rmtree(self.home)

    def keys(self, *words):
        done = subprocess.run([BIN + "/vtregistry", "keys", *words], env=self.env, capture_output=True, text=True, check=True)
        return done.stdout

    def test_the_page_says_what_the_table_says(self):
        done = subprocess.run([ROOT + "/docs/update-configuration", "--check", BIN + "/vtregistry"], env=self.env, text=True,
                              capture_output=True)
        self.assertEqual((done.returncode, done.stdout + done.stderr), (0, ""))

    def test_every_registered_key_is_in_the_table(self):
        patterns = [re.compile(re.escape(line).replace(r"\*", "[^/]+") + "$") for line in self.keys().splitlines()
                    if line.startswith("/")]
        for program in ("vtsmtpproxy", "vtmaild", "vtlogd", "vtstatd", "vtregistry"):
            subprocess.run([BIN + "/" + program, "register"], env=self.env, check=True)
        dump = subprocess.run([BIN + "/vtregistry", "dump"], env=self.env, capture_output=True, text=True, check=True).stdout
        keys = re.findall(r'^  "([^"]+)": "(.*)",?$', dump, re.M)
        self.assertGreater(len(keys), 60)
        # A key with an empty value may be a list without entries.
        strange = [key for key, value in keys if not any(each.match(key) or (value == "" and each.match(key + "/x"))
                                                         or (value == "" and each.match(key + "/x/IP"))
                                                         or (value == "" and each.match(key + "/x/IPAddress"))
                                                         for each in patterns)]
        self.assertEqual(strange, [])

    def test_a_prefix_and_what_is_said(self):
        text = self.keys("/VTWIN/Daemons/StatsDaemon/Keep")
        self.assertEqual(text, "/VTWIN/Daemons/StatsDaemon/KeepDays\n    days that records are kept; 0: for ever "
                               "(default: 400; a change counts: within a second)\n")

    def test_nobody_reads_around_the_table(self):
        around = []
        for folder, _, files in os.walk(ROOT + "/src"):
            for name in files:
                path = os.path.relpath(os.path.join(folder, name), ROOT + "/src")
                if name.endswith((".cpp", ".h")) and not path.startswith(MAY_READ):
                    with open(os.path.join(folder, name), encoding="utf-8") as file:
                        around += [path + ": " + line.strip() for line in file if RAW.search(line)]
        self.assertEqual(around, [])

    def test_every_key_that_may_be_set_is_read(self):
        code = ""
        for folder, _, files in os.walk(ROOT + "/src"):
            for name in files:
                if name.endswith((".cpp", ".h")) and name != "rows.h":
                    with open(os.path.join(folder, name), encoding="utf-8") as file:
                        code += file.read()
        rows = re.findall(r"^\| `(\S+)` \| .* \| (.*) \| .* \|$", self.keys("--reference"), re.M)
        self.assertGreater(len(rows), 50)
        unread = [key for key, effect in rows if effect not in ("-", "never") and '"%s"' % key not in code]
        self.assertEqual(unread, [])
