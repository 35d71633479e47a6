"""The scan daemon with the real engine behind it, the logger beside it: what becomes of infected mail, and of mail that
can't be scanned."""

import base64
import contextlib
import glob
import io
import os
import signal
import socket
import sqlite3
import subprocess
import threading
import time
import unittest
import zipfile

from harness import BIN, Client, MailServer, Proxy, free_port, wait_until

# The standard test pattern for scanners, in two pieces so that this file is none itself.
EICAR = rb"X5O!P%@AP[4\PZX54(P^)7CC)7}$EICAR-STANDARD-" + b"ANTIVIRUS-TEST-FILE!" + b"$H+H*"
DATABASE = os.path.join(os.path.dirname(__file__), "..", "..", "src", "daemons", "data")
KEY = "/VTWIN/Daemons/MailDaemon/"
REJECTED = b"550 Rejected by Vantrel.\r\n"
NOT_CHECKED = b"451 4.3.0 Message could not be checked, try again later\r\n"


def zipped():
    out = io.BytesIO()
    with zipfile.ZipFile(out, "w", zipfile.ZIP_DEFLATED) as archive:
        archive.writestr("eicar.com", EICAR)
    coded = base64.encodebytes(out.getvalue()).replace(b"\n", b"\r\n")
    return (b"Subject: a file\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n"
            b"Content-Type: text/plain\r\n\r\nsee the file\r\n--b\r\nContent-Type: application/zip; name=f.zip\r\n"
            b"Content-Transfer-Encoding: base64\r\n\r\n" + coded + b"--b--\r\n")


def body(text):
    return b"Subject: x\r\n\r\n" + text + b"\r\n"


