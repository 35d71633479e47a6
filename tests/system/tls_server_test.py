"""TLS to the server: modes, certificates, and servers that break it; Postfix on either side."""

import smtplib
import ssl
import struct
import socket
import time
import unittest

import real_server
from harness import MailServer, wait_until
from tls import NAME, Tls, TlsServer, serving

REFUSED = b"454 4.7.0 "


class ServerTls(Tls):
    def begin(self, mode, certificate=None, wrapped=False, **keys):
        self.server = TlsServer(certificate or self.certificate, wrapped)
        self.addCleanup(self.server.close)
        keys = {"ServerTLS/" + key: value for key, value in keys.items()}
        self.start(dict({"ServerTLS/Mode": mode, "ServerTLS/CAFile": self.authority.file, "ConnectionTimeout": "3"}, **keys))
        wait_until(lambda: self.server.connections > 0, 2)

    def goes(self):
        c = self.client()
        self.assertEqual(c.reply()[:3], b"220")
        offer = c.ask(b"EHLO me")
        self.assertEqual(c.send_message()[:3], b"250")
        self.assertEqual(c.ask(b"QUIT")[:3], b"221")
        return offer

    def waits(self, why):
        """Mail gets 454, everything else an answer; nothing of the client's reaches the server."""
        mails = b"".join(self.server.lines).count(b"MAIL")
        c = self.client()
        self.assertEqual(c.reply()[:3], b"220")
        for line, code in ((b"EHLO client.example", b"250"), (b"NOOP", b"250"), (b"RSET", b"250")):
            self.assertEqual(c.ask(line)[:3], code)
        for line in (b"MAIL FROM:<s@example.org>", b"RCPT TO:<r@example.org>", b"DATA"):
            self.assertEqual(c.ask(line)[:10], REFUSED)
        self.assertEqual(c.ask(b"QUIT")[:3], b"221")
        self.assert_closed(c)
        self.assert_logged("No TLS with the mail server, its mail waits: " + why)
        heard = b"".join(self.server.lines + self.server.plain)
        self.assertEqual(heard.count(b"MAIL"), mails)
        self.assertNotIn(b"client.example", heard)


class ServerModes(ServerTls):
    def test_goes(self):
        other = self.authority.issue("other.pem", "other.test")
        for mode, certificate, name in (("try", other, ""), ("require", other, ""), ("verify", None, NAME), ("verify", None, ""),
                                        ("verify", other, "other.test"), ("wrapped", None, NAME)):
            with self.subTest(mode, name=name):
                self.begin(mode, certificate, wrapped=mode == "wrapped", Name=name)
                offer = self.goes()
                self.assertIn(b"SIZE 77", offer, "the offer behind TLS")
                self.assertNotIn(b"SIZE 1000000", offer)
                self.assertNotIn(b"STARTTLS", offer)
                self.assertEqual(len(self.server.messages), 1)
                self.assertFalse([line for line in self.server.plain if not line.startswith((b"EHLO proxy.example", b"STARTTLS"))])

    def test_certificates_that_are_not_good(self):
        cases = (("wrong name", self.certificate, "other.test", "hostname mismatch"),
                 ("expired", self.authority.issue("old.pem", days=-1), NAME, "certificate has expired"))
        for (name, certificate, wanted, why), mode in zip(cases, ("verify", "wrapped")):
            with self.subTest(name, mode=mode):
                self.begin(mode, certificate, mode == "wrapped", Name=wanted)
                self.waits(why)
        self.begin("verify", CAFile="", Name=NAME)
        self.waits("unable to get local issuer certificate")
        self.begin("verify", CAFile="/nonexistent", Name=NAME)
        self.waits("/nonexistent: ")
        self.begin("require", self.authority.issue("old.pem", days=-1), CAFile="", Name="other.test")
        self.goes()

    def test_no_offer_and_refusals(self):
        for rules, why in (({"EHLO": b"250 real.example\r\n"}, "the server offers no STARTTLS"),
                           ({"EHLO": b"502 what\r\n"}, "the server offers no STARTTLS"),
                           ({"STARTTLS": b"454 4.7.0 not now\r\n"}, "STARTTLS is refused")):
            for mode in ("require", "verify"):
                self.begin(mode)
                self.server.rules.update(rules)
                self.waits(why)
            if b"502" not in rules.get("EHLO", b""):
                self.begin("try")
                self.server.rules.update(rules)
                self.goes()
                self.assertFalse([line for line in self.server.lines if line.startswith(b"MAIL")], "all went in plain")


