"""`vtsmtpproxy check` with the real engine behind the scan daemon, and when one of both doesn't answer."""

import json
import os
import signal
import subprocess

from engines_test import Relay
from harness import BIN, free_port, wait_until
from scanning import KEY, QUEUED, Scanning, body


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
        self.assertEqual(self.findings(), [("warning", KEY + "PassWhenDown"), ("error", KEY + "PassWhenDown")])
        self.assertEqual([name for name in os.listdir(self.proxy.home + "/tmp") if name.startswith("check")], [])


class CheckedWithoutSignatures(Scanning):
    SIGNATURES = False
    findings = CheckedEngine.findings

    def test_an_engine_that_finds_nothing(self):
        self.assertEqual(self.findings(), [("error", KEY + "ClamdSocket")])


class CheckedEngines(Scanning):
    """Each of several, and who judges spam."""
    findings = CheckedEngine.findings

    @classmethod
    def start_engine(cls):
        super().start_engine()
        cls.relays = {name: Relay(cls.proxy.home + "/clamd/clamd.sock") for name in "ab"}
        cls.proxy.load({KEY + "Engines/" + name: relay.address for name, relay in cls.relays.items()})

    @classmethod
    def tearDownClass(cls):
        super().tearDownClass()
        for each in cls.relays.values():
            each.kill()

    def setUp(self):
        self.assertTrue(wait_until(lambda: self.findings() == [], 60), self.told())

    def told(self):
        done = subprocess.run([BIN + "/vtsmtpproxy", "check"], env=self.proxy.env, capture_output=True, text=True, timeout=60)
        return done.stdout

    def test_each_of_them(self):
        self.relays["b"].kill()
        self.addCleanup(self.relays["b"].start)
        self.assertTrue(wait_until(lambda: self.findings() == [("error", KEY + "Engines/b")]), self.told())
        self.assertIn("start clamd there", self.told())
        self.settings(**{"Engines/c": "127.0.0.1:9", "Engines/a": ""})
        self.assertEqual(self.findings(), [("error", KEY + "Engines/b"), ("error", KEY + "Engines/c")])
        # One that was set just now has not been probed yet.
        self.settings(**{"Engines/a": self.relays["a"].address, "Engines/b": "", "Engines/c": ""})
        self.assertEqual(self.findings(), [])

    def test_who_judges_spam(self):
        port = free_port()
        self.settings(**{"Antispam/Address": "127.0.0.1:%d" % port})
        self.assertEqual(self.findings(), [("warning", KEY + "Antispam/Address")])
        self.assertIn("nobody answers there, so mail passes unjudged; start it", self.told())
        self.settings(**{"Antispam/WhenDown": "put off"})
        self.assertEqual(self.findings(), [("error", KEY + "Antispam/Address")])

    def test_its_messages_are_nobodys(self):
        """Whatever is done with infected mail and by rules: theirs are neither kept nor counted, and found infected."""
        self.send(body(b"hello"))
        self.assertTrue(wait_until(lambda: len(self.events()) > 0))
        before = self.events()
        for action, expected in (("quarantine", []), ("tag", []), ("drop", []), ("put off", []),
                                 ("pass", [("warning", KEY + "Antivirus/Action")])):
            with self.subTest(action):
                self.settings(**{"Antivirus/Action": action})
                self.assertEqual(self.findings(), expected)
        self.settings(**{"Antivirus/Action": "", "Content/Rules/a/Pattern": "clean", "Content/Rules/a/Action": "quarantine"})
        self.assertEqual(self.findings(), [])
        listed = subprocess.run([BIN + "/vtquarantine", "list", "--json"], env=self.proxy.env, capture_output=True, text=True)
        self.assertEqual(listed.stdout, "")
        self.send(body(b"behind them"))
        self.assertTrue(wait_until(lambda: len(self.events()) > len(before)))
        self.assertEqual(len(self.events()), len(before) + 1)


class CheckedSilentEngine(Scanning):
    """It is silent about what lies beyond its limits."""
    ENGINE = "MaxFileSize 20M\nMaxScanSize 20M\nStreamMaxLength 20M\n"
    findings = CheckedEngine.findings

    def test_its_limits(self):
        self.assertTrue(wait_until(lambda: self.send(body(b"hello")) == QUEUED))
        self.assertEqual(self.findings(), [("warning", KEY + "ClamdSocket")])
