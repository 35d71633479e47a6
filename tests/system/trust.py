"""What the cases of told addresses share: a balancer at 127.0.0.2, which is trusted; everybody else on loopback is a stranger."""

import socket

from harness import NET, Client, wait_until
from system_test import System

BALANCER = "127.0.0.2"
STRANGER = "127.0.0.7"
AS = "/VTWIN/Filters/AS/AllowDenyIPList/"
SIGNATURE = b"\r\n\r\n\0\r\nQUIT\n"
RELAY = {NET + "/RelayNetworks/told/IPAddress": "192.0.2.0", NET + "/RelayNetworks/told/Mask": "255.255.255.0",
         NET + "/RelayNetworks/balancer/IPAddress": BALANCER, NET + "/RelayNetworks/balancer/Mask": "255.255.255.255",
         AS + "Enabled": "Y", AS + "Addresses/bad/IP": "198.51.100.66", AS + "Addresses/bad/Action": "2"}
TRUST = {NET + "/Trust/lb": BALANCER + "/32"}


def line4(address, port=40000):
    return b"PROXY TCP4 %s 203.0.113.25 %d 25\r\n" % (address.encode(), port)


def binary(address, port=40000, extra=b""):
    family = socket.AF_INET6 if ":" in address else socket.AF_INET
    to = "2001:db8::25" if ":" in address else "203.0.113.25"
    rest = socket.inet_pton(family, address) + socket.inet_pton(family, to) + port.to_bytes(2, "big") + b"\0\x19" + extra
    return SIGNATURE + (b"\x21\x21" if ":" in address else b"\x21\x11") + len(rest).to_bytes(2, "big") + rest


class From(Client):
    """A client of that address, which says something before it listens."""

    def __init__(self, port, source, first=b"", timeout=15):
        self.socket = socket.create_connection(("127.0.0.1", port), timeout, (source, 0))
        self.stream = self.socket.makefile("rb")
        self.send(first)

    def rest(self):
        """All that still comes, until the end."""
        out = b""
        try:
            while data := self.stream.read1():
                out += data
        except ConnectionError:
            pass
        return out


class Trust(System):
    def setUp(self):
        super().setUp()
        # Of the look whether the proxy listens: connections are counted from here on.
        wait_until(lambda: self.server.connections > 0, 2)

    def from_(self, source, first=b""):
        client = From(self.proxy.port, source, first)
        self.addCleanup(client.close)
        return client

    def begun(self, client, helo=b"EHLO me"):
        self.assertTrue(client.reply().startswith(b"220 proxy.example"))
        answer = client.ask(helo)
        self.assertTrue(answer.startswith(b"250"), answer)
        return answer

    def sends(self, client, recipient=b"r@example.org"):
        """One message in a session that has said EHLO."""
        for line in (b"MAIL FROM:<s@example.org>", b"RCPT TO:<" + recipient + b">"):
            answer = client.ask(line)
            self.assertTrue(answer.startswith(b"250"), answer)
        self.assertEqual(client.data(b"Subject: x\r\n\r\nhello\r\n.\r\n")[:3], b"250")

    def said(self, *verbs):
        """What the server has heard of these."""
        return [line for line in self.server.lines if line.split() and line.split()[0].upper() in verbs]

    def assert_ends(self, client):
        """Without a byte."""
        self.assertEqual(client.reply(), b"")

    def assert_scanned_as(self, address):
        self.assertIn(b"\0" + address.encode() + b"\0", self.scan.requests[-1])
