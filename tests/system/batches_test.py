"""Batches of commands when a server is odd or slow: answers in their order, nothing past the checks, no standstill."""

import time

from harness import NET
from pipelining_test import EARLY, ENVELOPE, OK, START, Pipelined
from system_test import System
from trust import BALANCER, TRUST, Trust

OUT_OF_STEP = b"421 4.3.0 Server out of step, closing transmission channel\r\n"
ELSEWHERE = b"RCPT TO:<x@elsewhere.example>\r\n"


class OddServer(Pipelined):
    def test_a_server_that_asks_for_more_in_a_batch(self):
        """It takes the batch's next command, or a NOOP, for that; what comes then is no answer to it, and is not unseen."""
        for verb in ("MAIL", "RCPT", "RSET"):
            for code in (b"334 more\r\n", b"334-more\r\n334 more\r\n", b"354 go on\r\n"):
                for behind in (ELSEWHERE, b"RCPT TO:<r@example.org>\r\n", b"NOOP\r\n"):
                    self.server.rules = dict(self.server.rules, **{verb: code})
                    self.server.lines.clear()
                    c = self.greeted()
                    c.send(b"RSET\r\n" + ENVELOPE + behind + ELSEWHERE + b"DATA\r\n" + ELSEWHERE)
                    got = []
                    while reply := c.reply():
                        got.append(reply)
                    self.assertTrue(got[-1].endswith(OUT_OF_STEP), (verb, code, behind, got))
                    self.assertEqual(got[:-1], [OK] * ("RSET", "MAIL", "RCPT").index(verb), (verb, code, behind))
                    self.assertNotIn(ELSEWHERE, self.server.lines)
                    self.assertNotIn(b"DATA\r\n", self.server.lines)
                    del self.server.rules[verb]

    def test_a_greeting_reply_of_one_line_that_looks_like_an_offer(self):
        for line in (b"250 PIPELINING\r\n", b"250 STARTTLS\r\n", b"250 XCLIENT\r\n", b"250 burl x\r\n"):
            self.server.rules["EHLO"] = line
            c = self.opened()
            self.assertEqual(c.ask(b"EHLO me"), b"250-EHLO\r\n250 PIPELINING\r\n", line)
            self.assertEqual(c.ask(b"NOOP"), OK)

    def test_a_full_envelope_makes_room_for_the_next_in_one_batch(self):
        c = self.greeted()
        c.ask(b"MAIL FROM:<s@example.org>")
        for _ in range(100):
            c.send(b"RCPT TO:<r@example.org>\r\n" * 100)
            for _ in range(100):
                self.assertEqual(c.reply(), OK)
        c.send(b"RCPT TO:<r@example.org>\r\nRSET\r\n" + ENVELOPE + b"DATA\r\n")
        self.assertEqual([c.reply() for _ in range(5)],
                         [b"452 4.5.3 Too many recipients\r\n", OK, OK, OK, START])
        c.send(b"x\r\n.\r\n")
        self.assertEqual(c.reply(), b"250 queued\r\n")

    def test_answers_do_not_wait_for_a_slow_server(self):
        """A client's patience with each answer begins with the one before."""
        def slow(line):
            time.sleep(0.8)
            return OK
        self.server.rules.update(RCPT=slow)
        c = self.greeted()
        start = time.monotonic()
        c.send(b"MAIL FROM:<s@example.org>\r\n" + b"RCPT TO:<r@example.org>\r\n" * 10 + b"DATA\r\n")
        self.assertEqual(c.reply(), OK)
        self.assertLess(time.monotonic() - start, 7)
        for _ in range(10):
            self.assertEqual(c.reply(), OK)
        self.assertEqual(c.reply(), START)

    def test_a_server_with_much_to_say_to_each_of_many_long_commands(self):
        """Neither waits for the other to read first."""
        self.server.rules["RCPT"] = (b"250-" + b"y" * 900 + b"\r\n") * 60 + b"250 ok\r\n"
        c = self.greeted()
        long = b"RCPT TO:<r@example.org>" + b" " * 1900 + b"\r\n"
        c.send(b"MAIL FROM:<s@example.org>\r\n" + long * 90 + b"DATA\r\n")
        self.assertEqual(c.reply(), OK)
        for _ in range(90):
            self.assertTrue(c.reply().endswith(b"\r\n250 ok\r\n"))
        self.assertEqual(c.reply(), START)


class EarlyBehindText(System):
    keys = {NET + "/EarlyTalker": "refuse"}

    def test_behind_a_chunk(self):
        for chunk in (b"BDAT 5\r\nhello", b"BDAT 5 LAST\r\nhello"):
            c = self.ready()
            c.send(chunk + b"BDAT 5 LAST\r\nhello")
            self.assertEqual(c.reply(), EARLY[1])
            self.assertEqual(c.reply(), b"")
        self.assertFalse(self.server.messages)

    def test_behind_the_answer_to_a_challenge(self):
        self.server.rules.update(AUTH=b"334 who\r\n")
        c = self.opened(b"EHLO me")
        self.assertEqual(c.ask(b"AUTH LOGIN"), b"334 who\r\n")
        c.send(b"dXNlcg==\r\nMAIL FROM:<s@example.org>\r\n")
        self.assertEqual(c.reply(), EARLY[1])
        self.assertEqual(c.reply(), b"")


class OddlyTold(Trust):
    def tell(self, how, **rules):
        self.server.rules.update(rules)
        self.proxy.change(dict(TRUST, **{NET + "/TellServer": how, NET + "/TellServerRequired": "Y"}))
        self.server.lines.clear()

    def test_an_offer_of_nothing_is_none(self):
        for how in ("xclient", "xforward"):
            for offer in (b"", b" ", b" NAME", b"\tADDR"):
                self.tell(how, EHLO=b"250-real\r\n250-" + how.upper().encode() + offer + b"\r\n250 SIZE\r\n")
                c = self.client()
                self.begun(c)
                self.assertEqual(c.ask(b"MAIL FROM:<s@example.org>")[:4], b"451 ", (how, offer))
                self.assertFalse(self.said(b"MAIL"))

    def test_the_name_of_one_client_is_not_told_of_the_next(self):
        self.tell("xclient", EHLO=b"250-real\r\n250 XCLIENT ADDR HELO PROTO\r\n", XCLIENT=b"220 real\r\n")
        c = self.from_(BALANCER)
        self.begun(c, b"EHLO balancer.example")
        self.assertEqual(c.ask(b"XCLIENT ADDR=192.0.2.7")[:3], b"220")
        self.server.lines.clear()
        self.assertEqual(c.ask(b"MAIL FROM:<s@example.org>"), OK)
        self.assertNotIn(b"balancer.example", b"".join(self.said(b"XCLIENT")))
        self.assertIn(b"ADDR=192.0.2.7", b"".join(self.said(b"XCLIENT")))

    def test_who_cannot_be_told_of_hears_why(self):
        for answer in (b"421 go away\r\n", b"354 go on\r\n", None):
            for how, line in (("xclient", b"EHLO me"), ("xforward", b"MAIL FROM:<s@example.org>")):
                self.tell(how, EHLO=b"250-real\r\n250-XFORWARD ADDR\r\n250 XCLIENT ADDR\r\n",
                          **{how.upper(): answer})
                c = self.opened()
                if how == "xforward":
                    c.ask(b"EHLO me")
                self.assertEqual(c.ask(line)[:10], b"421 4.3.2 ", (how, answer))
                self.assertEqual(c.reply(), b"")
                self.assertFalse(self.said(b"MAIL"))
