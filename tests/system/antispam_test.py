"""Spam: rspamd and SpamAssassin's spamd are asked about each message. Real ones, and one that fails as a test chooses."""

import json
import os
import re
import shutil
import socket
import subprocess
import time

from harness import BIN, Listening, free_port, listens, wait_until
from metrics import Pages
from scanning import EICAR, KEY, QUEUED, Scanning, attached, body
from system_test import NOT_CHECKED, REJECTED

# The standard test pattern of spam filters, in two pieces.
GTUBE = b"XJS*C4JDBQADN1.NSBN3*2IDNEN*GTUBE-" + b"STANDARD-ANTI-UBE-TEST-EMAIL*C.34X"
RSPAMD = """
options {{ pidfile = "{home}/rspamd.pid"; tempdir = "{home}"; control_socket = "{home}/control.sock mode=0600"; filters = "";
  dns {{ nameserver = ["127.0.0.1:9"]; timeout = 0.1s; retransmits = 1; }} url_tld = "{home}/tld"; gtube_patterns = "all"; }}
logging {{ type = "file"; filename = "{home}/rspamd.log"; level = "info"; }}
lua = "/usr/share/rspamd/rules/rspamd.lua"
actions {{ reject = 15; add_header = 6; greylist = 4; }}
worker "normal" {{ bind_socket = "127.0.0.1:{port}"; bind_socket = "{home}/rspamd.sock mode=0600"; count = 1; }}
"""


class Antispam(Scanning):
    def setUp(self):
        self.messages = len(self.server.messages)

    def arrived(self):
        return self.server.messages[self.messages:]

    def judged(self, message, *words):
        path = self.proxy.home + "/tested.eml"
        with open(path, "wb") as file:
            file.write(message)
        done = subprocess.run([BIN + "/vtmaild", "test", *words, path], env=self.proxy.env, text=True, capture_output=True, timeout=60)
        return done.returncode, done.stdout

    def spam_settings(self, **values):
        self.settings(**{"Antispam/" + name: value for name, value in values.items()})


class Rspamd(Antispam):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.port = free_port()
        home = cls.proxy.home + "/rspamd"
        os.mkdir(home)
        with open(home + "/tld", "w") as file:
            file.write("com\norg\nexample\n")
        with open(home + "/rspamd.conf", "w") as file:
            file.write(RSPAMD.format(home=home, port=cls.port))
        # -i: root may run it, too.
        cls.spawn("rspamd", "-i", "-f", "-c", home + "/rspamd.conf")
        assert wait_until(lambda: listens(cls.port), 60), "rspamd"
        cls.proxy.load({KEY + "Antispam/Address": "127.0.0.1:%d" % cls.port})

    def test_the_pattern_in_every_place(self):
        lines = b"words\r\n" * 300
        places = {
            "at the start": body(GTUBE),
            "at the end": body(lines + GTUBE),
            "behind a dot that was doubled": body(b"..\r\n" + GTUBE),
            "in a part": b"Subject: x\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n\r\nhello\r\n--b\r\n"
                         b"Content-Type: text/plain\r\n\r\n" + GTUBE + b"\r\n--b--\r\n",
        }
        for name, message in places.items():
            with self.subTest(name):
                self.assertEqual(self.send(message), REJECTED)
                self.assertEqual(self.send_chunk(message), REJECTED)
        self.assertEqual(self.arrived(), [])
        self.assertEqual(self.send(body(b"hello")), QUEUED)
        self.assertTrue(self.logged("spam is refused: score 15.00 (GTUBE) (from s@example.org to r@example.org, client 127.0.0.1)", 8))
        self.assertTrue(self.logged("antispam at 127.0.0.1:%d: answers" % self.port))
        self.assertTrue(wait_until(lambda: [each[:2] for each in self.events()].count((130, "score 15.00")) >= 8), self.events())
        # The daemon's answer names the section, and the log of the message has it.
        self.assertTrue(self.logged("section=antispam"))

    def test_the_envelope_and_the_message_arrive_there(self):
        log = self.proxy.home + "/rspamd/rspamd.log"
        text = b"Subject: x\r\nMessage-ID: <here-%d@example.org>\r\n\r\n..one dot\r\n" % time.time_ns()
        self.assertEqual(self.send(text), QUEUED)
        name = re.search(rb"here-\d+@example.org", text).group().decode()

        def lines():
            with open(log, encoding="utf-8", errors="replace") as file:
                return [each for each in file if name in each and "ip:" in each]
        self.assertTrue(wait_until(lines))
        line = lines()[-1]
        for each in ("ip: 127.0.0.1", "from: <s@example.org>", "rcpts: <r@example.org>", "len: %d" % (len(text) - 1)):
            self.assertIn(each, line)

    def test_thresholds(self):
        self.spam_settings(RejectScore="16", TagScore="6", SubjectPrefix="[SPAM] ")
        self.assertEqual(self.send(body(GTUBE)), QUEUED, "it says reject, below our own score")
        self.assertTrue(self.logged("spam is tagged: score 15.00"))
        code, text = self.judged(body(GTUBE))
        self.assertEqual(code, 1)
        self.assertIn("antispam: tag, TagScore: score 15.00\n", text)
        self.spam_settings(RejectScore="14.9")
        self.assertEqual(self.send(body(GTUBE)), REJECTED)
        code, text = self.judged(body(b"hello"))
        self.assertEqual(code, 0)
        self.assertRegex(text, r"(?m)^  antispam: pass, TagScore: score -?\d\.\d\d$")

    def test_by_its_socket(self):
        self.spam_settings(Address="unix:%s/rspamd/rspamd.sock" % self.proxy.home)
        self.assertEqual(self.send(body(GTUBE)), REJECTED)

    def test_malware_is_told_as_such(self):
        self.assertEqual(self.send(attached(EICAR, first=b"Subject: x\r\nX-Spam: " + GTUBE + b"\r\n")), REJECTED)
        self.assertTrue(wait_until(lambda: 101 in [each[0] for each in self.events()]))

    def test_without_an_address_nobody_is_asked(self):
        self.spam_settings(Address="")
        self.assertEqual(self.send(body(GTUBE)), QUEUED)
        self.assertIn("  antispam: nothing\n", self.judged(body(GTUBE))[1])


