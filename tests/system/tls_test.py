"""TLS from clients: what the rules of STARTTLS say, in front of a server that notes each line."""

import os
import ssl
import time

from harness import NET, wait_until
from tls import NAME, Tls, run, talk

OFFER = {"TLS/Mode": "offer"}
REQUIRE = {"TLS/Mode": "require"}
WRAPPED = {"TLS/Mode": "wrapped"}
MESSAGE = "From: s@example.org\nSubject: foreign\n\nhello\n"


class TlsPrograms(Tls):
    """Messages of other people's programs."""

    def programs(self, wrapped):
        """name -> (words, standard input)."""
        port = self.proxy.port
        ca = self.authority.file
        mail = self.authority.dir + "/message"
        with open(mail, "w", encoding="ascii") as file:
            file.write(MESSAGE)
        swaks = ["swaks", "--server", "127.0.0.1:%d" % port, "--helo", "me", "-f", "s@example.org", "-t", "r@example.org",
                 "--tls-verify", "--tls-ca-path", ca, "-tlsc" if wrapped else "-tls"]
        curl = ["curl", "-sSv", "--url", "%s://%s:%d/me" % ("smtps" if wrapped else "smtp", NAME, port), "--resolve",
                "%s:%d:127.0.0.1" % (NAME, port), "--cacert", ca, "--mail-from", "s@example.org", "--mail-rcpt", "r@example.org", "-T", mail]
        dialogue = "EHLO me\nMAIL FROM:<s@example.org>\nRCPT TO:<r@example.org>\nDATA\n%s.\nQUIT\n" % MESSAGE
        return {
            "s_client": (["openssl", "s_client", "-connect", "127.0.0.1:%d" % port, "-CAfile", ca, "-verify_return_error",
                          "-verify_hostname", NAME, "-crlf", "-quiet"] + ([] if wrapped else ["-starttls", "smtp"]), dialogue),
            "swaks": (swaks, ""),
            "swaks, 1.2": (swaks + ["-tls-protocol", "tlsv1_2"], ""),
            "swaks, 1.3": (swaks + ["-tls-protocol", "tlsv1_3"], ""),
            "curl": (curl if wrapped else curl + ["--ssl-reqd"], ""),
            "msmtp": (["msmtp", "--host=127.0.0.1", "--port=%d" % port, "--tls=on", "--tls-starttls=" + ("off" if wrapped else "on"),
                       "--tls-trust-file=" + ca, "--from=s@example.org", "r@example.org"], MESSAGE)}

    def test_a_message_of_each_in_each_mode(self):
        for keys in (OFFER, REQUIRE, WRAPPED):
            self.start(dict(keys, Pipelining="Y"))  # s_client sends all at once
            self.server.messages.clear()
            count = 0
            for name, (words, text) in self.programs(keys is WRAPPED).items():
                with self.subTest(name, **keys):
                    code, said = run(*words, text=text)
                    self.assertEqual(code, 0, said)
                    count += 1
                    self.assertEqual(len(self.server.messages), count, said)
                    if "1." in name:
                        self.assertIn("TLSv" + name[-3:], said)
            self.assertEqual(len(self.scan.requests), count)
        self.assertFalse([line for line in self.server.lines if line.startswith(b"STARTTLS")])


