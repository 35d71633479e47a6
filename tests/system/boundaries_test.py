"""Where lines, replies and messages end: nothing hides behind an end that only somebody else sees, nothing is lost at one,
and every reply stays in step."""

import itertools
import threading
import time

from harness import NET, Client, clean, verdict, wait_until
from system_test import REJECTED, System

TOO_LARGE = b"552 5.3.4 Message size exceeds fixed limit\r\n"
TOO_LONG = b"500 5.5.2 Line too long\r\n"
UNKNOWN = b"501 Unknown command\r\n"
HIDDEN = b"MAIL FROM:<evil@example.org>\r\nRCPT TO:<victim@example.org>\r\nDATA\r\nhidden\r\n"
LINE_ENDS = (b"\r\n", b"\n", b"\r", b"\r\r\n", b"\r\r\r\n", b"\0", b"\n\0", b"\r\n\0", b"\0\r\n", b"\n\r")


class EndOfMessage(System):
    def begin(self):
        c = self.ready()
        self.assertTrue(c.ask(b"DATA").startswith(b"354"))
        return c

    def test_no_line_end_lets_a_second_message_in(self):
        for front, behind in itertools.product(LINE_ENDS, LINE_ENDS):
            if front.endswith(b"\r\n") and behind == b"\r\n":
                continue  # the end itself
            with self.subTest(front=front, behind=behind):
                count = len(self.server.messages)
                c = self.begin()
                c.send(b"text" + front + b"." + behind + HIDDEN + b"\r\n.\r\n")
                self.assertEqual(c.reply(), b"250 queued\r\n")
                self.assertEqual(self.server.messages[count:], [b"text" + front + b".." + behind + HIDDEN + b"\r\n\r\n"])
                self.in_step(c)
                c.close()

    def test_the_cut_of_the_stream_makes_no_difference(self):
        body = b"text\r\r\n.\r\r\n.\n.\r" + HIDDEN
        whole = body + b"\r\n.\r\n"
        guarded = body.replace(b"\n.\r\r\n.\n.\r", b"\n..\r\r\n..\n..\r") + b"\r\n\r\n"
        for cut in range(1, 20):
            c = self.begin()
            c.send(whole[:cut])
            time.sleep(0.05)
            c.send(whole[cut:])
            self.assertEqual(c.reply(), b"250 queued\r\n", cut)
            self.assertEqual(self.server.messages[-1], guarded, cut)
            c.close()

    def test_bare_line_feeds_end_a_message_after_a_second_of_silence(self):
        for body, stored in ((b"text\n.\n", b"text\n\r\n"), (b"text\r\n.\n", b"text\r\n\r\n"), (b".\n", b"\r\n")):
            with self.subTest(body):
                c = self.begin()
                start = time.monotonic()
                c.send(body)
                self.assertEqual(c.reply(), b"250 queued\r\n")
                self.assertGreater(time.monotonic() - start, 0.9)
                self.assertEqual(self.server.messages[-1], stored)
        c = self.begin()
        c.send(b"text\n.\n")
        time.sleep(0.4)
        c.send(HIDDEN + b"\r\n.\r\n")
        self.assertEqual(c.reply(), b"250 queued\r\n")
        self.assertEqual(self.server.messages[-1], b"text\n..\n" + HIDDEN + b"\r\n\r\n")
        self.in_step(c)

    def test_a_client_that_goes_at_bare_line_feeds_has_sent_no_message(self):
        c = self.begin()
        c.send(b"half of a message\n.\n")
        c.close()
        self.assertTrue(wait_until(lambda: not self.proxy.spool()))
        self.assertEqual((self.server.messages, self.scan.requests), ([], []))

    def test_bare_ends_inside_large_messages_cut_none_of_them(self):
        piece = b"x" * 4093 + b"\n.\n"
        for _ in range(20):
            c = self.begin()
            c.send(piece * 150 + b"\r\n.\r\n")
            self.assertEqual(c.reply(), b"250 queued\r\n")
            self.assertEqual(self.server.messages.pop(), piece.replace(b"\n.\n", b"\n..\n") * 150 + b"\r\n\r\n")
            self.in_step(c)
            c.close()


