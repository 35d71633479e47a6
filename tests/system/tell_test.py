"""Servers behind that are told who the client is."""

import socket
import unittest

import real_server
from harness import NET, MailServer, Proxy, ScanDaemon, wait_until
from trust import BALANCER, SIGNATURE, STRANGER, TRUST, Trust, binary, line4


class ToldServer(MailServer):
    """Wants a PROXY header, of either version, before it greets."""

    def __init__(self, **rules):
        self.headers = []
        super().__init__(**rules)

    def _serve(self, client):
        header = client.recv(16, socket.MSG_WAITALL)
        if len(header) < 16:
            client.close()
            return
        if header.startswith(b"PROXY"):
            while not header.endswith(b"\n") and len(header) < 200:
                header += client.recv(1)
        else:
            header += client.recv(int.from_bytes(header[14:16], "big"), socket.MSG_WAITALL)
        self.headers.append(header)
        super()._serve(client)


class Telling(Trust):
    """By commands, to a server that offers them or doesn't."""
    EHLO = b"250-real.example\r\n250-XCLIENT NAME ADDR PORT PROTO HELO\r\n250-XFORWARD NAME ADDR PORT PROTO HELO SOURCE\r\n250 8BITMIME\r\n"

    def tell(self, how, required="N", ehlo=EHLO, **rules):
        self.server.rules.update(dict({"EHLO": ehlo, "XCLIENT": b"220 real.example ESMTP\r\n", "XFORWARD": b"250 ok\r\n"}, **rules))
        self.proxy.stop()
        self.proxy = Proxy(self.server.port, dict(TRUST, **{NET + "/TellServer": how, NET + "/TellServerRequired": required}))
        self.scan.close()
        self.scan = ScanDaemon(self.proxy.home)
        self.server.lines.clear()

    def attributes(self, line):
        return dict(word.split(b"=", 1) for word in line.split()[1:])

    def test_xclient_before_the_first_mail(self):
        self.tell("xclient", "Y")
        c = self.from_(STRANGER)
        self.begun(c)
        self.sends(c)
        self.sends(c)
        lines = self.said(b"XCLIENT", b"MAIL")
        self.assertEqual([line.split()[0] for line in lines[-2:]], [b"MAIL", b"MAIL"])
        told = {}
        for line in lines[:-2]:
            told.update(self.attributes(line))
        self.assertEqual((told[b"ADDR"], told[b"HELO"], told[b"PROTO"], told[b"NAME"]),
                         (STRANGER.encode(), b"me", b"ESMTP", b"[UNAVAILABLE]"))
        self.assertEqual(int(told[b"PORT"]), c.socket.getsockname()[1])
        self.assertFalse({b"LOGIN", b"DESTADDR", b"SOURCE"} & set(told), "not offered")

    def test_xforward_before_each_mail(self):
        self.tell("xforward", "Y")
        c = self.from_(STRANGER)
        self.begun(c, b"HELO me")
        self.sends(c)
        self.sends(c)
        lines = self.said(b"XFORWARD", b"MAIL")
        self.assertEqual([line.split()[0] for line in lines], [b"XFORWARD", b"MAIL"] * 2)
        for line in lines[::2]:
            told = self.attributes(line)
            self.assertEqual((told[b"ADDR"], told[b"HELO"], told[b"PROTO"], told[b"SOURCE"]),
                             (STRANGER.encode(), b"me", b"SMTP", b"REMOTE"))

    def test_a_helo_cannot_say_more_than_one_thing(self):
        for how in ("xclient", "xforward"):
            self.tell(how, "Y")
            for helo in (b"EHLO a ADDR=127.0.0.1", b"EHLO a+20ADDR=127.0.0.1", b"EHLO <a>", b"EHLO a\x01b", b"EHLO \xc3\xa4", b"EHLO " + b"h" * 400):
                c = self.from_(STRANGER)
                c.reply()
                if c.ask(helo).startswith(b"250"):
                    self.sends(c)
            lines = self.said(b"XCLIENT", b"XFORWARD")
            self.assertTrue(lines)
            for line in lines:
                self.assertLessEqual(len(line), 512)
                self.assertEqual(line.count(b" ADDR="), 1 if b"ADDR=" in line else 0, line)
                self.assertFalse([c for c in line[:-2] if not 32 <= c < 127 or c in b"<>"], line)
                self.assertNotIn(b"ADDR=127.0.0.1", line)

    def test_a_server_that_cannot_be_told(self):
        without = b"250-real.example\r\n250 8BITMIME\r\n"
        for how in ("xclient", "xforward"):
            for rules in ({"ehlo": without}, {"ehlo": self.EHLO, how.upper(): b"550 5.7.0 not you\r\n"}):
                with self.subTest(how=how, **rules):
                    self.tell(how, "Y", **rules)
                    c = self.from_(STRANGER)
                    self.begun(c)
                    for _ in range(2):
                        self.assertEqual(c.ask(b"MAIL FROM:<s@example.org>")[:4], b"451 ")
                    self.assertNotEqual(c.ask(b"RCPT TO:<r@example.org>")[:1], b"2")
                    self.assertFalse(self.said(b"MAIL", b"RCPT"))
                    self.tell(how, "N", **rules)
                    c = self.from_(STRANGER)
                    self.begun(c)
                    self.sends(c)

    def test_who_was_told_of_is_told_on(self):
        self.tell("xclient", "Y")
        c = self.from_(BALANCER)
        self.begun(c)
        self.assertEqual(c.ask(b"XCLIENT NAME=a.example ADDR=IPV6:2001:db8::7 PORT=40000")[:3], b"220")
        self.assertTrue(c.ask(b"EHLO b.example").startswith(b"250"))
        self.sends(c)
        told = {}
        for line in self.said(b"XCLIENT"):
            told.update(self.attributes(line))
        self.assertEqual((told[b"NAME"], told[b"ADDR"], told[b"PORT"], told[b"HELO"]),
                         (b"a.example", b"IPV6:2001:db8::7", b"40000", b"b.example"))