class StartTls(Tls):
    def test_nothing_but_these_before_tls_where_it_is_required(self):
        self.start(REQUIRE)
        c = self.opened()
        for line in (b"MAIL FROM:<s@example.org>", b"RCPT TO:<r@example.org>", b"DATA", b"BDAT 0 LAST", b"AUTH PLAIN AAAA", b"VRFY r",
                     b"HELP", b"EXPN r", b"SEND FROM:<s@example.org>", b"ETRN x", b"TURN", b"BURL x", b"XCLIENT ADDR=1.1.1.1",
                     b"XFORWARD ADDR=1.1.1.1", b"PROXY TCP4 1.1.1.1 1.1.1.1 1 1", b"WHATEVER"):
            self.assertEqual(c.ask(line)[:10], b"530 5.7.0 ", line)
        for line in (b"NOOP", b"RSET", b"HELO me", b"EHLO me"):
            self.assertEqual(c.ask(line)[:3], b"250", line)
        self.assertEqual(c.ask(b"MAIL FROM:<s@example.org>")[:10], b"530 5.7.0 ")
        self.assertEqual(c.ask(b"STARTTLS")[:3], b"220")
        c.secure(self.authority.trusting())
        self.assertEqual(c.ask(b"EHLO me")[:3], b"250")
        self.assertEqual(c.send_message()[:3], b"250")
        self.assertEqual(c.ask(b"QUIT")[:3], b"221")
        self.assertEqual({line.split()[0] for line in self.server.lines}, {b"NOOP", b"RSET", b"HELO", b"EHLO", b"MAIL", b"RCPT", b"DATA", b"QUIT"})
        d = self.opened()
        self.assertEqual(d.ask(b"QUIT")[:3], b"221")

    def test_the_dialogue_begins_anew_behind_tls(self):
        self.start(dict(OFFER, Pipelining="Y"))
        c = self.ready()
        self.assertEqual(c.ask(b"STARTTLS now")[:3], b"501")
        self.assertEqual(c.ask(b"starttls ")[:3], b"220")
        c.secure(self.authority.trusting())
        for line in (b"RCPT TO:<r@example.org>", b"DATA", b"MAIL FROM:<s@example.org>"):
            self.assertEqual(c.ask(line)[:3], b"503", line)
        self.assertIn(b"RSET\r\n", self.server.lines, "of the mail that had begun")
        offer = c.ask(b"EHLO me")
        self.assertNotIn(b"STARTTLS", offer)
        self.assertIn(b"PIPELINING", offer)
        self.assertEqual(c.ask(b"DATA")[:3], b"503")
        self.assertEqual(c.ask(b"STARTTLS")[:3], b"503")
        self.assertEqual(c.send_message()[:3], b"250")

    def test_a_chunk_whose_turn_it_is_not_is_never_commands(self):
        chunk = b"EHLO evil\r\nMAIL FROM:<s@example.org>\r\nRCPT TO:<r@example.org>\r\n"
        for keys, code in ((REQUIRE, b"530"), (OFFER, b"503")):
            self.start(keys)
            c = self.opened(b"EHLO me")
            if keys is OFFER:
                self.assertEqual(c.ask(b"STARTTLS")[:3], b"220")
                c.secure(self.authority.trusting())
            self.assertEqual(c.ask(b"BDAT %d LAST\r\n%s" % (len(chunk), chunk[:-2]))[:3], code)
            self.assertEqual(c.ask(b"NOOP"), b"250 ok\r\n")
            self.assertFalse([line for line in self.server.lines if b"evil" in line or line.startswith((b"MAIL", b"RCPT"))])

    def test_plain_text_behind_it_is_never_commands(self):
        behind = b"EHLO evil\r\nMAIL FROM:<evil@example.org>\r\n"
        for keys in (OFFER, REQUIRE, dict(OFFER, Pipelining="Y")):
            self.start(keys)
            self.assertRegex(talk(self.proxy.port, b"EHLO me\r\nSTARTTLS\r\n" + behind), rb"\r\n501 [^\r]*\r\n$")
            c = self.opened(b"EHLO me")
            c.send(b"STARTTLS\r\n" + behind)
            self.assertEqual(c.reply()[:4], b"501 ")
            self.assert_closed(c)
            # In a segment of its own it may come before the answer or after: there it ends a handshake.
            answers = set()
            for pause in (0, 0, 0, 0.0002, 0.001, 0.1):
                c = self.opened(b"EHLO me")
                c.send(b"STARTTLS\r\n")
                time.sleep(pause)
                try:
                    c.send(behind)
                    answers.add(c.reply()[:3])
                    self.assertNotRegex(c.reply()[:3], rb"^[2-5]\d\d")
                except ConnectionError:
                    answers.add(b"220")
            self.assertLessEqual(answers, {b"220", b"501"})
            self.assertFalse([line for line in self.server.lines if b"evil" in line])

    def test_auth_only_over_tls(self):
        self.server.rules.update({"EHLO": b"250-real.example\r\n250-AUTH PLAIN\r\n250-AUTH=PLAIN\r\n250 8BITMIME\r\n", "AUTH": b"235 2.7.0 you are\r\n"})
        self.start(dict(OFFER, AuthOnlyOverTLS="Y"))
        c = self.opened()
        self.assertNotIn(b"AUTH", c.ask(b"EHLO me"))
        self.assertEqual(c.ask(b"AUTH PLAIN AHgAeQ==")[:11], b"538 5.7.11 ")
        self.assertFalse([line for line in self.server.lines if line.startswith(b"AUTH")])
        self.assertEqual(c.ask(b"STARTTLS")[:3], b"220")
        c.secure(self.authority.trusting())
        self.assertEqual(c.ask(b"EHLO me"), b"250-proxy.example\r\n250-AUTH PLAIN\r\n250-AUTH=PLAIN\r\n250 8BITMIME\r\n")
        self.assertEqual(c.ask(b"AUTH PLAIN AHgAeQ==")[:3], b"235")
        # Who it has proved to be in plain text is nothing that TLS may vouch for.
        self.start(OFFER)
        c = self.opened(b"EHLO me")
        self.assertEqual(c.ask(b"AUTH PLAIN AHgAeQ==")[:3], b"235")
        self.assertEqual(c.ask(b"STARTTLS")[:3], b"503")

    def test_half_a_message_is_none(self):
        """The connection ends without TLS's own word for it, or with it."""
        self.start(OFFER)
        for version in (ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3):
            for rest in ([b"DATA\r\n", b"Subject: x\r\n\r\nhalf\r\n"], [b"DATA\r\n", b"Subject: x\r\n\r\nhalf\r\n.\r"],
                         [b"BDAT 20\r\n0123456789\r\n01234567"], [b"BDAT 20\r\n0123456789\r\n01234567BDAT 20 LAST\r\n01234"],
                         [b"BDAT 20 LAST\r\n0123456789\r\n0123456"]):
                for goodbye in (False, True):
                    c = self.secured(version)
                    c.mail()
                    if len(rest) > 1:
                        self.assertEqual(c.ask(rest[0][:-2])[:3], b"354")
                    c.send(rest[-1])
                    c.stream.close()
                    if goodbye:
                        c.socket.setblocking(False)
                        try:
                            c.socket.unwrap()
                        except OSError:
                            pass
                    c.socket.close()
        self.assertTrue(wait_until(lambda: not self.proxy.spool()))
        self.assertEqual(self.secured().send_message()[:3], b"250")
        self.assertEqual(len(self.server.messages), 1)
        self.assertEqual(len(self.scan.requests), 1)

    def test_a_changed_certificate_serves_the_next_session(self):
        path = self.authority.issue("changing.pem", NAME)
        self.start(dict(OFFER, **{"TLS/Certificate": path}))
        running = self.secured()

        def serial():
            return self.secured().socket.getpeercert()["serialNumber"]
        first = serial()
        self.authority.issue("changing.pem", NAME)
        second = serial()
        self.assertNotEqual(first, second)
        with open(path + ".bad", "w", encoding="ascii") as file:
            file.write("-----BEGIN CERTIFICATE-----\nnothing\n-----END CERTIFICATE-----\n")
        os.rename(path + ".bad", path)
        for _ in range(3):
            self.assertEqual(serial(), second)
        self.assert_logged(path + ": ")
        self.proxy.change({NET + "/TLS/Mode": "off"})
        self.assertNotIn(b"STARTTLS", self.plain_offer())
        self.assertEqual(running.send_message()[:3], b"250")

    def plain_offer(self):
        c = self.opened()
        return c.ask(b"EHLO me")