class Refusals(System):
    def test_recipients_of_one_message_have_a_bound(self):
        # The server behind takes any number. Commands go out in bunches, to be done in a moment.
        bound, bunch = 10000, 500
        c = self.client()
        c.envelope(recipients=())
        for first in range(0, bound, bunch):
            c.send(b"".join(b"RCPT TO:<r%d@example.org>\r\n" % i for i in range(first, first + bunch)))
            self.assertEqual({c.reply() for _ in range(bunch)}, {b"250 ok\r\n"})
        self.assertEqual(c.ask(b"RCPT TO:<one@example.org>"), b"452 4.5.3 Too many recipients\r\n")
        self.assertFalse([line for line in self.server.lines if b"one@" in line])
        self.assertEqual(c.data(b"Subject: x\r\n\r\n.\r\n"), b"250 queued\r\n")
        self.assertIn(b";".join(b"r%d@example.org" % i for i in range(bound)) + b"\0", self.scan.requests[0])
        self.assertEqual(c.ask(b"MAIL FROM:<s@example.org>"), b"250 ok\r\n")
        self.assertEqual(c.ask(b"RCPT TO:<one@example.org>"), b"250 ok\r\n", "the next message begins anew")

    def test_the_servers_word_on_data_is_the_answer(self):
        for reply in (b"554 5.7.1 policy\r\n", b"451 4.3.0 later\r\n", b"554-5.7.1 policy\r\n554 5.7.1 says no\r\n"):
            for mask in (1, 2):
                with self.subTest(reply, mask=mask):
                    self.scan.answer = lambda request, mask=mask: verdict(mask, section_mask=1, recipients="one@x.example")
                    self.server.rules["DATA"] = reply
                    c = self.ready()
                    self.assertEqual(c.data(b"text\r\n.\r\n"), reply)
                    self.assertEqual(self.server.lines[-1], b"RSET\r\n")
                    self.server.rules["DATA"] = b"354 go on\r\n"
                    c.mail()
                    self.assertEqual(c.data(b"text\r\n.\r\n"), b"250 queued\r\n")

    def test_a_refused_sender_in_a_fresh_envelope(self):
        self.scan.answer = lambda request: verdict(2, section_mask=1, recipients="one@x.example")
        c = self.ready()
        self.server.rules["MAIL"] = b"451 4.1.8 not now\r\n"
        self.assertEqual(c.data(b"text\r\n.\r\n"), b"451 4.1.8 not now\r\n")
        self.assertEqual(c.ask(b"VRFY step"), b"250 ok\r\n")
        self.assertEqual(self.server.messages, [])

    def test_a_rejected_message_is_rejected_whatever_becomes_of_its_copy(self):
        # A client that hears of a passing fault would send it again and again.
        self.scan.answer = lambda request: verdict(4, section_mask=1, recipients="one@x.example")
        for verb in ("MAIL", "DATA", "BDAT"):
            with self.subTest(verb):
                kept = dict(self.server.rules)
                c = self.opened(b"HELO me")
                c.mail()
                self.server.rules[verb] = b"451 4.3.0 later\r\n"
                if verb == "BDAT":
                    c.send(b"BDAT 6 LAST\r\ntext\r\n")
                    self.assertEqual(c.reply(), REJECTED)
                else:
                    self.assertEqual(c.data(b"text\r\n.\r\n"), REJECTED)
                self.assertEqual(self.server.lines[-1], b"RSET\r\n")
                self.assertEqual(c.ask(b"VRFY step"), b"250 ok\r\n")
                self.server.rules = kept

    def test_an_envelope_that_the_server_keeps_gets_no_copy(self):
        # It may still hold the recipients that the rejected message was for.
        self.scan.answer = lambda request: verdict(4, section_mask=1, recipients="one@x.example")
        for reply in (b"502 5.5.1 not here\r\n", b"421 4.3.2 closing\r\n"):
            with self.subTest(reply):
                self.server.rules["RSET"] = reply
                c = self.ready()
                self.assertEqual(c.data(b"text\r\n.\r\n"), REJECTED)
                self.assertEqual(self.server.lines[-1], b"RSET\r\n")
                self.assertEqual(self.server.messages, [])

    def test_a_closing_server_ends_the_session(self):
        for verb, line in (("VRFY", b"VRFY x"), ("MAIL", b"MAIL FROM:<s@example.org>"), ("QUIT", b"QUIT")):
            with self.subTest(verb):
                kept = dict(self.server.rules)
                self.server.rules[verb] = b"421-closing\r\n421 now\r\n" if verb != "QUIT" else b"500 no\r\n"
                c = self.opened()
                self.assertEqual(c.ask(line), self.server.rules[verb])
                self.assertEqual(c.reply(), b"", "the session ends")
                self.server.rules = kept
        self.server.rules["DATA"] = b"421 4.3.2 closing\r\n"
        c = self.ready()
        self.assertEqual(c.data(b"text\r\n.\r\n"), b"421 4.3.2 closing\r\n")
        self.assertEqual(c.reply(), b"")

    def test_few_noops_for_many_answers_of_our_own(self):
        c = self.ready()
        self.server.lines.clear()
        for _ in range(30):
            self.assertEqual(c.ask(b"RCPT TO:<u@elsewhere.example>"), b"550 Unable to relay\r\n")
        self.assertEqual(self.server.lines.count(b"NOOP\r\n"), 3)
        time.sleep(1.1)  # the interval
        c.ask(b"RCPT TO:<u@elsewhere.example>")
        self.assertTrue(wait_until(lambda: self.server.lines.count(b"NOOP\r\n") == 4))

    def test_a_server_that_takes_data_unasked_gets_none(self):
        self.server.rules["XDATA"] = b"354 go on\r\n"
        c = self.ready()
        self.assertTrue(c.ask(b"XDATA").startswith(b"421"))
        self.assertEqual(c.reply(), b"")

    def test_nothing_is_hidden_in_a_handshake(self):
        self.server.rules["STARTTLS"] = b"220 go ahead\r\n"
        c = self.opened()
        self.assertEqual(c.ask(b"STARTTLS"), b"220 proxy.example ESMTP Vantrel Proxy\r\n")
        c.send(b"\x16\x03\x01\x01\x01\x01\xff\xff\n")
        self.assertEqual(c.reply(), b"", "the session ends")
        self.assertEqual(self.server.lines, [b"STARTTLS\r\n"])


