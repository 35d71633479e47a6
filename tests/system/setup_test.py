"""`vtsmtpproxy setup`: from a few words to a proxy that serves, and nothing written over."""

import json
import os
import pty
import subprocess
import unittest

from check_test import judge
from harness import BIN, NET, Client, MailServer, Proxy, ScanDaemon
from tls import Authority

FILTERS = "/VTWIN/Filters/AS/AllowDenyIPList/Enabled"


class Setup(unittest.TestCase):
    def setUp(self):
        self.server = MailServer()
        self.proxy = Proxy(self.server.port, start=False)  # whose configuration goes
        self.proxy.tool("del", "/VTWIN")
        self.scan = ScanDaemon(self.proxy.home, judge)
        self.words = ["--server", "127.0.0.1:%d" % self.server.port, "--domain", "example.org", "--domain", "Example.NET",
                      "--relay", "192.0.2.0/24", "--relay", "198.51.100.0/255.255.255.128", "--relay", "2001:db8::/32",
                      "--listen", "127.0.0.1:%d" % self.proxy.port]

    def tearDown(self):
        self.proxy.stop()
        self.scan.close()
        self.server.close()

    def setup(self, *words):
        done = subprocess.run([BIN + "/vtsmtpproxy", "setup", *words], env=self.proxy.env, capture_output=True, text=True,
                              timeout=60, start_new_session=True)  # without a terminal
        return done.returncode, done.stdout, done.stderr

    def dump(self, key="/"):
        return json.loads(self.proxy.tool("dump", key).stdout or "{}")

    def test_a_message_goes_through_and_a_stranger_can_not_relay(self):
        code, out, err = self.setup(*self.words)
        self.assertEqual((code, err), (0, ""), out)
        lines = out.splitlines()
        self.assertEqual(lines[-1], "nothing to complain of")
        stored = self.dump(NET)
        for line in lines[:-1]:
            key, value = line.split(" = ")
            self.assertEqual(stored[key], value)
        for key, value in (("MailDomains/2", "example.net"), ("RelayNetworks/1/IPAddress", "192.0.2.0/24"),
                           ("RelayNetworks/2/Mask", "255.255.255.128"), ("RelayNetworks/3/IPAddress", "2001:db8::/32"),
                           ("BareNewline", "normalize"), ("EarlyTalker", "refuse"), ("IdInReplies", "Y"), ("ServerTLS/Mode", "try")):
            self.assertIn("%s/%s = %s" % (NET, key, value), lines)
        self.proxy.start()
        client = Client(self.proxy.port)
        client.envelope(recipients=(b"r@example.org", b"r@example.net"))
        self.assertEqual(client.data(b"Subject: x\r\n\r\nhello\r\n.\r\n"), b"250 queued\r\n")
        self.assertEqual(client.ask(b"MAIL FROM:<s@example.org>"), b"250 ok\r\n")
        self.assertEqual(client.ask(b"RCPT TO:<r@elsewhere.example>")[:1], b"5")
        client.close()
        self.assertEqual(len(self.server.messages), 1)

    def test_tls_for_clients(self):
        authority = Authority()
        self.addCleanup(authority.close)
        authority.issue("mx.pem", days=90)
        os.chmod(authority.dir + "/mx.pem", 0o600)
        done = subprocess.run([BIN + "/vtsmtpproxy", "setup", *self.words, "--certificate", "mx.pem"], env=self.proxy.env,
                              cwd=authority.dir, capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stderr), (0, ""), done.stdout)
        self.proxy.start()
        client = Client(self.proxy.port)
        client.reply()
        self.assertIn(b"STARTTLS", client.ask(b"EHLO me"))
        client.close()

    def test_it_listens_everywhere_unasked(self):
        self.setup(*self.words[:-2])
        self.assertEqual(self.dump(NET)[NET + "/Port"], "25")
        self.assertIn(self.dump(NET)[NET + "/IPAddress"], ("::", ""))

    def test_what_is_there_stays(self):
        self.proxy.load({NET + "/ServerToForward": "192.0.2.9:25", NET + "/RelayNetworks/old/IPAddress": "10.0.0.0/8",
                         NET + "/TLS/Mode": "require", NET[:-3] + "other/Port": "26", FILTERS: "N"})
        before = self.dump()
        code, out, err = self.setup(*self.words)
        self.assertEqual((code, out), (2, ""))
        self.assertIn("--force", err)
        self.assertEqual(self.dump(), before)
        self.setup(*self.words, "--force")
        stored = self.dump()
        self.assertEqual(stored[NET + "/ServerToForward"], "127.0.0.1:%d" % self.server.port)
        self.assertNotIn(NET + "/RelayNetworks/old/IPAddress", stored)  # who may relay is what has been said now
        self.assertNotIn(NET + "/TLS/Mode", stored)
        self.assertEqual((stored[NET[:-3] + "other/Port"], stored[FILTERS]), ("26", "N"))

    def test_registered_defaults_are_nobodys(self):
        subprocess.run([BIN + "/vtsmtpproxy", "register"], env=self.proxy.env, check=True)
        self.proxy.load({FILTERS: "N"})
        self.assertEqual(self.setup(*self.words)[0], 0)
        self.assertEqual(self.dump(FILTERS), {FILTERS: "N"})
        self.assertEqual(self.setup(*self.words)[0], 2)

    def test_a_running_proxy_keeps_its_clients(self):
        self.setup(*self.words)
        self.proxy.start()
        client = Client(self.proxy.port)
        self.assertEqual(client.reply()[:4], b"220 ")
        self.assertEqual(self.setup(*self.words, "--force")[0], 0)
        self.assertEqual(client.ask(b"NOOP"), b"250 ok\r\n")
        client.close()

    def test_a_running_proxy_moves_its_listener_meanwhile(self):
        """Which is nobody else's."""
        self.setup(*self.words)
        self.proxy.start()
        for turn in range(8):
            address = ("[::]", "0.0.0.0")[turn % 2] + ":%d" % self.proxy.port
            code, out, err = self.setup(*self.words[:-1], address, "--force")
            self.assertEqual((code, err, out.splitlines()[-1]), (0, "", "nothing to complain of"), out)

    def test_words_of_no_use(self):
        for words, word in (((), "nobody to ask"), (self.words[2:], "--server"), (self.words[:2], "--domain"),
                            ((*self.words, "--relay", "0.0.0.0/0"), "everybody"),
                            ((*self.words, "--relay", "::/0"), "everybody"),
                            ((*self.words, "--relay", "0.0.0.0/0.0.0.0"), "everybody"),
                            ((*self.words, "--relay", "192.0.2.1/255.255.255.0"), "bits"),
                            ((*self.words, "--relay", "office"), "no network"),
                            ((*self.words, "--domain", "@example.org"), "no domain"),
                            (("--server", "a" * 70 + ":25", *self.words[2:]), "63 bytes"),
                            (self.words[:-1], "value"), ((*self.words, "--listen", "127.0.0.1:25"), "twice"),
                            ((*self.words[:-1], "mx.example.org:25"), "ADDRESS:PORT"),
                            (("--server", "localhost", *self.words[2:]), "HOST:PORT"),
                            (("--server", "localhost:70000", *self.words[2:]), "HOST:PORT"),
                            (("--server", ":25", *self.words[2:]), "HOST:PORT"),
                            ((*self.words, "--certificate", "/nowhere.pem"), "no such file"),
                            ((*self.words, "--key", BIN + "/vtregistry"), "--certificate"), ((*self.words, "--fast"), "unknown")):
            with self.subTest(words=words):
                code, out, err = self.setup(*words)
                self.assertEqual((code, out), (2, ""))
                self.assertIn(word, err)
        self.assertNotIn(NET + "/Port", self.dump())

    def test_a_person_is_asked(self):
        process, terminal = pty.fork()
        if process == 0:
            os.execve(BIN + "/vtsmtpproxy", ["vtsmtpproxy", "setup"], self.proxy.env)
        said = b""
        for question, answer in ((b"HOST:PORT: ", b"localhost"), (b"HOST:PORT: ", self.words[1].encode()),
                                 (b"mail for: ", b"example.org, example.net"), (b"192.0.2.0/24: ", b""),
                                 (b"addresses): ", self.words[-1].encode()), (b"no TLS): ", b"")):
            while not said.endswith(question):
                said += os.read(terminal, 1000)
            os.write(terminal, answer + b"\n")
            said = b""
        try:
            while more := os.read(terminal, 1000):
                said += more
        except OSError:  # the end, as a terminal tells it
            pass
        os.close(terminal)
        self.assertEqual(os.waitstatus_to_exitcode(os.waitpid(process, 0)[1]), 0, said)
        self.assertIn(b"nothing to complain of", said)
        self.assertEqual(self.dump(NET)[NET + "/MailDomains/2"], "example.net")
