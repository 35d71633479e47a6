"""What people meet: help, versions, usage, and the words of vtregistry that are for them."""

import os
import re
import shutil
import subprocess
import tempfile
import unittest

from harness import BIN

SERVICES = ("vtsmtpproxy", "vtmaild", "vtlogd", "vtstatd", "vtregistry")
OTHERS = ("vtreport", "vtservice")
ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")


class Person(unittest.TestCase):
    def setUp(self):
        self.parent = tempfile.mkdtemp(prefix="vantrel-people.")
        self.home = self.parent + "/home"
        self.env = {key: value for key, value in os.environ.items() if key != "NOTIFY_SOCKET"}
        self.env.update(VANTREL_HOME=self.home, HOME=self.parent)

    def tearDown(self):
        shutil.rmtree(self.parent)

    def run_it(self, program, *words, **more):
        done = subprocess.run([BIN + "/" + program, *words], env=dict(self.env, **more), text=True, capture_output=True,
                              stdin=subprocess.DEVNULL, timeout=20)
        return done.returncode, done.stdout, done.stderr


class Words(Person):
    def test_each_program_tells_what_it_is_and_touches_nothing(self):
        with open(ROOT + "/CMakeLists.txt", encoding="utf-8") as file:
            version = re.search(r"project\(vantrel VERSION (\S+)", file.read())[1]
        for program in SERVICES + OTHERS:
            for words in (["--help"], ["-h"], ["install", "--help"], ["get", "--help"], ["debug", "--help"]):
                if words[0] in ("--help", "-h") or program in SERVICES:
                    code, out, err = self.run_it(program, *words)
                    self.assertEqual((code, err), (0, ""), (program, words))
                    self.assertTrue(out.startswith("usage: " + program), (program, words))
                    self.assertLessEqual(max(map(len, out.splitlines())), 100)
            self.assertEqual(self.run_it(program, "--version"), (0, "%s %s\n" % (program, version), ""))
        for program in OTHERS + ("vtregistry",):
            for words in (["bogus"], ["--bogus"], ["Debug"], ["-install", "stopp"], ["Get", "--force"]):
                self.assert_unknown(program, words, 2)
        self.assertEqual(os.listdir(self.parent), [])

    def assert_unknown(self, program, words, expected):
        code, out, err = self.run_it(program, *words)
        self.assertEqual((code, out), (expected, ""), (program, words))
        self.assertRegex(err, r"\A%s: .*\nusage: %s" % (program, program), (program, words))

    def test_a_service_that_is_given_no_word_it_knows_tells_those_it_does(self):
        for program in ("vtsmtpproxy", "vtmaild", "vtlogd", "vtstatd"):
            for words in (["bogus"], ["Debug"], ["-install", "stopp"]):
                self.assert_unknown(program, words, 255)

    def test_help_that_cannot_be_written_is_a_failure(self):
        with open("/dev/full", "w", encoding="ascii") as full:
            for word in ("--help", "--version"):
                self.assertEqual(subprocess.run([BIN + "/vtmaild", word], stdout=full, env=self.env, check=False).returncode, 1)

    def test_a_service_manager_s_words_are_its_own_affair(self):
        for program in SERVICES[:-1]:
            code, out, err = self.run_it(program, "bogus", NOTIFY_SOCKET=self.parent + "/nobody")
            self.assertNotIn("usage", out + err, program)
            self.assertNotEqual(code, 2, program)

    def test_words_beside_an_option_are_skipped(self):
        self.assertEqual(self.run_it("vtlogd", "bogus", "register")[0], 0)
        self.assertIn("VTLOGD", self.run_it("vtregistry", "dump", "/VTWIN/Versions")[1])


if __name__ == "__main__":
    unittest.main()
