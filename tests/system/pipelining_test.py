"""Clients that send more than one command at a time: what is offered, the order of the answers, what the server gets
together, and clients that don't wait for their turn. And line ends that are none."""

import subprocess
import time

from harness import NET, verdict, wait_until
from real_server import Postfix, available
from system_test import System

ENVELOPE = b"MAIL FROM:<s@example.org>\r\nRCPT TO:<r@example.org>\r\n"
OK = b"250 ok\r\n"
START = b"354 Enter mail, end with \".\" on a line by itself\r\n"
EARLY = (b"554 5.5.1 Not your turn before the greeting, closing transmission channel\r\n",
         b"554 5.5.1 Commands came before their turn, closing transmission channel\r\n")
BARE = b"521 5.5.2 A line feed or carriage return alone, closing transmission channel\r\n"


class Pipelined(System):
    keys = {NET + "/Pipelining": "Y"}

    def greeted(self):
        c = self.opened()
        self.assertIn(b"250-PIPELINING\r\n", c.ask(b"EHLO me"))
        return c

    def replies(self, c, count):
        return [c.reply() for _ in range(count)]


class Batches(Pipelined):
    def test_a_message_and_all_around_it_in_one_piece(self):
        c = self.opened(b"EHLO me")
        c.send(ENVELOPE + b"DATA\r\n")
        self.assertEqual(self.replies(c, 3), [OK, OK, START])
        c.send(b"one\r\n.\r\n" + ENVELOPE + b"BDAT 5 LAST\r\nQUIT\n" + b"VRFY x\r\n" + ENVELOPE + b"DATA\r\n")
        self.assertEqual(self.replies(c, 8), [b"250 queued\r\n", OK, OK, OK, OK, OK, OK, START])
        c.send(b"three\r\n.\r\nQUIT\r\n")
        self.assertEqual(c.reply(), b"250 queued\r\n")
        self.assertTrue(c.reply().startswith(b"221"))
        self.assertEqual(self.server.messages, [b"one\r\n\r\n", b"QUIT\n", b"three\r\n\r\n"])
        self.assertEqual(len(self.scan.requests), 3)

    def test_what_does_not_hang_on_answers_goes_on_together(self):
        # A server that answers nothing before it has it all.
        self.server.rules.update(MAIL=b"", RCPT=lambda line: b"250 m\r\n250 a\r\n250 b\r\n" if b"<b@" in line else b"")
        c = self.greeted()
        c.send(b"MAIL FROM:<s@example.org>\r\nRCPT TO:<a@example.org>\r\nRCPT TO:<b@example.org>\r\nDATA\r\n")
        self.assertEqual(self.replies(c, 4), [b"250 m\r\n", b"250 a\r\n", b"250 b\r\n", START])
        c.send(b"x\r\n.\r\n")
        self.assertEqual(c.reply(), b"250 queued\r\n")
        self.assertIn(b"a@example.org;b@example.org", self.scan.requests[0])

    def test_the_answers_to_a_batch_come_in_one_piece(self):
        c = self.greeted()
        c.send(ENVELOPE + b"RCPT TO:<x@elsewhere.example>\r\nRSET\r\n" + ENVELOPE + b"DATA\r\n")
        got = c.socket.recv(65536)
        self.assertEqual(got, OK + OK + b"550 Unable to relay\r\n" + OK + OK + OK + START)

    def test_a_server_that_takes_one_at_a_time_gets_it_so(self):
        self.server.rules.update(EHLO=b"250-real\r\n250 SIZE\r\n", MAIL=b"")
        c = self.greeted()
        self.server.lines.clear()
        c.send(ENVELOPE + b"DATA\r\n")
        self.assertTrue(wait_until(lambda: self.server.lines))
        time.sleep(0.3)
        self.assertEqual(self.server.lines, [ENVELOPE.splitlines(True)[0]])
        next(each for each in reversed(self.server.clients) if each.fileno() >= 0).sendall(OK)
        self.assertEqual(self.replies(c, 3), [OK, OK, START])

    def test_refusals_keep_their_places(self):
        self.server.rules["RCPT"] = lambda line: b"550 no\r\n" if b"<no" in line else b"250-yes\r\n250 yes\r\n"
        c = self.greeted()
        c.send(b"MAIL FROM:<s@example.org>\r\nRCPT TO:<no1@example.org>\r\nRCPT TO:<yes@example.org>\r\n\r\n"
               b"RCPT TO:<x@elsewhere.example>\r\nRCPT TO:<no2@example.org>\r\nNOOP\r\nDATA x\r\nDATA\r\n")
        self.assertEqual(self.replies(c, 8), [OK, b"550 no\r\n", b"250-yes\r\n250 yes\r\n", b"550 Unable to relay\r\n",
                                              b"550 no\r\n", OK, b"501 Unknown command\r\n", START])
        c.send(b"x\r\n.\r\n")
        self.assertEqual(c.reply(), b"250 queued\r\n")
        self.assertIn(b"yes@example.org", self.scan.requests[0])
        self.assertNotIn(b"no1@example.org", self.scan.requests[0])

    def test_no_recipient_no_message(self):
        self.server.rules["RCPT"] = b"550 no\r\n"
        c = self.greeted()
        c.send(ENVELOPE + b"DATA\r\nRSET\r\n")
        self.assertEqual(self.replies(c, 4), [OK, b"550 no\r\n", b"503 Bad sequence of commands\r\n", OK])

    def test_a_rejected_message_and_what_follows_it(self):
        self.scan.answer = lambda request: verdict(4)
        c = self.greeted()
        c.send(ENVELOPE + b"DATA\r\n")
        self.replies(c, 3)
        c.send(b"x\r\n.\r\nVRFY a\r\n" + ENVELOPE + b"RSET\r\n")
        self.assertEqual(self.replies(c, 5), [b"550 Rejected by Vantrel.\r\n", OK, OK, OK, OK])

    def test_a_server_that_goes_in_the_middle_of_a_batch(self):
        self.server.rules["RCPT"] = None
        c = self.greeted()
        c.send(ENVELOPE + b"RCPT TO:<b@example.org>\r\nDATA\r\n")
        self.assertEqual(c.reply(), OK)
        self.assertEqual(c.reply(), b"")

    def test_helo_offers_nothing(self):
        c = self.greeted()
        self.assertTrue(c.ask(b"HELO me").startswith(b"250 proxy"))
        c.send(ENVELOPE + b"DATA\r\n")
        self.replies(c, 3)
        c.send(b"a\r\n.\r\nQUIT\r\n.\r\n")  # text, as ever without an offer
        self.assertEqual(c.reply(), b"250 queued\r\n")
        self.assertEqual(self.server.messages, [b"a\r\n..\r\nQUIT\r\n\r\n"])

    def test_smtp_source_and_a_real_server(self):
        if not available():
            self.skipTest("no Postfix")
        postfix = Postfix()
        try:
            self.proxy.change({NET + "/ServerToForward": "127.0.0.1:%d" % postfix.port})
            out = subprocess.run(["/usr/sbin/smtp-source", "-m", "20", "-s", "4", "-r", "5", "-f", "s@example.org", "-t",
                                  "r@example.org", "127.0.0.1:%d" % self.proxy.port], capture_output=True, timeout=60)
            self.assertEqual(out.returncode, 0, out.stderr)
            self.assertTrue(wait_until(lambda: len(postfix.delivered()) == 100, 30), postfix.logged())
        finally:
            postfix.close()