class Sizes(System):
    keys = {NET + "/MaxMessageSize": "100K"}

    def again(self, c):
        c.mail()

    def test_offer_and_parameter(self):
        for theirs, ours in ((b"250-SIZE 1000000", b"250-SIZE 102400"), (b"250-SIZE", b"250-SIZE 102400"),
                             (b"250-SIZE 0", b"250-SIZE 102400"), (b"250-SIZE 5000", b"250-SIZE 5000")):
            self.server.rules["EHLO"] = b"250-real\r\n" + theirs + b"\r\n250 HELP\r\n"
            c = self.opened()
            self.assertEqual(c.ask(b"EHLO me"), b"250-proxy.example\r\n" + ours + b"\r\n250 HELP\r\n")
        for parameter, answer in ((b" SIZE=102400", b"250 ok\r\n"), (b" SIZE=102401", TOO_LARGE), (b" size=999999 BODY=8BITMIME", TOO_LARGE),
                                  (b" BODY=8BITMIME SIZE=99999999999999999999999", TOO_LARGE), (b" XSIZE=999999", b"250 ok\r\n")):
            self.assertEqual(c.ask(b"MAIL FROM:<s@example.org>" + parameter), answer, parameter)

    def test_too_large_messages_are_read_and_refused(self):
        line = b"0123456789" * 7 + b"\r\n"
        c = self.ready()
        self.assertEqual(c.data(line * 100000 + b".\r\n"), TOO_LARGE)
        self.again(c)
        c.send(b"BDAT 100000\r\n" + b"x" * 100000)
        self.assertEqual(c.reply(), b"250 chunk received ok\r\n")
        c.send(b"BDAT 3000 LAST\r\n" + b"x" * 3000)
        self.assertEqual(c.reply(), TOO_LARGE)
        c.send(b"BDAT 5 LAST\r\nxxxxx")
        self.assertEqual(c.reply(), b"503 Bad sequence of commands\r\n")
        self.again(c)
        self.assertEqual(c.data(line * 1422 + b".\r\n"), b"250 queued\r\n")
        self.assertEqual(len(self.server.messages), 1)
        self.assertEqual(len(self.scan.requests), 1)

    def test_what_is_never_stored_is_not_read_for_ever(self):
        c = self.ready()
        c.ask(b"DATA")
        start = time.monotonic()
        answers = []
        reader = threading.Thread(target=lambda: answers.append(c.reply()))
        reader.start()
        try:
            while time.monotonic() - start < 20:
                c.send(b"x" * 70 + b"\r\n")
                time.sleep(0.002)
                if not reader.is_alive():
                    break
        except OSError:
            pass
        reader.join(5)
        self.assertEqual(answers, [TOO_LARGE])
        self.assertLess(time.monotonic() - start, 18)


