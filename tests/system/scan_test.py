"""The scan daemon with the real engine behind it, the logger beside it: what becomes of infected mail, and of mail that
can't be scanned."""

import os
import signal
import threading
import time
import unittest

from harness import NET, Proxy, wait_until
from scanning import EICAR, KEY, NOT_CHECKED, QUEUED, REJECTED, Scanning, archive, attached, body


class Engine(Scanning):
    def test_infected_mail_is_found_in_every_dress(self):
        zipped = archive(("eicar.com", EICAR))
        cases = {"plain": body(EICAR), "zip in base64": attached(zipped), "no header": EICAR + b"\r\n",
                 "odd first header": attached(zipped, first=b"X-Odd: 1\r\n")}
        for name, message in cases.items():
            with self.subTest(name):
                count = len(self.server.messages)
                self.assertEqual(self.send(message), REJECTED)
                self.assertEqual(len(self.server.messages), count)
        self.assertTrue(self.logged("high Virus "))
        self.assertIn('details="virus found: Eicar-Test-Signature', self.log())
        self.assertEqual(self.send(body(b"clean")), QUEUED)

    def test_what_becomes_of_it_is_configured(self):
        self.settings(VirusAction="drop")
        count = len(self.server.messages)
        self.assertTrue(self.send(body(EICAR)).startswith(b"250"))
        self.assertEqual(len(self.server.messages), count)
        self.settings(VirusAction="redirect", RedirectAddress="abuse@example.org")
        self.assertEqual(self.send(body(EICAR)), QUEUED)
        self.assertEqual(len(self.server.messages), count + 1)
        self.assertIn(b"RCPT TO: abuse@example.org\r\n", self.server.lines)
        self.settings(RedirectAddress="")
        self.assertEqual(self.send(body(EICAR)), REJECTED, "nowhere to redirect to")

    def test_mail_that_cannot_be_scanned(self):
        big = body(b"x" * 70 + b"\r\n" * 100000)
        self.assertEqual(self.send(big), b"552 5.3.4 Message size exceeds fixed limit\r\n")
        self.proxy.load({NET + "/MaxMessageSize": "0"})
        # The proxy looks for changes now and then.
        self.assertTrue(wait_until(lambda: self.send(big) == NOT_CHECKED))
        self.settings(PassWhenTooBig="Y")
        self.assertEqual(self.send(big), QUEUED)
        self.settings(ScanTimeout="1")
        self.clamd.send_signal(signal.SIGSTOP)
        try:
            self.assertEqual(self.send(body(b"slow")), NOT_CHECKED)
            self.settings(PassWhenTimedOut="Y")
            self.assertEqual(self.send(body(b"slow")), QUEUED)
        finally:
            self.clamd.send_signal(signal.SIGCONT)
        self.settings(ClamdSocket=self.proxy.home + "/nothing")
        self.assertEqual(self.send(body(b"down")), NOT_CHECKED)
        self.settings(PassWhenDown="Y")
        self.assertEqual(self.send(body(b"down")), QUEUED)
        self.assertTrue(self.logged("high FileNotScanned "))
        for text in ("could not be scanned: larger than MaxFileSize", "passes unscanned: larger than MaxFileSize",
                     "could not be scanned: no reply", "could not be scanned: can't connect",
                     "passes unscanned: can't connect"):
            self.assertTrue(self.logged(text), text)

    def test_scan_daemon_killed_in_the_middle(self):
        replies = []
        count = len(self.server.messages)
        self.clamd.send_signal(signal.SIGSTOP)
        try:
            threads = [threading.Thread(target=lambda: replies.append(self.send(body(b"in hand")))) for _ in range(4)]
            for thread in threads:
                thread.start()
            self.assertTrue(wait_until(lambda: len(self.proxy.spool()) == 4))
            self.maild.kill()
            for thread in threads:
                thread.join()
            self.assertEqual(replies, [NOT_CHECKED] * 4)
        finally:
            self.clamd.send_signal(signal.SIGCONT)
        self.maild.wait()
        self.start_scanner()
        self.assertEqual(len(self.server.messages), count)
        self.assertEqual(self.send(body(b"again")), QUEUED)
        self.assertEqual(self.proxy.spool(), [])

    def test_verdicts_are_in_the_statistics(self):
        time.sleep(1)  # of the other cases' messages
        first = len(self.events())
        self.send(body(b"clean"))
        self.send(body(EICAR))
        self.settings(ClamdSocket=self.proxy.home + "/nothing")
        self.send(body(b"down"))
        self.settings(PassWhenDown="Y")
        self.send(body(b"down"))
        self.assertTrue(wait_until(lambda: len(self.events(first)) == 4), self.events(first))
        found = self.events(first)
        self.assertEqual([row[0] for row in found], [100, 101, 104, 105])
        self.assertIn("Eicar", found[1][1])
        self.assertEqual(found[0][2:], ("s@example.org", "r@example.org", len(body(b"clean"))))

    def test_stop_answers_what_is_in_hand(self):
        """A stop waits for the engine, and what comes meanwhile is put off."""
        replies = []
        self.assertEqual(self.send(body(b"before")), QUEUED)
        self.clamd.send_signal(signal.SIGSTOP)
        try:
            threads = [threading.Thread(target=lambda: replies.append(self.send(body(b"in hand")))) for _ in range(3)]
            for thread in threads:
                thread.start()
            self.assertTrue(wait_until(lambda: len(self.proxy.spool()) == 3))
            time.sleep(0.5)
            self.maild.send_signal(signal.SIGTERM)
            time.sleep(0.5)
            self.assertEqual(self.send(body(b"too late")), NOT_CHECKED)
            self.assertEqual(replies, [])
        finally:
            self.clamd.send_signal(signal.SIGCONT)
        for thread in threads:
            thread.join()
        self.assertEqual(replies, [QUEUED] * 3)
        self.maild.wait(20)
        self.start_scanner()
        self.assertEqual(self.send(body(b"again")), QUEUED)

    def test_stop_does_not_wait_for_ever(self):
        self.settings(ScanTimeout="2")
        self.assertEqual(self.send(body(b"before")), QUEUED)
        replies = []
        self.clamd.send_signal(signal.SIGSTOP)
        try:
            thread = threading.Thread(target=lambda: replies.append(self.send(body(b"in hand"))))
            thread.start()
            self.assertTrue(wait_until(lambda: len(self.proxy.spool()) == 1))
            begin = time.monotonic()
            self.maild.send_signal(signal.SIGTERM)
            self.maild.wait(20)
            self.assertLess(time.monotonic() - begin, 10)
            thread.join()
            self.assertEqual(replies, [NOT_CHECKED])
        finally:
            self.clamd.send_signal(signal.SIGCONT)
        self.start_scanner()

    def test_levels_of_the_log(self):
        key = "/VTUX/LoggerDaemon/LogLevel/Virus"
        self.addCleanup(self.proxy.tool, "set", key, "high")
        self.proxy.tool("set", key, "none")
        before = self.log().count(" Virus ")
        self.assertEqual(self.send(body(EICAR)), REJECTED)
        self.proxy.tool("set", key, "low")
        self.assertEqual(self.send(body(EICAR)), REJECTED)
        self.assertTrue(self.logged("low Virus "))
        self.assertEqual(self.log().count(" Virus "), before + 1)

    def test_control_characters_do_not_reach_the_log(self):
        client = self.client()
        client.envelope(sender=b"a\xc2\x9b31m\x9b\xc3\xa9@example.org")
        self.assertEqual(client.data(body(EICAR) + b".\r\n"), REJECTED)
        client.close()
        self.assertTrue(self.logged("\\xC2\\x9B31m\\x9B\u00e9@example.org"))
        with open(self.proxy.home + "/log/vtlogd.log", "rb") as file:
            text = file.read()
        self.assertNotIn(b"\x9b", text)


class Logger(unittest.TestCase):
    def test_log_keeps_its_size(self):
        proxy = Proxy(1, {"/VTWIN/Daemons/LoggerDaemon/MaxLogSize": "500", KEY + "ClamdSocket": "/nothing" * 8}, start=False)
        logger = proxy.logger()
        for _ in range(6):  # each start of the scan daemon logs that there is no engine
            scan = proxy.daemon("vtmaild", "vtmaild")
            time.sleep(0.3)
            scan.terminate()
            scan.wait(20)
        logger.terminate()
        logger.wait(20)
        files = {name: os.path.getsize(proxy.home + "/log/" + name) for name in os.listdir(proxy.home + "/log")}
        self.assertIn("vtlogd.log.1", files)
        self.assertLessEqual(len(files), 5)
        self.assertTrue(all(size < 1000 for size in files.values()), files)
        proxy.stop()
