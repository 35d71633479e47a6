"""Load balancers and mail servers in front that tell the client's address, and strangers who try the same."""

import os
import socket
import time

from harness import NET
from trust import BALANCER, RELAY, SIGNATURE, STRANGER, TRUST, Trust, binary, line4

LOCAL = SIGNATURE + b"\x20\0\0\0"


class ProxyHeaders(Trust):
    keys = dict(TRUST, **RELAY, **{NET + "/ProxyProtocol": "Y"})

    def test_the_told_address_is_the_clients(self):
        for first, address, relays in (
                (line4("192.0.2.7"), "192.0.2.7", True), (binary("192.0.2.8"), "192.0.2.8", True),
                (line4("203.0.113.9"), "203.0.113.9", False), (binary("203.0.113.9", extra=b"\x05\0\2id"), "203.0.113.9", False),
                (b"PROXY TCP6 2001:db8::7 2001:db8::25 40000 25\r\n", "2001:db8::7", False),
                (binary("2001:db8::8"), "2001:db8::8", False), (binary("::ffff:192.0.2.9"), "192.0.2.9", True)):
            c = self.from_(BALANCER, first)
            self.begun(c)
            self.sends(c)
            self.assert_scanned_as(address)
            c.ask(b"MAIL FROM:<s@example.org>")
            self.assertEqual(c.ask(b"RCPT TO:<u@elsewhere.test>")[:3], b"250" if relays else b"550", address)
        self.assertFalse(self.said(b"PROXY"))

    def test_a_denied_address_gets_no_byte_and_no_server(self):
        before = self.server.connections
        for header in (line4("198.51.100.66"), binary("198.51.100.66")):
            self.assert_ends(self.from_(BALANCER, header))
        self.assertEqual(self.server.connections, before)

    def test_without_a_good_header_the_connection_ends(self):
        before = self.server.connections
        for first in (b"EHLO me\r\n", b"\x16\x03\x01\x02\x00\x01", b"PROXY TCP4 192.0.2.7 x 1 2\r\n", b"PROXY " + b"x" * 200,
                      SIGNATURE + b"\x21\x11\xff\xff", line4("0.0.0.0")):
            start = time.monotonic()
            self.assert_ends(self.from_(BALANCER, first))
            self.assertLess(time.monotonic() - start, 4.5, first)
        c = self.from_(BALANCER)
        c.socket.shutdown(socket.SHUT_WR)
        self.assert_ends(c)
        self.assertEqual(self.server.connections, before)

    def test_who_was_told_of_speaks_for_nobody_else(self):
        """Behind a balancer everybody comes from an address that is trusted."""
        for header in (line4("203.0.113.9"), binary("203.0.113.9")):
            c = self.from_(BALANCER, header)
            self.assertNotIn(b"XCLIENT", self.begun(c))
            self.assertEqual(c.ask(b"XCLIENT ADDR=192.0.2.7")[:1], b"5")
            c.ask(b"MAIL FROM:<s@example.org>")
            self.assertEqual(c.ask(b"RCPT TO:<u@elsewhere.test>")[:3], b"550")

    def test_silence_ends_at_a_time_of_its_own(self):
        before = self.server.connections
        for first in (b"", b"PROXY TCP4 192.0.2.7", SIGNATURE):
            self.assert_ends(self.from_(BALANCER, first))
        self.assertEqual(self.server.connections, before)

    def test_a_balancer_that_speaks_for_itself_gets_no_server_and_is_not_worth_a_word(self):
        before, words = self.server.connections, self.words()
        for first in (LOCAL, b"PROXY UNKNOWN\r\n", SIGNATURE + b"\x21\0\0\0", SIGNATURE + b"\x20\x11\0\x03abc", None):
            for _ in range(5):
                c = self.from_(BALANCER)
                # It looks whether we are there by naming itself, too.
                own = b"PROXY TCP4 127.0.0.2 127.0.0.1 %d %d\r\n" % (c.socket.getsockname()[1], self.proxy.port)
                c.send(first or own)
                self.assertEqual(c.reply()[:3], b"220")
                self.assertEqual(c.ask(b"EHLO balancer")[:3], b"250")
                self.assertEqual(c.ask(b"HELO balancer")[:3], b"250")
                self.assertNotEqual(c.ask(b"MAIL FROM:<s@example.org>")[:1], b"2", "nobody would take it")
                self.assertEqual(c.ask(b"QUIT")[:3], b"221")
                self.assert_ends(c)
                self.from_(BALANCER, first or LOCAL).close()
        self.assertEqual(self.server.connections, before)
        self.assertEqual(self.words(), words)

    def words(self):
        path = self.proxy.home + "/events.log"
        if not os.path.exists(path):
            return b""
        with open(path, "rb") as file:
            return file.read()

    def test_a_stranger_has_a_session_without_and_none_that_believes_it(self):
        c = self.from_(STRANGER)
        self.begun(c)
        self.sends(c)
        self.assert_scanned_as(STRANGER)
        for header in (line4("192.0.2.7"), binary("192.0.2.7")):
            c = self.from_(STRANGER, header)
            c.send(b"EHLO me\r\nMAIL FROM:<s@example.org>\r\nRCPT TO:<u@elsewhere.test>\r\nQUIT\r\n")
            c.rest()
        self.assertFalse(self.said(b"PROXY"))
        self.assertFalse([line for line in self.server.lines if b"elsewhere.test" in line])

    def test_the_header_is_of_the_trusted_only_while_the_key_is_there(self):
        self.proxy.change({NET + "/Trust/lb": "127.0.0.3"})
        self.assertTrue(self.from_(BALANCER, b"NOOP\r\n").reply().startswith(b"220"))
        self.assert_ends(self.from_("127.0.0.3", b"EHLO me\r\n"))