class Lines(System):
    def test_long_commands(self):
        c = self.opened()
        for size, tail in itertools.product((1021, 1024, 2048, 2049, 5000, 12288, 12289, 300000), (b"", b"VRFY behind\r\n")):
            with self.subTest(size, tail=tail):
                self.server.lines.clear()
                line = b"NOOP " + b"x" * (size - 7) + b"\r\n"
                c.send(line + tail)
                fits = size <= 2048
                self.assertEqual(c.reply(), b"250 ok\r\n" if fits else TOO_LONG)
                if tail:
                    self.assertEqual(c.reply(), b"250 ok\r\n")
                lines = [each for each in self.server.lines if each != b"NOOP\r\n"]
                self.assertEqual(lines, ([line] if fits else []) + ([tail] if tail else []))

    def test_a_long_line_in_pieces_is_one_line(self):
        c = self.opened()
        c.send(b"RCPT TO:<" + b"x" * 2030 + b"@example.org")
        time.sleep(0.2)
        c.send(b".evil.example>" + b" " * 20000)
        time.sleep(0.2)
        c.send(b"MAIL FROM:<x@evil.example>\r\nVRFY behind\r\n")
        self.assertEqual([c.reply(), c.reply()], [TOO_LONG, b"250 ok\r\n"])
        self.assertTrue(wait_until(lambda: b"VRFY behind\r\n" in self.server.lines))
        self.assertEqual(set(self.server.lines), {b"NOOP\r\n", b"VRFY behind\r\n"})

    def test_long_and_odd_replies_stay_in_step(self):
        long = b"x" * 5000
        cases = ((b"250 " + long + b"\r\n", 1), (b"250-" + long + b"\r\n250-" + long + b"\r\n250 end\r\n", 3),
                 (b"\r\n250 ok\r\n", 1), (b"25\n\n250 ok\r\n", 1), (b"250\r\n", 1), (b"250 bare\n", 1))
        for reply, lines in cases:
            with self.subTest(reply[:20]):
                self.server.rules["VRFY"] = reply
                c = self.opened()
                got = c.ask(b"VRFY x")
                self.assertEqual(got.count(b"\n"), lines)
                self.assertTrue(all(len(each) <= 1022 for each in got.split(b"\r\n")))
                self.assertEqual(c.ask(b"HELP"), b"250 ok\r\n")
        c = self.opened()
        self.server.rules["VRFY"] = b"250-line\r\n" * 999 + b"250 end\r\n"
        self.assertEqual(c.ask(b"VRFY x").count(b"\n"), 1000)
        self.server.rules["VRFY"] = b"250-line\r\n" * 1000 + b"250 end\r\n"
        c.ask(b"VRFY x")
        self.assertEqual(c.reply(), b"", "a reply without end ends the session")

    def test_a_reply_has_one_time_limit_for_all_its_lines(self):
        def slowly(_):
            for _ in range(12):
                time.sleep(1)
                self.server.clients[-1].sendall(b"250-slow\r\n")
            return b"250 end\r\n"
        self.server.rules["VRFY"] = slowly
        c = self.opened()
        start = time.monotonic()
        c.ask(b"VRFY x")
        self.assertLess(time.monotonic() - start, 11)

    def test_answers_to_challenges(self):
        answers = iter([b"334 VXNlcm5hbWU6\r\n", b"235 welcome\r\n"] * 8)
        for verb in ("AUTH", "", "DATA", "BDAT", "DXNLCG=="):
            self.server.rules[verb] = lambda line: next(answers)
        for answer in (b"dXNlcg==", b"", b"DATA", b"BDAT 0 LAST", b"x" * 12286):
            with self.subTest(answer[:20]):
                c = self.opened()
                self.assertTrue(c.ask(b"AUTH LOGIN").startswith(b"334"))
                self.assertTrue(c.ask(answer).startswith(b"235"))
                self.assertEqual(self.server.lines[-1], answer + b"\r\n")
                c.close()
        for answer in (b"x" * 12287, b"a\rRCPT TO:<x@evil.example>", b"a\0b"):
            with self.subTest(answer[:20]):
                c = self.opened()
                self.assertTrue(c.ask(b"AUTH LOGIN").startswith(b"334"))
                self.assertTrue(c.ask(answer).startswith(b"235"))
                self.assertEqual(self.server.lines[-1], b"*\r\n", "the exchange is given up")

    def test_what_is_not_offered(self):
        self.server.rules["EHLO"] = (b"250-real\r\n250-PIPELINING\r\n250-XCLIENT NAME ADDR\r\n250-XFORWARD NAME\r\n250-PIPECONNECT\r\n"
                                     b"250-X_PIPE_CONNECT\r\n250-BURL imap\r\n250-X-ANONYMOUSTLS\r\n250-X-EXPS GSSAPI NTLM\r\n"
                                     b"250-HELP\r\n250 XFORWARD\r\n")
        c = self.opened()
        self.assertEqual(c.ask(b"EHLO me"), b"250-proxy.example\r\n250-HELP\r\n250 EHLO\r\n")
        self.server.lines.clear()
        for line in (b"XCLIENT ADDR=192.0.2.1", b"xforward NAME=x", b"PIPECONNECT", b"BURL imap://x LAST", b"X-ANONYMOUSTLS",
                     b"x-exps GSSAPI"):
            self.assertEqual(c.ask(line), UNKNOWN)
        self.assertEqual(set(self.server.lines), {b"NOOP\r\n"})


