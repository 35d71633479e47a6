"""`vtsmtpproxy check` with the real engine behind the scan daemon, and when one of both doesn't answer."""

import json
import os
import signal
import subprocess

from harness import BIN, wait_until
from scanning import KEY, Scanning


class CheckedEngine(Scanning):
    def findings(self):
        done = subprocess.run([BIN + "/vtsmtpproxy", "check", "--json"], env=self.proxy.env, capture_output=True, text=True,
                              timeout=60)
        self.assertEqual(done.stderr, "")
        return [(each["severity"], each["key"]) for each in json.loads(done.stdout)]

    def test_an_engine_that_works_and_one_that_does_not(self):
        self.assertEqual(self.findings(), [])
        self.assertTrue(wait_until(lambda: "vtsmtpproxy-check@localhost" in self.log()), self.log())  # it says whose they are
        self.maild.send_signal(signal.SIGSTOP)
        self.assertEqual(self.findings(), [("error", KEY + "ClamdSocket")])
        self.maild.send_signal(signal.SIGCONT)
        self.assertTrue(wait_until(lambda: self.findings() == []))
        self.clamd.terminate()
        self.clamd.wait(30)
        self.assertEqual(self.findings(), [("error", KEY + "ClamdSocket")])
        self.settings(PassWhenDown="Y")
        self.assertEqual(self.findings(), [("error", KEY + "PassWhenDown")])
        self.assertEqual([name for name in os.listdir(self.proxy.home + "/tmp") if name.startswith("check")], [])


class CheckedWithoutSignatures(Scanning):
    SIGNATURES = False
    findings = CheckedEngine.findings

    def test_an_engine_that_finds_nothing(self):
        self.assertEqual(self.findings(), [("error", KEY + "ClamdSocket")])