class TellingInFront(Trust):
    """By a header: nothing of anybody stands before it."""

    def setUp(self):
        self.server = ToldServer()
        self.proxy = None

    def tell(self, how):
        if self.proxy is not None:
            self.scan.close()
            self.proxy.stop()
        self.proxy = Proxy(self.server.port, dict(TRUST, **{NET + "/TellServer": how, NET + "/ProxyProtocol": "Y"}))
        self.scan = ScanDaemon(self.proxy.home)
        self.server.headers.clear()

    def test_both_versions(self):
        for how, own, others in (("proxy1", lambda port: b"PROXY TCP4 127.0.0.7 127.0.0.1 %d %d\r\n" % (port, self.proxy.port),
                                  (line4("192.0.2.7"), b"PROXY TCP6 2001:db8::7 2001:db8::25 40000 25\r\n")),
                                 ("proxy2", lambda port: SIGNATURE + b"\x21\x11\0\x0c\x7f\0\0\x07\x7f\0\0\x01" + port.to_bytes(2, "big")
                                  + self.proxy.port.to_bytes(2, "big"), (binary("192.0.2.7"), binary("2001:db8::7")))):
            self.tell(how)
            c = self.from_(STRANGER)
            self.begun(c)
            self.sends(c)
            # Who only looked whether we listen is told of too.
            self.assertIn(own(c.socket.getsockname()[1]), self.server.headers)
            for header in others:
                self.begun(self.from_(BALANCER, header))
                self.assertIn(header, self.server.headers)


@unittest.skipUnless(real_server.available(), "needs root and Postfix")
class ToldPostfix(Trust):
    """The packaged Postfix behind: its log names the client."""

    def setUp(self):
        self.proxy = None

    def start(self, how, header="Y", **settings):
        if self.proxy is not None:
            self.scan.close()
            self.proxy.stop()
        self.server = real_server.Postfix(settings=dict({"inet_protocols": "all", "smtpd_peername_lookup": "no"}, **settings))
        self.addCleanup(self.server.close)
        self.proxy = Proxy(self.server.port, dict(TRUST, **{NET + "/TellServer": how, NET + "/TellServerRequired": "Y",
                                                            NET + "/ProxyProtocol": header}))
        self.scan = ScanDaemon(self.proxy.home)

    def tearDown(self):
        self.assertTrue(self.proxy.alive())
        self.scan.close()
        self.proxy.stop()

    def all_clients(self, expected):
        """expected: what must be in the log of each message, with the address for %s."""
        for source, first, address in ((STRANGER, b"", STRANGER), (BALANCER, line4("192.0.2.7"), "192.0.2.7"),
                                       (BALANCER, binary("2001:db8::7"), "2001:db8::7")):
            c = self.from_(source, first)
            self.begun(c, b"EHLO client.example")
            self.sends(c)
            self.sends(c)
            text = expected % address
            self.assertTrue(wait_until(lambda: self.server.logged().count(text) >= 2), text + "\n" + self.server.logged())
            self.assertEqual(c.ask(b"QUIT")[:3], b"221")
        self.assertTrue(wait_until(lambda: len(self.server.delivered()) == 6), self.server.logged())
        self.assertNotRegex(self.server.logged(), r"warning: (?!haproxy read: EOF)|501 |improper command")

    def test_xclient(self):
        self.start("xclient", smtpd_authorized_xclient_hosts="127.0.0.1")
        self.all_clients("client=unknown[%s]")
        with open(self.server.delivered()[0], encoding="utf-8") as file:
            self.assertIn("Received: from client.example (unknown [", file.read())

    def test_xclient_from_end_to_end(self):
        """The server lets us say but once who the client is: it must not be the one that spoke for another."""
        self.start("xclient", header="N", smtpd_authorized_xclient_hosts="127.0.0.1")
        c = self.from_(BALANCER)
        self.begun(c, b"EHLO balancer.example")
        self.assertEqual(c.ask(b"XCLIENT NAME=a.example ADDR=IPV6:2001:db8::7 PORT=40000 HELO=b.example PROTO=ESMTP")[:3], b"220")
        self.assertTrue(c.ask(b"EHLO b.example").startswith(b"250"))
        self.sends(c)
        self.server.next_message()
        self.assertIn("client=a.example[2001:db8::7]", self.server.logged())

    def test_other_ways(self):
        haproxy = {"smtpd_upstream_proxy_protocol": "haproxy"}
        for how, settings, word in (("xforward", {"smtpd_authorized_xforward_hosts": "127.0.0.1"}, "orig_client"), ("proxy1", haproxy, "client"),
                                    ("proxy2", haproxy, "client")):
            with self.subTest(how):
                self.start(how, **settings)
                self.all_clients(word + "=unknown[%s]")

    def test_one_that_does_not_authorize_us_is_not_told_and_gets_no_mail(self):
        for how in ("xclient", "xforward"):
            self.start(how)
            c = self.from_(STRANGER)
            self.begun(c)
            self.assertEqual(c.ask(b"MAIL FROM:<s@example.org>")[:4], b"451 ")
            self.assertNotIn("client=", self.server.logged())
