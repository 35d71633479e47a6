"""TLS from clients that break it: one session ends, and nothing else."""

import ssl
import time

from tls import NAME, Tls, TlsClient

OFFER = {"TLS/Mode": "offer"}
WRAPPED = {"TLS/Mode": "wrapped"}


class TlsFaults(Tls):
    """One session ends, and nothing else."""

    def faults(self, port):
        """name -> what it does to the port; each waits until it is told of the end."""
        hello = self.first_flight()
        no_version = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        no_version.check_hostname = False
        no_version.verify_mode = ssl.CERT_NONE
        no_version.set_ciphers("ALL:@SECLEVEL=0")
        no_version.minimum_version = ssl.TLSVersion.TLSv1
        no_version.maximum_version = ssl.TLSVersion.TLSv1_1
        stranger = ssl.create_default_context()  # which knows nobody of ours

        def handshake(context):
            def act(c):
                with self.assertRaises(OSError):
                    c.secure(context)
            return act

        def sends(data, end=lambda c: c.reply()):
            def act(c):
                try:
                    c.send(data)
                    end(c)
                except ConnectionError:
                    pass
            return act

        def dribble(c):
            try:
                for byte in hello:
                    c.send(bytes([byte]))
                    time.sleep(1)
            except ConnectionError:
                return
            self.fail("a handshake of as many seconds as it has bytes")
        return {"no shared version": handshake(no_version), "our certificate is refused": handshake(stranger),
                "wrong name": handshake(self.wrong_name()), "plain text": sends(b"MAIL FROM:<s@example.org>\r\n"),
                "plain text without an end": sends(b"E" * 7), "reset in the middle": sends(hello[:100], TlsClient.reset),
                "closed in the middle": sends(hello[:100], TlsClient.close), "closed behind the first flight": sends(hello, TlsClient.close),
                "reset behind the first flight": sends(hello, TlsClient.reset), "silence": sends(b""), "a byte a second": dribble}

    def wrong_name(self):
        context = self.authority.trusting()
        context.wrap_socket = lambda s, server_hostname: ssl.SSLContext.wrap_socket(context, s, server_hostname="other.test")
        return context

    def first_flight(self):
        out = ssl.MemoryBIO()
        try:
            self.authority.trusting().wrap_bio(ssl.MemoryBIO(), out, server_hostname=NAME).do_handshake()
        except ssl.SSLWantReadError:
            pass
        return out.read()

    def check(self, keys):
        self.start(dict(keys, ConnectionTimeout="3"))

        def before_the_handshake():
            c = self.client()
            if keys is not WRAPPED:
                c.reply()
                c.ask(b"EHLO me")
                self.assertEqual(c.ask(b"STARTTLS")[:3], b"220")
            return c

        def secured():
            c = before_the_handshake()
            c.secure(self.authority.trusting())
            if keys is WRAPPED:
                self.assertEqual(c.reply()[:3], b"220")
            c.ask(b"EHLO me")
            return c
        # What stays for good, such as the way to the log, has been begun then.
        first = before_the_handshake()
        first.send(b"EHLO me\r\n")
        self.assert_closed(first)
        self.assert_logged("TLS with 127.0.0.1 failed: ")
        c = secured()
        c.send_message()
        c.close()
        time.sleep(0.5)
        before = self.at_rest()
        for name, act in self.faults(self.proxy.port).items():
            with self.subTest(name, **keys):
                other = secured()
                connections = self.server.connections
                c = before_the_handshake()
                began = time.monotonic()
                act(c)
                self.assertLess(time.monotonic() - began, 15)
                if keys is WRAPPED:
                    self.assertEqual(self.server.connections, connections, "a server before it was known whether there is a client")
                if "byte" not in name and "silence" not in name and "end" not in name:
                    self.assertEqual(other.send_message()[:3], b"250")
                    self.assertEqual(other.ask(b"QUIT")[:3], b"221")
                other.close()
                c.close()
                self.assert_nothing_left(before)
        self.assertFalse([line for line in self.server.lines if line.startswith(b"STARTTLS")])

    def test_behind_starttls(self):
        self.check(OFFER)

    def test_wrapped(self):
        self.check(WRAPPED)

    def test_the_service_stops_all_the_same(self):
        self.start(dict(OFFER, ConnectionTimeout="60"))
        c = self.opened()
        self.assertEqual(c.ask(b"STARTTLS")[:3], b"220")
        began = time.monotonic()
        self.proxy.process.terminate()
        self.proxy.process.wait(60)
        self.assertLess(time.monotonic() - began, 15)
        self.proxy.start()