class TrustedMailServers(Trust):
    keys = dict(TRUST, **RELAY)

    def told(self, client, attributes):
        answer = client.ask(b"XCLIENT " + attributes)
        self.assertEqual(answer[:3], b"220", answer)
        answer = client.ask(b"EHLO again")
        self.assertTrue(answer.startswith(b"250"), answer)

    def test_offered_to_the_trusted_alone(self):
        self.assertIn(b"XCLIENT NAME ADDR PORT PROTO HELO LOGIN DESTADDR DESTPORT\r\n", self.begun(self.from_(BALANCER)))
        self.assertNotIn(b"XCLIENT", self.begun(self.from_(STRANGER)))

    def test_who_was_told_of_tells_nothing(self):
        c = self.from_(BALANCER)
        self.begun(c)
        self.told(c, b"ADDR=203.0.113.7")
        self.assertEqual(c.ask(b"XCLIENT ADDR=192.0.2.7")[:1], b"5")
        c.ask(b"MAIL FROM:<s@example.org>")
        self.assertEqual(c.ask(b"RCPT TO:<u@elsewhere.test>")[:3], b"550")

    def test_the_servers_own_offer_reaches_nobody(self):
        self.server.rules["EHLO"] = b"250-real.example\r\n250-XCLIENT NAME ADDR SECRET\r\n250-XFORWARD NAME ADDR\r\n250 8BITMIME\r\n"
        for source in (BALANCER, STRANGER):
            answer = self.begun(self.from_(source))
            self.assertNotIn(b"SECRET", answer)
            self.assertNotIn(b"XFORWARD", answer)

    def test_the_told_address_decides_and_is_scanned(self):
        for address, text, relays in ((b"192.0.2.7", "192.0.2.7", True), (b"203.0.113.7", "203.0.113.7", False),
                                      (b"IPV6:2001:db8::7", "2001:db8::7", False)):
            c = self.from_(BALANCER)
            self.begun(c)
            self.told(c, b"NAME=a.example ADDR=" + address + b" PORT=40000 PROTO=ESMTP HELO=b.example")
            self.sends(c)
            self.assert_scanned_as(text)
            c.ask(b"MAIL FROM:<s@example.org>")
            self.assertEqual(c.ask(b"RCPT TO:<u@elsewhere.test>")[:3], b"250" if relays else b"550", text)
        self.assertFalse(self.said(b"XCLIENT"))

    def test_a_denied_address_sends_nothing(self):
        c = self.from_(BALANCER)
        self.begun(c)
        self.assertNotEqual(c.ask(b"XCLIENT ADDR=198.51.100.66")[:1], b"2")
        try:
            c.send(b"EHLO me\r\nMAIL FROM:<s@example.org>\r\nRCPT TO:<r@example.org>\r\nQUIT\r\n")
            c.rest()
        except OSError:
            pass
        self.assertFalse(self.said(b"RCPT"))

    def test_what_cannot_be_read_is_refused(self):
        for words in (b"", b" ADDR=[UNAVAILABLE]", b" ADDR=192.0.2.7 IDENT=1", b" HELO=a+0D+0ARCPT"):
            c = self.from_(BALANCER)
            self.begun(c)
            self.assertEqual(c.ask(b"XCLIENT" + words)[:1], b"5", words)
        self.assertFalse(self.said(b"XCLIENT", b"RCPT"))

    def test_not_in_the_middle_of_a_message(self):
        c = self.from_(BALANCER)
        self.begun(c)
        self.assertTrue(c.ask(b"MAIL FROM:<s@example.org>").startswith(b"250"))
        self.assertEqual(c.ask(b"XCLIENT ADDR=192.0.2.7")[:1], b"5")

    def test_of_a_stranger_and_of_others_nothing_reaches_the_server(self):
        for source, lines in ((STRANGER, (b"XCLIENT ADDR=192.0.2.7", b"xclient", b"XFORWARD ADDR=192.0.2.7", b"PROXY UNKNOWN",
                                          b"PROXY TCP4 192.0.2.7 203.0.113.25 1 25")),
                              (BALANCER, (b"XFORWARD ADDR=192.0.2.7", b"PROXY UNKNOWN"))):
            c = self.from_(source)
            self.begun(c)
            for line in lines:
                self.assertEqual(c.ask(line)[:1], b"5", line)
            c.ask(b"MAIL FROM:<s@example.org>")
            if source == STRANGER:
                self.assertEqual(c.ask(b"RCPT TO:<u@elsewhere.test>"), b"550 Unable to relay\r\n")
        self.assertFalse(self.said(b"XCLIENT", b"XFORWARD", b"PROXY"))