class Silence(System):
    """Peers that take nothing, and clients that have gone."""

    def test_a_server_that_stops_reading(self):
        def stop(line):
            time.sleep(30)
            return b"250 late\r\n"
        self.server.rules["MAIL"] = stop
        c = self.opened()
        # More than fits into all buffers on the way.
        start = time.monotonic()
        self.assertEqual(c.ask(b"MAIL FROM:<s@example.org>"), b"")
        self.assertLess(time.monotonic() - start, 14)

    def test_clients_that_have_gone_wait_for_no_server(self):
        self.server.rules["HELP"] = lambda line: time.sleep(30) or b"214 late\r\n"
        self.proxy.change({NET + "/ConnectionTimeout": "60"})
        before = self.proxy.sockets()
        clients = [self.opened() for _ in range(5)]
        for c in clients:
            c.send(b"HELP\r\n")
        self.assertGreater(self.proxy.sockets(), before + 7)  # one of the log client may come and go
        for c in clients:
            c.reset()
        self.assertTrue(wait_until(lambda: self.proxy.sockets() <= before, 15), self.proxy.sockets())

    def work(self):
        """The processor time of the proxy, in clock ticks."""
        with open("/proc/%d/stat" % self.proxy.process.pid) as stat:
            return sum(map(int, stat.read().split()[13:15]))

    def test_half_a_line(self):
        def half_a_greeting(line):
            return b"250-and "
        self.server.rules["HELP"] = half_a_greeting
        for begin in (lambda c: c.send(b"EHL"), lambda c: c.send(b"HELP\r\n")):
            c = self.opened()
            work, start = self.work(), time.monotonic()
            begin(c)
            while c.reply():
                pass
            self.assertLess(time.monotonic() - start, 14)
            self.assertLess(self.work() - work, 50)

    def test_a_client_that_reads_nothing(self):
        self.server.rules["HELP"] = b"250-" + b"x" * 900 + b"\r\n" + (b"250-" + b"y" * 900 + b"\r\n") * 60 + b"250 end\r\n"
        before = self.proxy.sockets()
        clients = [Client(self.proxy.port) for _ in range(10)]
        for c in clients:
            c.send(b"HELP\r\n" * 400)
        self.assertTrue(wait_until(lambda: self.proxy.sockets() > before, 5))
        self.assertTrue(wait_until(lambda: self.proxy.sockets() <= before, 25), self.proxy.sockets())
        for c in clients:
            c.close()

    def scanned(self, seconds):
        """A client whose message is being scanned."""
        self.scan.answer = lambda request: time.sleep(seconds) or clean()
        c = self.ready()
        c.ask(b"DATA")
        c.send(b"text\r\n.\r\n")
        self.assertTrue(wait_until(lambda: self.scan.requests))
        return c

    def test_a_client_that_closes_during_a_scan(self):
        c = self.scanned(12)
        sockets = self.proxy.sockets()
        c.close()
        self.assertTrue(wait_until(lambda: not self.proxy.spool(), 8))
        self.assertTrue(wait_until(lambda: self.proxy.sockets() < sockets, 8))
        self.assertEqual(self.server.messages, [])

    def test_an_end_that_comes_with_the_last_bytes_is_seen_at_once(self):
        for last in (b"half a message\r\n", b"half a line", b"and more" * 5000):
            for _ in range(5):
                c = self.client()
                c.envelope()
                c.ask(b"DATA")
                c.send(last)
                c.socket.shutdown(1)
                start = time.monotonic()
                self.assertEqual(c.reply(), b"")
                self.assertLess(time.monotonic() - start, 2, last)

    def test_a_client_that_has_said_its_last_word_gets_its_message_delivered(self):
        c = self.scanned(2)
        c.send(b"QUIT\r\n")
        c.socket.shutdown(1)
        self.assertEqual(c.reply(), b"250 queued\r\n")
        self.assertTrue(c.reply().startswith(b"221"))
