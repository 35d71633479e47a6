"""An instance with the real engine behind the scan daemon, the logger and the statistics beside it, for the cases of one
class; and messages to send through it."""

import base64
import glob
import io
import os
import signal
import subprocess
import unittest
import zipfile

from harness import BIN, Client, MailServer, Proxy, wait_until
from system_test import NOT_CHECKED, REJECTED
from waiting import serves

# The standard test pattern for scanners, in two pieces so that this file is none itself.
EICAR = rb"X5O!P%@AP[4\PZX54(P^)7CC)7}$EICAR-STANDARD-" + b"ANTIVIRUS-TEST-FILE!" + b"$H+H*"
DATABASE = os.path.join(os.path.dirname(__file__), "..", "..", "src", "daemons", "maild", "data")
KEY = "/VTWIN/Daemons/MailDaemon/"
QUEUED = b"250 queued\r\n"


def archive(*files, method=zipfile.ZIP_DEFLATED):
    """A zip of (name, bytes)."""
    out = io.BytesIO()
    with zipfile.ZipFile(out, "w", method) as made:
        for name, data in files:
            made.writestr(name, data)
    return out.getvalue()


def encrypted_archive(home, *names_and_bytes, password="secret"):
    """The same with a password; made by Info-ZIP."""
    with open(home + "/plain.tmp", "wb") as file:
        file.write(b"".join(names_and_bytes))
    subprocess.run(["zip", "-q", "-j", "-P", password, home + "/made.zip", home + "/plain.tmp"], check=True)
    with open(home + "/made.zip", "rb") as file:
        data = file.read()
    os.unlink(home + "/made.zip")
    return data


def attached(*attachments, first=b"Subject: a file\r\n"):
    """A message with base64 attachments."""
    parts = b"".join(b"--b\r\nContent-Type: application/zip; name=f.zip\r\nContent-Transfer-Encoding: base64\r\n\r\n"
                     + base64.encodebytes(data).replace(b"\n", b"\r\n") for data in attachments)
    return (first + b"MIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n"
            b"Content-Type: text/plain\r\n\r\nsee the file\r\n" + parts + b"--b--\r\n")


def body(text):
    return b"Subject: x\r\n\r\n" + text + b"\r\n"


class Scanning(unittest.TestCase):
    """One engine for all cases of the class."""
    ENGINE = "MaxFileSize 20M\nMaxScanSize 20M\nStreamMaxLength 20M\nAlertExceedsMax yes\nAlertEncrypted yes\n"
    SIGNATURES = True
    LATE = False  # the engine is not started with the others

    @classmethod
    def setUpClass(cls):
        cls.server = MailServer()
        cls.proxy = Proxy(cls.server.port, {KEY + "MaxFileSize": "200000", KEY + "ScanTimeout": "60"}, start=False)
        home = cls.proxy.home
        os.makedirs(home + "/clamd/db", 0o700)
        for file in glob.glob(DATABASE + "/*.ndb") if cls.SIGNATURES else ():
            subprocess.run(["cp", file, home + "/clamd/db"], check=True)
        if not cls.SIGNATURES:
            with open(home + "/clamd/db/other.ndb", "w") as file:
                file.write("Other:0:*:" + b"nothing like that".hex() + "\n")
        with open(home + "/clamd/clamd.conf", "w") as conf:
            conf.write("LocalSocket %s/clamd/clamd.sock\nDatabaseDirectory %s/clamd/db\nForeground yes\nMaxThreads 2\n" % (home, home)
                       + cls.ENGINE)
        cls.processes = []
        if not cls.LATE:
            cls.start_engine()
        cls.proxy.logger()
        cls.proxy.statistics()
        cls.start_scanner()
        cls.proxy.start()

    @classmethod
    def start_engine(cls):
        cls.clamd = cls.spawn("clamd", "--config-file=" + cls.proxy.home + "/clamd/clamd.conf")
        assert wait_until(lambda: serves(cls.proxy.home + "/clamd/clamd.sock"), 60), "clamd"

    @classmethod
    def start_scanner(cls):
        cls.maild = cls.spawn(BIN + "/vtmaild", "debug")
        assert wait_until(lambda: cls.serves("vtmaild"), 20)

    @classmethod
    def serves(cls, pipe):
        return serves(cls.proxy.home + "/pipes/" + pipe)

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

    def client(self):
        return Client(self.proxy.port, 90)

    def send(self, message):
        client = self.client()
        client.envelope()
        reply = client.data(message + b".\r\n")
        client.close()
        return reply

    def send_chunk(self, message):
        client = self.client()
        client.envelope()
        client.send(b"BDAT %d LAST\r\n" % len(message) + message)
        reply = client.reply()
        client.close()
        return reply

    def settings(self, **values):
        for name, value in values.items():
            old = self.proxy.tool("get", KEY + name)
            self.addCleanup(self.proxy.tool, *(("set", KEY + name, old.stdout.rstrip("\n")) if old.returncode == 0
                                               else ("del", KEY + name)))
            self.proxy.tool("set", KEY + name, value)

    def log(self):
        return self.proxy.log()

    def logged(self, text, count=1):
        """Whether a line with this text (a part of it) is there so many times; events come on their own time."""
        return wait_until(lambda: self.log().count(text) >= count)

    def events(self, first=0):
        """The scan daemon's records of the statistics."""
        return self.proxy.records("event_code, label, sender, recipients, value", "agent_id = 5 AND id > %d" % first)
