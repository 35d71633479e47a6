"""An instance with a real logger, for the cases of the lines of sessions and messages."""

import json
import re
import subprocess
import unittest

from harness import BIN, NET, Client, MailServer, Proxy, ScanDaemon, clean, wait_until

FORMAT = "/VTWIN/Daemons/LoggerDaemon/Format"
QUEUED = b"250 2.0.0 Ok: queued as 4TzXq2\r\n"
BODY = b"Subject: x\r\nMessage-ID: <1@example.com>\r\n\r\nhello\r\n"
NUMBERS = ("size", "reception_ms", "scan_ms", "relay_ms", "messages", "duration_ms")


class Logged(unittest.TestCase):
    KEYS = {}

    def setUp(self):
        self.server = MailServer(END=QUEUED, EHLO=b"250-real.example\r\n250 CHUNKING\r\n")
        self.proxy = Proxy(self.server.port, {NET + "/MaxMessageSize": "2000", **self.KEYS}, start=False)
        self.addCleanup(self.server.close)
        self.addCleanup(self.proxy.stop)
        self.proxy.logger()
        self.answer = clean()
        self.scan = ScanDaemon(self.proxy.home, lambda request: self.answer)
        self.addCleanup(self.scan.close)
        self.proxy.start()

    def client(self):
        client = Client(self.proxy.port)
        self.addCleanup(client.close)
        return client

    def lines(self, event):
        """Those of an event in either format, as they stand in the log."""
        return [line for line in self.proxy.log().splitlines() if " event=%s " % event in line or '"event":"%s"' % event in line]

    def next_line(self, event, number):
        self.assertTrue(wait_until(lambda: len(self.lines(event)) >= number), self.proxy.log())
        self.assertEqual(len(self.lines(event)), number)
        return self.lines(event)[-1]

    def vtlog(self, *words):
        done = subprocess.run([BIN + "/vtlog", *words], env=self.proxy.env, capture_output=True, text=True, timeout=60)
        self.assertEqual(done.stderr, "")
        return done.returncode, done.stdout.splitlines()

    def expect(self, line, form, expected):
        """The whole line, but for the time, the session's id and durations."""
        if form == "json":
            found = json.loads(line)
            self.assertEqual(list(found), ["time", "event", *expected])
            for name in NUMBERS:
                self.assertIsInstance(found.get(name, 0), int, name)
            moment, session = found.pop("time"), found["session"]
            found.pop("event")
            found = {name: str(value) for name, value in found.items()}
        else:
            parts = dict(re.findall(r'(?:^| )([a-z_]+)=("(?:[^"\\]|\\.)*"|[^" ]*)', line))
            moment, session = parts["time"], parts["session"]
            text = " ".join("%s=%s" % (name, value) for name, value in parts.items())
            self.assertEqual(text, line, "nothing stands between the fields")
            self.assertEqual(list(parts), ["time", "event", *expected])
            for name, value in parts.items():
                self.assertEqual(value.startswith('"'), not re.fullmatch(r'[^\x00-\x20\x7f-\xff"\\=]+', value.strip('"')), name)
            found = {name: value.strip('"') for name, value in parts.items() if name not in ("time", "event")}
        self.assertRegex(moment, r"\A\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z\Z")
        self.assertRegex(session, r"\A[0-9a-z]{14}\Z")
        for name, value in found.items():
            wanted = expected[name]
            if wanted is int:
                self.assertRegex(value, r"\A\d+\Z", name)
                self.assertLess(int(value), 20000, name)
            else:
                self.assertEqual(value, wanted.replace("SESSION", session), name)