class NotOffered(System):
    def test_without_the_key_nothing_is_offered(self):
        c = self.opened()
        self.assertNotIn(b"PIPELINING", c.ask(b"EHLO me"))


class EarlyTalkers(System):
    keys = {NET + "/EarlyTalker": "refuse"}

    def test_before_the_greeting(self):
        self.server.rules["GREETING"] = b"220 hello\r\n"
        c = self.client()
        c.send(b"EHLO me\r\n")
        # It may have been quicker than its bytes: then they came in time.
        got = c.reply()
        self.assertIn(got, (EARLY[0], b"220 proxy.example ESMTP Vantrel Proxy\r\n"))
        if got == EARLY[0]:
            self.assertEqual(c.reply(), b"")

    def test_behind_a_command(self):
        for text in (b"EHLO me\r\nMAIL FROM:<s@example.org>\r\n", b"NOOP\r\nNOOP\r\n", b"HELO me\r\nRSET"):
            c = self.opened()
            c.send(text)
            self.assertEqual(c.reply(), EARLY[1], text)
            self.assertEqual(c.reply(), b"")

    def test_who_waits_is_served(self):
        c = self.ready()
        self.assertEqual(c.data(b"x\r\n.\r\n"), b"250 queued\r\n")
        c.mail()
        c.send(b"BDAT 3 LAST\r\nabc")  # the chunk belongs to the command
        self.assertEqual(c.reply(), OK)
        c.send(b"QUIT\r\n")
        self.assertTrue(c.reply().startswith(b"221"))