class ServerTlsFaults(ServerTls):
    def faults(self):
        def reset(s):
            s.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))

        def dribble(s):
            try:
                for byte in b"\x16\x03\x03\0\x40\x02" + bytes(60):
                    s.sendall(bytes([byte]))
                    time.sleep(1)
            except OSError:
                pass

        def no_client_certificate(s):
            """TLS 1.3: it says so only when the handshake is over for us."""
            context = serving(self.certificate)
            context.load_verify_locations(self.authority.file)
            context.verify_mode = ssl.CERT_REQUIRED
            try:
                context.wrap_socket(s, server_side=True)
            except OSError:
                pass
        return {"garbage": lambda s: s.sendall(b"250 real.example what is this\r\n"), "closes": lambda s: None, "resets": reset,
                "a byte a second": dribble, "silence": lambda s: s.recv(1000) and s.recv(1000), "wants a certificate": no_client_certificate}

    def check(self, mode, expect):
        for name, fault in self.faults().items():
            with self.subTest(name, mode=mode):
                self.begin(mode)
                # What stays for good, such as the way to the log, has been begun then.
                self.server.fault = lambda s: None
                expect()
                self.server.fault = None
                self.goes()
                time.sleep(0.3)
                before = self.at_rest()
                other = self.client()
                self.assertEqual(other.reply()[:3], b"220")
                other.ask(b"EHLO me")
                self.server.fault = fault
                expect()
                self.server.fault = None
                if name not in ("a byte a second", "silence"):  # as long as an idle client may be there
                    self.assertEqual(other.send_message()[:3], b"250")
                other.close()
                self.assert_nothing_left(before)
        self.begin(mode)
        self.server.injected = b"250 injected\r\n"
        expect()
        self.begin(mode)
        self.server.rules["STARTTLS"] = MailServer.RESET
        expect()

    def test_required(self):
        self.check("require", lambda: self.waits(""))

    def test_tried(self):
        def in_plain():
            self.goes()
            self.assert_logged("TLS with the mail server failed, mail goes on without: ")
        self.check("try", in_plain)

    def test_wrapped_where_there_is_plain_text(self):
        self.begin("wrapped")
        self.waits("")


@unittest.skipUnless(real_server.available(), "needs root and Postfix")
class TlsPostfix(ServerTls):
    TLSMGR = "tlsmgr unix - - n 1000? 1 tlsmgr\n"

    def postfix(self, services="", **settings):
        server = real_server.Postfix(settings=settings, services=self.TLSMGR + services)
        self.addCleanup(server.close)
        return server

    def test_sends_to_us(self):
        for level, mode, said in (("encrypt", "offer", "Trusted TLS connection established"), ("encrypt", "require", "Trusted TLS"),
                                  ("verify", "require", "Verified TLS connection established")):
            self.server = MailServer()
            self.start({"TLS/Mode": mode})
            sender = self.postfix("smtp unix - - n - - smtp\n", relayhost="[127.0.0.1]:%d" % self.proxy.port, virtual_mailbox_domains="",
                                  smtp_tls_security_level=level, smtp_tls_CAfile=self.authority.file, smtp_tls_loglevel="1",
                                  smtp_tls_verify_cert_match=NAME, smtp_dns_support_level="disabled", smtp_host_lookup="native")
            with smtplib.SMTP("127.0.0.1", sender.port) as client:
                client.sendmail("s@example.org", ["r@example.org"], "Subject: from Postfix\r\n\r\nhello\r\n")
            self.assertTrue(wait_until(lambda: self.server.messages, 20), sender.logged())
            self.assertIn(b"Subject: from Postfix", self.server.messages[0])
            self.assertTrue(wait_until(lambda: "status=sent" in sender.logged()), sender.logged())
            self.assertIn(said, sender.logged())

    def through(self, mode, server, **keys):
        self.server = server
        self.start(dict({"ServerTLS/Mode": mode}, **{"ServerTLS/" + key: value for key, value in keys.items()}))

    def test_stands_behind(self):
        for mode, keys in (("try", {}), ("require", {}), ("verify", {"CAFile": self.authority.file, "Name": NAME})):
            self.through(mode, self.postfix(smtpd_tls_security_level="encrypt", smtpd_tls_cert_file=self.certificate,
                                            smtpd_tls_key_file=self.certificate, smtpd_tls_received_header="yes"), **keys)
            self.goes()
            with open(self.server.next_message(), encoding="utf-8") as file:
                self.assertIn("using TLSv1.3", file.read())
        self.through("verify", self.server, CAFile=self.authority.file, Name="other.test")
        self.refused()
        self.assert_logged("its mail waits: hostname mismatch")

    def refused(self):
        c = self.opened()
        for line, start in ((b"EHLO me", b"250"), (b"NOOP", b"250"), (b"RSET", b"250"), (b"MAIL FROM:<s@example.org>", REFUSED), (b"QUIT", b"221")):
            self.assertTrue(c.ask(line).startswith(start), line)
        self.assertNotIn("client.example", self.server.logged())
