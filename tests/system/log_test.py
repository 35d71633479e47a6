"""The lines of the log for sessions and messages, and the ids in replies."""

import json
import re
import signal
import smtplib
import ssl
import unittest

from harness import NET, clean, flat, verdict, wait_until
from logged import BODY, FORMAT, QUEUED, Logged
from tls import Authority


def finding(mask, what, section_mask=0, recipients=None):
    """An answer of the scan daemon's: an object in the section Antivirus."""
    thing = ([(0x0500, "message"), (0x0700, what), (0x3900, ""), (0x3A00, ""), (0x0801, 1), (0x0401, 1)], [])
    attributes = [(0x3800, "Antivirus"), (0x0801, 1), (0x1401, section_mask)]
    return flat([(0x1401, mask | 0x10)], [(attributes + ([(0x0F00, recipients)] if recipients else []), [thing])])


class LogLines(Logged):
    def message(self, number, **fields):
        return {"session": "SESSION", "id": "SESSION-%d" % number, "peer": "127.0.0.1", "told_by": "", "helo": "me", "tls": "",
                "from": "s@example.org", "to": "r@example.org;t@example.org", "size": str(len(BODY)), "via": "data",
                "message_id": "<1@example.com>", "verdict": "forward", "section": "", "reason": "",
                "reply": QUEUED.decode().strip(), "queue_id": "4TzXq2", "reception_ms": int, "scan_ms": int, "relay_ms": int, **fields}

    def test_a_line_for_each_verdict(self):
        rejected, ok = "550 Rejected by Vantrel.", "250 ok"
        virus = {"section": "antivirus", "reason": 'Eicar "x" \\'}
        cases = (
            ("forward", clean(), {}),
            ("reject", finding(4, virus["reason"]), {"verdict": "reject", **virus, "reply": rejected, "queue_id": ""}),
            ("drop", finding(2, virus["reason"]), {"verdict": "drop", **virus, "reply": ok, "queue_id": ""}),
            ("redirect", finding(2, virus["reason"], 1, "v@example.org"), {"verdict": "drop", **virus}),
            ("reject and redirect", verdict(4, section_mask=1, recipients="v@example.org"), {"verdict": "reject", "reply": rejected}),
            ("failed", None, {"verdict": "failed", "queue_id": "",
                              "reply": "451 4.3.0 Message could not be checked, try again later [SESSION-6]"}),
            ("none", clean(), {"verdict": "none", "queue_id": "", "size": int,
                               "reply": "552 5.3.4 Message size exceeds fixed limit [SESSION-7]"}),
        )
        for number, form in enumerate(("text", "json")):
            self.proxy.tool("set", FORMAT, form)
            client = self.client()
            self.assertTrue(client.reply().startswith(b"220"))
            client.ask(b"EHLO me")
            for i, (name, answer, fields) in enumerate(cases):
                with self.subTest(form=form, name=name):
                    self.answer = answer
                    client.mail(recipients=(b"r@example.org", b"t@example.org"))
                    body = BODY + b"x" * 3000 + b"\r\n" if name == "none" else BODY
                    reply = client.data(body + b".\r\n")
                    line = self.next_line("message", number * len(cases) + i + 1)
                    expected = self.message(i + 1, **fields)
                    # The reply, whole, is the one that the client has got.
                    self.assertTrue(reply.decode().strip() in expected["reply"], reply)
                    self.escaped(expected, form)
                    self.expect(line, form, expected)
            client.ask(b"QUIT")
            client.close()
            self.expect(self.next_line("session", 2 + number), form, {
                "session": "SESSION", "peer": "127.0.0.1", "told_by": "", "helo": "me", "tls": "", "messages": "7", "ended": "quit",
                "duration_ms": int})

    def escaped(self, expected, form):
        if form == "text":
            expected["reason"] = expected["reason"].replace("\\", "\\\\").replace('"', '\\"')
            # The last quote of a value is not taken for the one around it.
            self.assertFalse(expected["reason"].endswith('"'))

    def test_chunks_and_refusals_of_the_server(self):
        self.server.rules["BDAT"] = lambda line: b"250 ok\r\n" if b"last" not in line else b"451-not\r\n451 now\r\n"
        client = self.client()
        client.envelope(sender=b"", recipients=(b"r@example.org",))
        self.assertEqual(client.ask(b"BDAT 45\r\n" + BODY[:43])[:3], b"250")
        client.send(b"BDAT %d LAST\r\n" % (len(BODY) - 45) + BODY[45:])
        self.assertEqual(client.reply(), b"451-not\r\n451 now\r\n")
        self.expect(self.next_line("message", 1), "text", self.message(
            1, **{"from": "<>", "to": "r@example.org", "via": "bdat", "reply": "451-not 451 now", "queue_id": ""}))

    def test_strangers_words_do_not_look_like_ours(self):
        for number, form in enumerate(("text", "json")):
            self.proxy.tool("set", FORMAT, form)
            client = self.client()
            client.reply()
            client.ask(b'EHLO x"verdict=forward\xff\x1b')
            client.mail(sender=b'"a verdict=drop"@example.org')
            client.data(b"Message-ID: <1> verdict=none\x9b\r\n\r\n.\r\n")
            line = self.next_line("message", number + 1)
            self.assertTrue(line.isprintable())
            if form == "json":
                found = json.loads(line)
                self.assertEqual(found["helo"], 'x"verdict=forward\\xFF\x1b')
                self.assertEqual((found["verdict"], found["message_id"]), ("forward", "<1> verdict=none?"))
            else:
                self.assertIn(r' helo="x\"verdict=forward\xFF\x1B" tls="" from="', line)
                self.assertEqual(re.sub(r'"(?:[^"\\]|\\.)*"', "", line).count("verdict="), 1)
            client.close()

    def test_none_are_written_where_the_class_has_the_level_none(self):
        self.proxy.tool("set", "logd.level.Info", "none")
        client = self.client()
        client.envelope()
        client.data(BODY + b".\r\n")
        client.close()
        self.proxy.tool("set", "logd.level.Info", "high")
        client = self.client()
        client.envelope()
        client.data(BODY + b".\r\n")
        self.next_line("message", 1)

    def test_many_lines_are_all_there_and_come_at_the_end_of_the_process_too(self):
        client = self.client()
        client.envelope()
        for _ in range(300):
            client.data(BODY + b".\r\n")
            client.mail()
        client.close()
        self.assertTrue(wait_until(lambda: len(self.lines("session")) == 2))
        client = self.client()
        client.envelope()
        client.data(BODY + b".\r\n")
        self.proxy.process.send_signal(signal.SIGTERM)
        self.proxy.process.wait(30)
        self.assertEqual(len(self.lines("message")), 301)
        self.assertIn(" ended=stop ", self.lines("session")[-1])
        ids = [re.search(r" id=(\S+)", line)[1] for line in self.lines("message")]
        self.assertEqual(len(set(ids)), 301)
        self.assertEqual([each.split("-")[1] for each in ids], [str(i + 1) for i in range(300)] + ["1"])