class OfferedButRefused(System):
    keys = {NET + "/EarlyTalker": "refuse", NET + "/Pipelining": "Y"}

    def test_a_batch_may_come_but_not_behind_what_ends_it(self):
        c = self.opened(b"EHLO me")
        c.send(ENVELOPE + b"DATA\r\n")
        self.assertEqual([c.reply() for _ in range(3)], [OK, OK, START])
        c.send(b"x\r\n.\r\n" + ENVELOPE + b"DATA\r\nFrom: early\r\n")
        self.assertEqual([c.reply() for _ in range(4)], [b"250 queued\r\n", OK, OK, EARLY[1]])
        self.assertEqual(c.reply(), b"")


class BareNewlines(System):
    def run_message(self, c, body):
        c.mail()
        return c.data(body)

    def use(self, word):
        self.proxy.change({NET + "/BareNewline": word})

    def test_normalized(self):
        self.use("normalize")
        c = self.opened(b"EHLO me")
        for body, stored in ((b"a\nb\rc\r\n.\r\n", b"a\r\nb\r\nc\r\n"), (b"a\n.\nb\r\n.\r\n", b"a\r\n..\r\nb\r\n"),
                             (b"a\r\n.\nMAIL FROM:<e@example.org>\n.\r\nb\r\n.\r\n",
                              b"a\r\n..\r\nMAIL FROM:<e@example.org>\r\n..\r\nb\r\n"),
                             (b"a\r.\r\r\n.\r\n", b"a\r\n..\r\n\r\n")):
            self.assertEqual(self.run_message(c, body), b"250 queued\r\n")
            self.assertEqual(self.server.messages[-1], stored + b"\r\n")
        # In chunks too, where nothing says that it is no text, and over the cuts.
        for parameter, stored in ((b"", b"a\r\nb\r\nc\r\n"), (b" BODY=BINARYMIME", b"a\rb\nc\r\n")):
            self.server.messages.clear()
            self.assertEqual(c.ask(b"MAIL FROM:<s@example.org>" + parameter), OK)
            self.assertEqual(c.ask(b"RCPT TO:<r@example.org>"), OK)
            c.send(b"BDAT 2\r\na\r")
            self.assertTrue(c.reply().startswith(b"250"))
            c.send(b"BDAT 4\r\nb\nc\r")
            self.assertTrue(c.reply().startswith(b"250"))
            c.send(b"BDAT 1 LAST\r\n\n")
            self.assertTrue(c.reply().startswith(b"250"))
            self.assertEqual(b"".join(self.server.messages), stored)

    def test_rejected(self):
        self.use("reject")
        for body in (b"a\nb\r\n.\r\n", b"a\r\n.\n", b"a\rb\r\n.\r\n", b"x" * 100000 + b"\n" + b"y" * 100000):
            c = self.opened(b"EHLO me")
            self.assertEqual(self.run_message(c, body), BARE)
            self.assertEqual(c.reply(), b"")
        c = self.ready()
        self.assertEqual(c.data(b"clean\r\n.\r\n"), b"250 queued\r\n")
        c.mail()
        c.send(b"BDAT 3 LAST\r\na\nb")
        self.assertEqual(c.reply(), BARE)
        # A stranger chooses his address, and the values of his parameters.
        for sender in (b"<body=binarymime@example.com>", b"<s@example.com> ENVID=body=binarymime"):
            c = self.opened(b"EHLO me")
            self.assertEqual(c.ask(b"MAIL FROM:" + sender), OK)
            self.assertEqual(c.ask(b"RCPT TO:<r@example.org>"), OK)
            c.send(b"BDAT 3 LAST\r\na\nb")
            self.assertEqual(c.reply(), BARE, sender)
        self.assertEqual(self.server.messages, [b"clean\r\n\r\n"])

    def test_chunks_that_nobody_has_announced_are_no_message(self):
        self.use("reject")
        self.server.rules["RCPT"] = b"550 no such user\r\n"
        c = self.opened(b"EHLO me")
        c.ask(b"MAIL FROM:<s@example.org>")
        c.ask(b"RCPT TO:<r@example.org>")
        for chunk in (b"BDAT 1\r\n\r", b"BDAT 1 LAST\r\n\n"):
            c.send(chunk)
            self.assertEqual(c.reply()[:3], b"503")