class Spamd(Antispam):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.port = free_port()
        home = cls.proxy.home + "/spamassassin"
        shutil.copytree("/etc/spamassassin", home, ignore=shutil.ignore_patterns("*.d", "local.cf"))
        with open(home + "/local.cf", "w") as file:
            file.write("required_score 5\nuse_bayes 0\nskip_rbl_checks 1\ndns_available no\n")
        subprocess.run(["chmod", "-R", "a+rX", cls.proxy.home + "/spamassassin"], check=True)
        os.chmod(cls.proxy.home, 0o711)  # root's spamd becomes nobody, who reads its settings
        cls.spawn("/usr/sbin/spamd", "-4", "--listen", "127.0.0.1:%d" % cls.port, "-L", "-x", "--max-children", "1", "-C",
                  "/usr/share/spamassassin", "--siteconfigpath=" + home, *(("-u", "nobody") if os.getuid() == 0 else ()), "-s", "stderr")
        assert wait_until(lambda: listens(cls.port), 60), "spamd"
        cls.proxy.load({KEY + "Antispam/Address": "spamd:127.0.0.1:%d" % cls.port, KEY + "Antispam/RejectScore": "100"})

    def test_the_pattern(self):
        self.assertEqual(self.send(body(GTUBE)), REJECTED)
        self.assertEqual(self.send(body(b"hello" + b"\r\n..dots" * 20000)), QUEUED)
        self.spam_settings(RejectScore="")
        self.assertEqual(self.send(body(GTUBE)), QUEUED, "it says what it thinks, and nothing of refusing")
        self.assertRegex(self.judged(body(GTUBE))[1], r"(?m)^  antispam: tag, TagScore: score 1\d\d\d\.\d\d$")


class Fake(Listening):
    """Somebody who is asked, and answers with bytes, a function of the request, or None: nothing, for ever."""

    def __init__(self):
        self.answer, self.requests = b"", []
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.listen()

    def _serve(self, client):
        with client:
            try:
                head = b""
                while b"\r\n\r\n" not in head:
                    if self.answer == b"close at once":
                        return
                    head += client.recv(65536)
                head, _, text = head.partition(b"\r\n\r\n")
                length = int(re.search(rb"(?i)content-length: (\d+)", head).group(1))
                while len(text) < length:
                    text += client.recv(65536)
                self.requests.append((head, text))
                if self.answer is None:
                    time.sleep(60)
                elif callable(self.answer):
                    self.answer(client)
                else:
                    client.sendall(self.answer)
            except OSError:
                pass


def answer(**values):
    text = json.dumps(values).encode()
    return b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % len(text) + text


def endless(client):
    client.sendall(b"HTTP/1.1 200 OK\r\n\r\n{\"score\": 20, \"action\": \"reject\", \"x\": \"")
    while True:
        client.sendall(b"x" * 65536)


def slow(client):
    for each in answer(score=20, action="reject"):
        client.sendall(bytes([each]))
        time.sleep(0.5)


SPAM = answer(score=20, action="reject")
FAULTS = {"hang": None, "half": SPAM[:-5], "nonsense": b"nonsense\r\n\r\n", "huge": endless, "500": SPAM.replace(b"200 OK", b"500 Oh"),
          "closes": b"", "closes at once": b"close at once", "no json": b"HTTP/1.1 200 OK\r\n\r\n<html>", "no score": answer(action="reject"),
          "drop by drop": slow, "deep": b"HTTP/1.1 200 OK\r\n\r\n" + b"[" * 100000}