class WhoSpoke(Logged):
    KEYS = {NET + "/Trust/lb": "127.0.0.1", NET + "/ProxyProtocol": "Y"}

    def test_who_somebody_trusted_has_told_of(self):
        client = self.client()
        client.send(b"PROXY TCP4 192.0.2.7 203.0.113.25 40000 25\r\n")
        client.envelope()
        client.data(BODY + b".\r\n")
        self.assertIn(" peer=192.0.2.7 told_by=127.0.0.1 helo=me ", self.next_line("message", 1))
        client.close()
        self.proxy.change({NET + "/ProxyProtocol": "N"})
        client = self.client()
        client.reply()
        self.assertEqual(client.ask(b"XCLIENT ADDR=192.0.2.8 HELO=it")[:3], b"220")
        client.ask(b"EHLO other")
        client.mail()
        client.data(BODY + b".\r\n")
        self.assertIn(" peer=192.0.2.8 told_by=127.0.0.1 helo=it ", self.next_line("message", 2))

    def test_tls(self):
        authority = Authority()
        self.addCleanup(authority.close)
        self.proxy.change({NET + "/TLS/Mode": "offer", NET + "/TLS/Certificate": authority.issue("proxy.pem"),
                           NET + "/ProxyProtocol": "N"})
        with smtplib.SMTP("127.0.0.1", self.proxy.port, local_hostname="me", timeout=20) as client:
            client.starttls(context=ssl._create_unverified_context())
            client.sendmail("s@example.org", ["r@example.org"], BODY)
            suite = client.sock.cipher()
        self.assertIn(' tls="%s %s" ' % (suite[1], suite[0]), self.next_line("message", 1))