class Engine(unittest.TestCase):
    """One engine for all cases of the class."""

    @classmethod
    def setUpClass(cls):
        cls.server = MailServer()
        cls.proxy = Proxy(cls.server.port, {KEY + "MaxFileSize": "200000", KEY + "ScanTimeout": "20"}, start=False)
        home = cls.proxy.home
        os.makedirs(home + "/clamd/db", 0o700)
        for file in glob.glob(DATABASE + "/*.ndb"):
            subprocess.run(["cp", file, home + "/clamd/db"], check=True)
        with open(home + "/clamd/clamd.conf", "w") as conf:
            conf.write("LocalSocket %s/clamd/clamd.sock\nDatabaseDirectory %s/clamd/db\nForeground yes\nMaxThreads 2\n" % (home, home))
        cls.processes = []
        cls.start_engine()
        cls.spawn(BIN + "/vtlogd", "debug")
        assert wait_until(lambda: os.path.exists(home + "/pipes/vtlogd"), 20)
        cls.proxy.tool("set", "/VTWIN/Daemons/StatsDaemon/HTTPPort", str(free_port()))
        cls.spawn(BIN + "/vtstatd", "debug")
        assert wait_until(lambda: os.path.exists(home + "/pipes/VTSTATD"), 20)
        cls.start_scanner()
        cls.proxy.start()

    @classmethod
    def start_engine(cls):
        cls.clamd = cls.spawn("clamd", "--config-file=" + cls.proxy.home + "/clamd/clamd.conf")
        assert wait_until(lambda: os.path.exists(cls.proxy.home + "/clamd/clamd.sock"), 60), "clamd"

    @classmethod
    def start_scanner(cls):
        cls.maild = cls.spawn(BIN + "/vtmaild", "debug")
        assert wait_until(lambda: cls.serves("vtmaild"), 20)

    @classmethod
    def serves(cls, pipe):
        with socket.socket(socket.AF_UNIX) as probe:
            return probe.connect_ex(cls.proxy.home + "/pipes/" + pipe) == 0

    @classmethod
    def spawn(cls, *words):
        process = subprocess.Popen(words, env=cls.proxy.env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        cls.processes.append(process)
        return process

    @classmethod
    def tearDownClass(cls):
        for process in reversed(cls.processes):
            process.send_signal(signal.SIGCONT)
            process.terminate()
            process.wait(30)
        cls.proxy.stop()
        cls.server.close()

    def send(self, message):
        client = Client(self.proxy.port, 40)
        client.envelope()
        reply = client.data(message + b".\r\n")
        client.close()
        return reply

    def settings(self, **values):
        for name, value in values.items():
            old = self.proxy.tool("get", KEY + name)
            self.addCleanup(self.proxy.tool, *(("set", KEY + name, old.stdout.rstrip("\n")) if old.returncode == 0
                                               else ("del", KEY + name)))
            self.proxy.tool("set", KEY + name, value)

    def log(self):
        with open(self.proxy.home + "/log/vtlogd.log") as file:
            return file.read()

    def test_infected_mail_is_found_in_every_dress(self):
        cases = {"plain": body(EICAR), "zip in base64": zipped(), "no header": EICAR + b"\r\n",
                 "behind doubled dots": body(b"..\r\n" + EICAR), "odd first header": b"X-Odd: 1\r\n" + zipped()}
        for name, message in cases.items():
            with self.subTest(name):
                count = len(self.server.messages)
                self.assertEqual(self.send(message), REJECTED)
                self.assertEqual(len(self.server.messages), count)
        self.assertIn("virus found", self.log())
        self.assertEqual(self.send(body(b"clean")), b"250 queued\r\n")

    def test_what_becomes_of_it_is_configured(self):
        self.settings(VirusAction="drop")
        count = len(self.server.messages)
        self.assertTrue(self.send(body(EICAR)).startswith(b"250"))
        self.assertEqual(len(self.server.messages), count)
        self.settings(VirusAction="redirect", RedirectAddress="abuse@example.org")
        self.assertEqual(self.send(body(EICAR)), b"250 queued\r\n")
        self.assertEqual(len(self.server.messages), count + 1)
        self.assertIn(b"RCPT TO: abuse@example.org\r\n", self.server.lines)
        self.settings(RedirectAddress="")
        self.assertEqual(self.send(body(EICAR)), REJECTED, "nowhere to redirect to")

    def test_mail_that_cannot_be_scanned(self):
        big = body(b"x" * 70 + b"\r\n" * 100000)
        self.assertEqual(self.send(big), b"552 5.3.4 Message size exceeds fixed limit\r\n")
        self.settings(PassWhenTooBig="Y")
        self.assertEqual(self.send(big), b"250 queued\r\n")
        self.settings(ScanTimeout="1")
        self.clamd.send_signal(signal.SIGSTOP)
        try:
            self.assertEqual(self.send(body(b"slow")), NOT_CHECKED)
            self.settings(PassWhenTimedOut="Y")
            self.assertEqual(self.send(body(b"slow")), b"250 queued\r\n")
        finally:
            self.clamd.send_signal(signal.SIGCONT)
        self.settings(ClamdSocket=self.proxy.home + "/nothing")
        self.assertEqual(self.send(body(b"down")), NOT_CHECKED)
        self.settings(PassWhenDown="Y")
        self.assertEqual(self.send(body(b"down")), b"250 queued\r\n")
        self.assertIn("could not be scanned", self.log())

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
        self.assertEqual(self.send(body(b"again")), b"250 queued\r\n")
        self.assertEqual(self.proxy.spool(), [])

    def test_engine_started_anew(self):
        for _ in range(2):
            self.assertEqual(self.send(body(b"before")), b"250 queued\r\n")
            self.clamd.terminate()
            self.clamd.wait(30)
            self.assertEqual(self.send(body(b"meanwhile")), NOT_CHECKED)
            self.start_engine()
            self.assertEqual(self.send(body(EICAR)), REJECTED, "the kept session is of no use any more")

    def test_verdicts_are_in_the_statistics(self):
        def events():
            with contextlib.closing(sqlite3.connect("file:%s/stats.db?mode=ro" % self.proxy.home, uri=True)) as database:
                return database.execute("SELECT event_code, label, sender, recipients, value FROM records WHERE agent_id = 5"
                                        " AND id > ? ORDER BY id", (first,)).fetchall()
        first = 0
        time.sleep(1)  # of the other cases' messages
        first = len(events())
        self.send(body(b"clean"))
        self.send(body(EICAR))
        self.settings(ClamdSocket=self.proxy.home + "/nothing")
        self.send(body(b"down"))
        self.settings(PassWhenDown="Y")
        self.send(body(b"down"))
        self.assertTrue(wait_until(lambda: len(events()) == 4), events())
        found = events()
        self.assertEqual([row[0] for row in found], [100, 101, 104, 105])
        self.assertIn("Eicar", found[1][1])
        self.assertEqual(found[0][2:], ("s@example.org", "r@example.org", len(body(b"clean"))))

    def test_limits_of_the_engine_are_compared(self):
        self.assertIn("AlertExceedsMax", self.log())
        self.settings(MaxFileSize="999999999")
        self.send(body(b"x"))
        self.assertTrue(wait_until(lambda: "could pass unscanned" in self.log()))


class Logger(unittest.TestCase):
    def test_log_keeps_its_size(self):
        proxy = Proxy(1, {"/VTWIN/Daemons/LoggerDaemon/MaxLogSize": "500", KEY + "MaxFileSize": "999999999"}, start=False)
        logger = subprocess.Popen([BIN + "/vtlogd", "debug"], env=proxy.env, stdout=subprocess.DEVNULL)
        self.assertTrue(wait_until(lambda: os.path.exists(proxy.home + "/pipes/vtlogd"), 20))
        for _ in range(6):  # each start of the scan daemon logs that its limits don't fit
            scan = subprocess.Popen([BIN + "/vtmaild", "debug"], env=proxy.env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            wait_until(lambda: os.path.exists(proxy.home + "/pipes/vtmaild"), 20)
            scan.terminate()
            scan.wait(20)
        logger.terminate()
        logger.wait(20)
        files = {name: os.path.getsize(proxy.home + "/log/" + name) for name in os.listdir(proxy.home + "/log")}
        self.assertIn("vtlogd.log.1", files)
        self.assertLessEqual(len(files), 5)
        self.assertTrue(all(size < 1000 for size in files.values()), files)
        proxy.stop()


if __name__ == "__main__":
    unittest.main()