class SpamFaults(Antispam):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.fake = Fake()
        cls.proxy.load({KEY + "Antispam/Address": "127.0.0.1:%d" % cls.fake.port, KEY + "Antispam/Timeout": "2"})

    @classmethod
    def tearDownClass(cls):
        super().tearDownClass()
        cls.fake.close()

    def up(self):
        pages = Pages.__new__(Pages)
        pages.proxy, pages.port = self.proxy, int(self.proxy.tool("get", "/VTWIN/Daemons/StatsDaemon/HTTPPort").stdout)
        return pages.numbers()["vantrel_antispam_up"]

    def test_each_fault(self):
        for word, expected in (("pass", QUEUED), ("put off", NOT_CHECKED)):
            self.spam_settings(WhenDown=word)
            for name, fault in FAULTS.items():
                with self.subTest(fault=name, when=word):
                    self.fake.answer = SPAM
                    self.assertEqual(self.send(body(b"spam")), REJECTED)
                    self.assertEqual(self.up(), 1)
                    self.fake.answer = fault
                    begun = time.monotonic()
                    self.assertEqual(self.send(body(b"hello")), expected)
                    self.assertLess(time.monotonic() - begun, 10)
                    self.assertEqual(self.up(), 0)
                    # What is infected is so, whoever else is away.
                    self.assertEqual(self.send(attached(EICAR)), REJECTED)
        self.assertTrue(self.logged("mail passes unjudged"))
        self.assertTrue(self.logged("a message is put off, nobody says whether it is spam: no answer in time"))

    def test_one_that_hangs_holds_up_no_mail(self):
        self.spam_settings(WhenDown="pass")
        self.fake.answer = None
        begun = time.monotonic()
        for _ in range(8):
            self.assertEqual(self.send(body(b"hello")), QUEUED)
        self.assertLess(time.monotonic() - begun, 11, "a few at 2 s, and not all")
        self.fake.answer = SPAM
        self.assertTrue(wait_until(lambda: self.send(body(b"spam")) == REJECTED, 20), "it is asked again by itself")
        self.assertEqual(self.send(body(b"spam")), REJECTED)

    def test_nobody_there(self):
        for address in ("127.0.0.1:%d" % free_port(), "unix:/nobody", "nonsense", "spamd:nonsense", "spamd:127.0.0.1:%d" % free_port()):
            with self.subTest(address):
                self.spam_settings(Address=address, WhenDown="pass")
                self.assertEqual(self.send(body(b"hello")), QUEUED)
                self.spam_settings(WhenDown="put off")
                self.assertEqual(self.send(body(b"hello")), NOT_CHECKED)
                self.assertEqual(self.proxy.tool("set", "--force", KEY + "Antispam/WhenDown", "nonsense").returncode, 0)
                self.assertEqual(self.send(body(b"hello")), NOT_CHECKED)

    def test_later(self):
        for action in ("greylist", "soft reject"):
            self.fake.answer = answer(score=5, action=action)
            self.assertEqual(self.send(body(b"hello")), NOT_CHECKED)
            self.assertTrue(self.logged('a message is put off by %s: score 5.00' % action))
        self.assertTrue(wait_until(lambda: 131 in [each[0] for each in self.events()]), self.events())

    def test_spamd_faults(self):
        self.spam_settings(Address="spamd:127.0.0.1:%d" % self.fake.port, WhenDown="put off", RejectScore="10")
        good = b"SPAMD/1.1 0 EX_OK\r\nContent-length: 5\r\nSpam: True ; 15.0 / 5.0\r\n\r\nGTUBE"
        for fault in (None, good[:-2], good[:30], b"SPAMD/1.1 76 no\r\n\r\n", b"nonsense", SPAM, endless, b""):
            self.fake.answer = fault
            self.assertEqual(self.send(body(b"hello")), NOT_CHECKED, fault)
        self.fake.answer = good
        self.assertEqual(self.send(body(b"hello")), REJECTED)

    def test_what_it_gets(self):
        self.fake.answer = answer(score=0, action="no action")
        message = b"Subject: x\r\n\r\n..a\r\n.b\r\n" + b"line\r\n" * 20000
        self.fake.requests.clear()
        self.assertEqual(self.send(message.replace(b"\r\n.b", b"\r\n..b")), QUEUED)
        self.assertTrue(self.send_chunk(message).startswith(b"250"))
        (head, stuffed), (_, plain) = self.fake.requests
        self.assertEqual(stuffed, message.replace(b"\r\n..a", b"\r\n.a"))
        self.assertEqual(plain, message)
        self.assertRegex(head, rb"\APOST /checkv2 HTTP/1\.1\r\n")
        for line in (b"From: <s@example.org>", b"Rcpt: <r@example.org>", b"IP: 127.0.0.1"):
            self.assertIn(line, head.split(b"\r\n"))
        self.assertRegex(head, rb"\r\nHelo: [^\r\n]+\r\n")

    def test_scores_that_are_none(self):
        self.fake.answer = answer(score=20, action="no action")
        self.spam_settings(RejectScore="1O", TagScore="6,5")
        self.assertEqual(self.send(body(b"hello")), QUEUED)
        self.assertTrue(self.logged("no number, and so not set: Antispam/TagScore, Antispam/RejectScore"))

    def test_the_answers_of_its_rules_are_bounded(self):
        self.fake.answer = answer(score=7, action="add header", symbols={"S%d" % i: {} for i in range(20000)})
        self.assertEqual(self.send(body(b"hello")), QUEUED)
        self.assertTrue(self.logged("spam is tagged: score 7.00 (S0,"))


del Antispam, Scanning  # no cases of their own