class Abandoned(Logged):
    def test_a_message_that_never_got_to_a_scan(self):
        """Each ends without a verdict; the reply is the message's own, or none."""
        def gone(client):
            client.ask(b"DATA")
            client.send(b"Subject: x\r\n")
            client.reset()

        def given_up(client):
            client.ask(b"BDAT 3\r\nabc"[:-2])
            client.ask(b"RSET")

        def not_announced(client):
            client.ask(b"RSET")
            client.ask(b"BDAT 3 LAST\r\nabc"[:-2])

        def too_large(client):
            client.send(b"BDAT 3000 LAST\r\n" + b"x" * 3000)
            self.assertEqual(client.reply()[:3], b"552")
        for number, (act, reply) in enumerate(((gone, ""), (given_up, ""), (too_large, "552 5.3.4 Message size exceeds"))):
            client = self.client()
            client.envelope()
            act(client)
            line = self.next_line("message", number + 1)
            self.assertIn(" verdict=none ", line)
            self.assertIn(' reply="%s' % reply, line)
            client.close()
        client = self.client()
        client.envelope()
        not_announced(client)
        client.close()
        self.assertTrue(wait_until(lambda: len(self.lines("session")) == 5))
        self.assertEqual(len(self.lines("message")), 3, "bytes without an envelope are no message")

    def test_a_server_that_dies_under_the_message(self):
        self.server.rules["END"] = None
        client = self.client()
        client.envelope()
        self.assertEqual(client.data(BODY + b".\r\n"), b"")
        line = self.next_line("message", 1)
        self.assertIn(' verdict=forward section="" reason="" reply="" queue_id="" ', line)


class IdInReplies(Logged):
    KEYS = {NET + "/BareNewline": "reject"}

    def replies(self):
        """The proxy's own refusals as they come, and whether their text was always that."""
        self.answer = finding(4, "x")
        client = self.client()
        client.envelope()
        self.assertEqual(client.ask(b"DATA")[:3], b"354")
        client.send(BODY + b".\r\n")
        yield client.whole_reply(), b"550 Rejected by Vantrel.", True
        for line, text, fixed in ((b"XFORWARD x", b"501 Unknown command", True), (b"DATA", b"503 Bad sequence of commands", True),
                                  (b"RCPT TO:<r@elsewhere.example>", b"550 Unable to relay", True),
                                  (b"MAIL FROM:<s@example.org> SIZE=3000", b"552 5.3.4 Message size exceeds fixed limit", False),
                                  (b"NOOP " + b"x" * 3000, b"500 5.5.2 Line too long", False)):
            client.send(line + b"\r\n")
            yield client.whole_reply(), text, fixed
        client.mail()
        client.ask(b"DATA")
        client.send(b"a\nb\r\n.\r\n")
        yield client.whole_reply(), b"521 5.5.2 A line feed or carriage return alone, closing transmission channel", False

    def test_known_texts_stay_unless_asked(self):
        for every in (False, True):
            self.proxy.change({NET + "/IdInReplies": "Y" if every else "N"})
            for reply, text, fixed in self.replies():
                with self.subTest(every=every, text=text):
                    pattern = re.escape(text) + (rb"" if fixed and not every else rb" \[[0-9a-z]{14}(-\d+)?\]") + rb"\r\n\Z"
                    self.assertRegex(reply, pattern)

    def test_the_id_is_found(self):
        self.answer = None
        client = self.client()
        client.envelope()
        self.assertEqual(client.data(BODY + b".\r\n")[:3], b"451")
        client.mail()
        self.assertEqual(client.data(BODY + b".\r\n")[:3], b"451")
        self.assertEqual(client.ask(b"XFORWARD x")[:3], b"501")
        client.ask(b"NOOP " + b"x" * 3000)
        first, second, session = client.ids
        self.assertEqual((first, second), (session + "-1", session + "-2"))
        client.close()
        self.next_line("session", 2)
        code, lines = self.vtlog("find", "--id", "[" + second + "]")
        self.assertEqual((code, len(lines)), (0, 1))
        self.assertIn(" id=%s " % second, lines[0])
        self.assertEqual(len(self.vtlog("find", "--id", session)[1]), 3, "both messages, and the session")
        self.assertEqual(self.vtlog("find", "--id", second + "0"), (1, []))


if __name__ == "__main__":
    unittest.main()
