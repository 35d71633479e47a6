"""What a careless administrator does to the files of an instance while mail goes through it."""

import ctypes
import os
import re
import threading
import time

from harness import NET, verdict
from system_test import System

EXCHANGE = 2


def exchange(one, other):
    ctypes.CDLL(None).renameat2(-100, one.encode(), -100, other.encode(), EXCHANGE)


class Cut(System):
    """Files that are mapped are cut."""

    def test_mail_goes_on_and_changes_are_seen(self):
        c = self.ready()
        self.assertEqual(c.data(b"hello\r\n.\r\n"), b"250 queued\r\n")
        for name in ("metrics/vtsmtpproxy", "store.seq"):
            os.truncate(os.path.join(self.proxy.home, name), 0)
            c.mail()
            self.assertEqual(c.data(b"hello\r\n.\r\n"), b"250 queued\r\n", name)
            time.sleep(1.2)  # who waits for changes looks that often
            self.assertTrue(self.proxy.alive(), name)
        self.proxy.change({NET + "/GreetingDomainName": "changed.example"})
        d = self.client()
        self.assertEqual(d.reply(), b"220 changed.example ESMTP Vantrel Proxy\r\n")


class Texts(System):
    """Texts of the configuration that would become lines of a dialogue of their own."""

    AS = "/VTWIN/Filters/AS/SenderBlackList"
    keys = {NET + "/ServerTLS/Mode": "try", AS + "/Enabled": "Y", AS + "/EnabledSendDenyMessage": "Y",
            AS + "/UsersList/1": "bad@x.example"}

    def test_a_name_of_several_words_or_lines(self):
        mx, literal = b"mx.example.org", b"[127.0.0.1]"
        for name, word, told in (("mx.example.org\n", mx, mx), ("mx.example.org\r\nRSET", mx, mx),
                                 ("mail server of ACME", b"mail server of ACME", b"mail"), ("\r\n", b"127.0.0.1", literal),
                                 ("[127.0.0.1]", literal, literal), ("", b"", literal)):
            with self.subTest(name):
                self.proxy.change({NET + "/GreetingDomainName": name})
                del self.server.lines[:]
                self.assertEqual(self.greeting(), b"220 %s ESMTP Vantrel Proxy\r\n" % word)
                self.assertEqual(self.ready().data(b"hello\r\n.\r\n"), b"250 queued\r\n")
                hello = next(line for line in self.server.lines if line.startswith(b"EHLO"))
                self.assertEqual(hello, b"EHLO %s\r\n" % told)
                self.assertNotIn(b"RSET\r\n", self.server.lines)

    def test_a_refusal_that_is_no_reply(self):
        for text, reply in (("Go away, spammer", b"Go away, spammer\r\n"), ("550 a\r\n250 ok", b"550 a\r\n"),
                            ("550-a", b"550 5.7.1 Message Rejected\r\n"), ("451 not now", b"451 not now\r\n")):
            with self.subTest(text):
                self.proxy.load({self.AS + "/DenyMessage": text})
                c = self.opened(b"EHLO me")
                self.assertEqual(c.ask(b"MAIL FROM:<bad@x.example>"), reply)
                self.in_step(c)

    def test_an_address_of_several_lines(self):
        self.scan.answer = lambda request: verdict(2, section_mask=1, recipients="one@x.example\r\nQUIT;two@x.example")
        c = self.ready()
        self.assertEqual(c.data(b"hello\r\n.\r\n"), b"250 queued\r\n")
        self.in_step(c)
        self.assertEqual([line for line in self.server.lines if b"x.example" in line or b"QUIT" in line],
                         [b"RCPT TO: two@x.example\r\n"])


class Told(list):
    """Messages with the sender that was told of each."""

    def __init__(self):
        super().__init__()
        self.sender = {}

    def begin(self, line):
        self.sender[threading.get_ident()] = re.search(rb"<(.*)@", line)[1]
        return b"250 ok\r\n"

    def append(self, message):
        super().append((self.sender[threading.get_ident()], message.rstrip(b"\r\n")))


class SpoolFiles(System):
    """They are exchanged, linked, made unreadable and replaced while messages go through them."""
    SENDERS, EACH = 6, 60

    def careless(self):
        number = 0
        while not self.over.is_set():
            for folder in ("tmp/spare", "tmp/VTNP"):
                path = os.path.join(self.proxy.home, folder)
                names = sorted(os.listdir(path)) if os.path.isdir(path) else []
                for name, following in zip(names, names[1:] + names[:1]):
                    number += 1
                    at, other = os.path.join(path, name), os.path.join(path, following)
                    kept = self.proxy.home + "/kept"
                    acts = [lambda: os.chmod(at, 0), lambda: os.link(at, kept + str(number)), lambda: exchange(at, other)]
                    # What is gone or cut behind the scan has been taken away by the scan daemon.
                    if folder == "tmp/spare":
                        acts += [lambda: os.rename(at, other), lambda: os.unlink(at), lambda: os.rename(kept + str(number - 5), at)]
                    try:
                        acts[number % len(acts)]()
                    except OSError:
                        pass
            time.sleep(0.001)

    def send(self, number):
        c = None
        for i in range(self.EACH):
            if c is None:
                c = self.client()
                c.reply()
                c.ask(b"EHLO me")
            sender = b"s%d-%d" % (number, i)
            text = b"\r\n".join([b"from " + sender] * (10 if i % 3 else 20000))
            try:
                c.mail(sender=sender + b"@example.org")
                if i % 3 and i % 2:
                    c.send(b"BDAT %d LAST\r\n" % len(text) + text)
                    answer = c.reply()
                else:
                    answer = c.data(text + b"\r\n.\r\n")
            except (AssertionError, OSError):
                answer = b""
            self.answers[sender, text] = answer
            if answer[:3] not in (b"250", b"451"):
                c = None

    def test_each_message_arrives_as_it_was_or_stays_with_its_client(self):
        self.server.messages = Told()
        self.server.rules.update(MAIL=self.server.messages.begin, BDAT=b"250 queued\r\n")
        self.answers, self.over = {}, threading.Event()
        spoiler = threading.Thread(target=self.careless)
        senders = [threading.Thread(target=self.send, args=(i,)) for i in range(self.SENDERS)]
        for each in (spoiler, *senders):
            each.start()
        for each in senders:
            each.join()
        self.over.set()
        spoiler.join()
        self.assertTrue(self.proxy.alive())
        self.assertEqual(len(self.answers), self.SENDERS * self.EACH)
        accepted = sum(answer[:3] == b"250" for answer in self.answers.values())
        self.assertGreater(accepted, 10)
        self.assertLess(accepted, len(self.answers), "nothing was spoilt")
        for sender, message in self.server.messages:
            self.assertIn((sender, message), self.answers, (sender, len(message), message[:30]))
        for (sender, text), answer in self.answers.items():
            if answer[:3] == b"250":
                self.assertEqual(self.server.messages.count((sender, text)), 1, (sender, answer))
        c = self.ready()
        self.assertEqual(c.data(b"hello\r\n.\r\n"), b"250 queued\r\n", "all is well again")
