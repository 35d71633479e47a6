"""Messages that come in chunks: what is taken, what reaches the server, and every way it can stop half-way."""

import itertools
import os
import resource
import time
import unittest

from harness import NET, Client, MailServer, Proxy, ScanDaemon, verdict, wait_until
from real_server import Postfix, available
from system_test import NOT_CHECKED, REJECTED, System

OK = b"250 chunk received ok\r\n"
SEQUENCE = b"503 Bad sequence of commands\r\n"
UNKNOWN = b"501 Unknown command\r\n"
ODD = b"QUIT\r\n.\r\nRSET\r\n\0\0.\nDATA\r\n\r\n.\r\nBDAT 5 LAST\r\n\r\r\n\n.\n" + bytes(range(256))


class Chunked(System):
    def begun(self):
        c = self.ready()
        self.server.lines.clear()
        self.server.messages.clear()
        return c

    def again(self, c):
        """A new envelope on a running session."""
        c.mail()
        self.server.lines.clear()
        self.server.messages.clear()

    def chunk(self, c, data, last=False, size=None):
        c.send(b"BDAT %s%s\r\n" % (size or b"%d" % len(data), b" LAST" if last else b"") + data)
        return c.reply()

    def bdats(self):
        return [line for line in self.server.lines if line.startswith(b"bdat")]


class Chunks(Chunked):
    def test_sizes_around_a_block(self):
        c = self.begun()
        for size, commands in ((0, [b"bdat 0 last \r\n"]), (1, [b"bdat 1 last \r\n"]), (32767, [b"bdat 32767 last \r\n"]),
                               (32768, [b"bdat 32768 last \r\n"]), (32769, [b"bdat 32768  \r\n", b"bdat 1 last \r\n"]),
                               (65536, [b"bdat 32768  \r\n", b"bdat 32768 last \r\n"])):
            with self.subTest(size):
                data = (ODD * (size // len(ODD) + 1))[:size]
                self.assertEqual(self.chunk(c, data, last=True), b"250 ok\r\n")
                self.assertEqual(self.bdats(), commands)
                self.assertEqual(b"".join(self.server.messages), data)
                self.in_step(c)
                self.again(c)

    def test_chunk_in_pieces_and_with_the_next_command_behind(self):
        c = self.begun()
        c.send(b"BDAT 10\r\nabc")
        time.sleep(0.1)
        c.send(b"\0\0")
        time.sleep(0.1)
        c.send(b"zzzz\nBDAT 3 LAST\r\nendVRFY behind\r\n")
        self.assertEqual([c.reply() for _ in range(3)], [OK, b"250 ok\r\n", b"250 ok\r\n"])
        self.assertEqual(b"".join(self.server.messages), b"abc\0\0zzzz\nend")

    def test_commands(self):
        for line in (b"BDAT", b"BDAT x", b"BDAT -1", b"BDAT -1 LAST", b"BDAT 5 FIRST", b"BDAT 5 LAST now", b"BDAT 00000000005",
                     b"BDAT 00000000005 LAST", b"BDAT 2147483648", b"BDAT 9999999999 LAST"):
            c = self.begun()
            self.server.lines.clear()
            self.assertEqual(c.ask(line), UNKNOWN, line)
            self.assertTrue(wait_until(lambda: self.server.lines == [b"NOOP\r\n"]), line)
        self.assertEqual(self.chunk(c, b"12345", size=b"0000000005"), OK)
        c.send(b"bdat 2 last\r\n67")
        self.assertEqual(c.reply(), b"250 ok\r\n")
        self.assertEqual(self.server.messages, [b"1234567"])

    def test_order_of_commands(self):
        c = self.begun()
        self.assertEqual(self.chunk(c, b"one"), OK)
        self.assertEqual(c.ask(b"DATA"), SEQUENCE)
        self.assertEqual(self.chunk(c, b"two", last=True), b"250 ok\r\n", "a DATA out of place costs nothing")
        self.assertEqual(self.server.messages, [b"onetwo"])
        self.assertEqual(self.chunk(c, b"RSET\r\n", last=True), SEQUENCE, "LAST twice: the envelope is gone")
        self.assertEqual(c.ask(b"MAIL FROM:<s@example.org>"), b"250 ok\r\n")
        self.assertEqual(self.chunk(c, b"QUIT\r\n"), SEQUENCE, "no recipient")
        self.assertEqual(c.ask(b"RCPT TO:<r@example.org>"), b"250 ok\r\n")
        self.assertEqual(self.chunk(c, b"three", last=True), b"250 ok\r\n")
        self.assertEqual(self.server.messages, [b"onetwo", b"three"])
        self.again(c)
        self.assertEqual(c.data(b"plain\r\n.\r\n"), b"250 queued\r\n")
        self.again(c)
        self.assertEqual(self.chunk(c, b"four", last=True), b"250 ok\r\n", "BDAT after DATA")

    def test_what_abandons_a_message(self):
        for command in (b"RSET", b"MAIL FROM:<t@example.org>", b"HELO me", b"EHLO me"):
            with self.subTest(command):
                c = self.begun()
                self.assertEqual(self.chunk(c, b"abandoned"), OK)
                self.assertTrue(c.ask(command).startswith(b"250"))
                self.again(c)
                self.assertEqual(self.chunk(c, b"first"), OK)
                self.assertEqual(len(self.proxy.spool()), 1)
                self.assertEqual(self.chunk(c, b"last", last=True), b"250 ok\r\n")
                asked = [b""] if command.startswith(b"HELO") else []  # whether it knows chunks
                self.assertEqual(self.server.messages, asked + [b"firstlast"])
                c.close()
                self.assertTrue(wait_until(lambda: not self.proxy.spool()))

    def test_only_what_the_server_offers(self):
        c = self.begun()
        self.server.rules["EHLO"] = b"250-real\r\n250 SIZE\r\n"
        other = self.ready()
        self.assertEqual(other.ask(b"BDAT 5"), UNKNOWN)
        self.assertEqual(self.chunk(c, b"five!", last=True), b"250 ok\r\n")
        third = self.opened()
        self.again(third)
        self.assertEqual(self.chunk(third, b"no EHLO", last=True), b"250 ok\r\n")

    def test_binary_sender_wants_chunks(self):
        c = self.opened()
        c.ask(b"MAIL FROM:<s@example.org> BODY=BINARYMIME")
        c.ask(b"RCPT TO:<r@example.org>")
        self.assertEqual(c.ask(b"DATA"), SEQUENCE)
        self.assertEqual(self.chunk(c, ODD, last=True), b"250 ok\r\n")
        self.assertEqual(self.server.messages, [b"", ODD], "without EHLO the server is asked whether it takes chunks")

    def test_slow_chunk_keeps_the_server_alive(self):
        c = self.begun()
        c.send(b"BDAT 3\r\n")
        for _ in range(3):
            time.sleep(0.6)
            c.send(b"x")
        self.assertEqual(c.reply(), OK)
        self.assertTrue(wait_until(lambda: self.server.lines == [b"NOOP\r\n"] * 2), self.server.lines)

    def test_one_slow_chunk_keeps_the_server_alive_while_it_comes(self):
        c = self.begun()
        c.send(b"BDAT 60 LAST\r\n")
        for _ in range(6):
            self.assertLess(self.server.lines.count(b"NOOP\r\n"), 4)
            time.sleep(0.5)
            c.send(b"x" * 9)
        self.assertGreaterEqual(self.server.lines.count(b"NOOP\r\n"), 1, "in the midst of it")
        c.send(b"x" * 6)
        self.assertEqual(c.reply(), b"250 ok\r\n")

    def test_memory_does_not_follow_the_size(self):
        def resident():
            with open("/proc/%d/statm" % self.proxy.process.pid) as f:
                return int(f.read().split()[1]) * 4096

        self.server.rules["BDAT"] = lambda line: self.server.messages.clear() or b"250 ok\r\n"
        c = self.begun()
        self.assertEqual(self.chunk(c, b"x" * 100000, last=True), b"250 ok\r\n")
        before = resident()
        self.again(c)
        size = 64 << 20
        c.send(b"BDAT %d LAST\r\n" % size)
        most = 0
        for _ in range(64):
            c.send(b"y" * (1 << 20))
            most = max(most, resident())
        self.assertEqual(c.reply(), b"250 ok\r\n")
        self.assertLess(max(most, resident()) - before, 4 << 20)


class ChunkVerdicts(Chunked):
    def test_table(self):
        redirect = dict(section_mask=1, recipients="one@x.example")
        envelope = [b"RSET\r\n", b"MAIL FROM:<s@example.org>\r\n", b"RCPT TO: one@x.example\r\n", b"bdat 5 last \r\n"]
        for name, reply, answer, lines in (("reject", verdict(4), REJECTED, [b"RSET\r\n"]),
                                           ("drop", verdict(2), b"250 ok\r\n", [b"RSET\r\n"]),
                                           ("failed", b"junk", NOT_CHECKED, [b"RSET\r\n"]),
                                           ("redirect", verdict(2, **redirect), b"250 ok\r\n", envelope),
                                           ("reject to redirects", verdict(4, **redirect), REJECTED, envelope)):
            with self.subTest(name):
                self.scan.answer = lambda request, reply=reply: reply
                c = self.begun()
                self.assertEqual(self.chunk(c, b"hello", last=True), answer)
                self.assertEqual(self.server.lines, lines)
                self.in_step(c)


class ChunkFaults(Chunked):
    def refusing(self, number, reply):
        """The server answers its chunk of that number with the reply."""
        count = itertools.count(1)
        self.server.rules["BDAT"] = lambda line: reply if next(count) == number else b"250-more\r\n250 ok\r\n"

    def test_server_refuses_a_chunk(self):
        data = b"z" * 100000  # four blocks
        for name, number, reply, answer in (("middle", 2, b"552 too big\r\n", b"552 too big\r\n"),
                                            ("first", 1, b"452-later\r\n452 full\r\n", b"452-later\r\n452 full\r\n"),
                                            ("last", 4, b"554-no\r\n554 never\r\n", b"554-no\r\n554 never\r\n")):
            with self.subTest(name):
                self.refusing(number, reply)
                c = self.begun()
                self.assertEqual(self.chunk(c, data, last=True), answer)
                self.assertEqual(len(self.bdats()), number, "none goes out behind a refusal")
                self.assertEqual(self.server.lines[-1] == b"RSET\r\n", number < 4)
                self.in_step(c)
                self.server.rules["BDAT"] = b"250 ok\r\n"
                self.again(c)
                self.assertEqual(self.chunk(c, b"next", last=True), b"250 ok\r\n")

    def test_server_that_has_not_offered_chunks_is_asked_first(self):
        # A server without BDAT would take the lines of the message for commands.
        self.server.rules["BDAT"] = b"500 what?\r\n"
        inner = b"DATA\r\nSubject: hidden\r\n\r\nx\r\n.\r\n"
        c = self.opened(b"HELO me")
        c.mail()
        c.send(b"BDAT %d LAST\r\n" % len(inner) + inner)
        self.assertEqual(c.reply(), b"500 what?\r\n")
        self.assertEqual(self.server.lines[-2:], [b"bdat 0  \r\n", b"RSET\r\n"])
        self.assertEqual(c.ask(b"VRFY x"), b"250 ok\r\n")
        self.assertEqual(self.server.messages, [b""])

    def test_a_server_that_asks_for_more_gets_nothing_of_the_message(self):
        # It would take the first line of the next block for what it has asked for.
        for greeting, first, chunk in ((b"HELO me", 0, b"x" * 9), (b"EHLO me", 32768, b"x" * 40000)):
            with self.subTest(greeting):
                self.server.rules.update(EHLO=b"250-real\r\n250 CHUNKING\r\n", BDAT=b"334 more\r\n")
                del self.server.lines[:]
                c = self.opened(greeting)
                c.mail()
                c.send(b"BDAT %d LAST\r\n" % len(chunk) + chunk)
                self.assertEqual(c.reply(), b"")
                self.assertEqual([line.split()[:2] for line in self.server.lines[3:]], [[b"bdat", b"%d" % first]])

    def test_an_offer_holds_until_the_next_greeting(self):
        # What a server offers, it offers anew in each reply to EHLO; behind HELO it may know no BDAT.
        self.server.rules["BDAT"] = b"503 not offered\r\n"
        for greeting, reply in ((b"HELO me", b"250 real\r\n"), (b"EHLO me", b"250-real\r\n250 SIZE\r\n"), (b"EHLO me", b"250 real\r\n")):
            with self.subTest(greeting + reply):
                self.server.rules.update(EHLO=b"250-real\r\n250 CHUNKING\r\n", HELO=b"250 real\r\n")
                c = self.opened()
                self.assertEqual(c.ask(b"EHLO me"), b"250-proxy.example\r\n250 CHUNKING\r\n")
                self.server.rules[greeting[:4].decode()] = reply
                self.assertTrue(c.ask(greeting).startswith(b"250"))
                self.again(c)
                self.assertEqual(self.chunk(c, b"RCPT TO:<victim@evil.test>\r\n", last=True), b"503 not offered\r\n")
                self.assertEqual(self.server.lines[-2:], [b"bdat 0  \r\n", b"RSET\r\n"])
                self.in_step(c)

    def test_server_refuses_and_goes(self):
        def answer(line):
            self.server.rules["RSET"] = None
            return b"421 closing\r\n"

        self.server.rules["BDAT"] = answer
        c = self.begun()
        self.assertEqual(self.chunk(c, b"z" * 100000, last=True), b"421 closing\r\n")
        self.assertEqual(c.reply(), b"", "the session ends")

    def test_client_stops_inside_a_chunk(self):
        ends = {"silent": lambda c: None, "closed": Client.close, "reset": Client.reset,
                "half closed": lambda c: c.socket.shutdown(1)}
        for first, (name, end) in itertools.product((b"", b"BDAT 3\r\none"), ends.items()):
            with self.subTest(name, first=first):
                c = Client(self.proxy.port)
                c.envelope()
                self.server.lines.clear()
                if first:
                    c.send(first)
                    self.assertEqual(c.reply(), OK)
                c.send(b"BDAT 2147483647 LAST\r\n" + b"begun" * 20000)
                self.assertTrue(wait_until(self.proxy.spool))
                start = time.monotonic()
                end(c)
                if name in ("silent", "half closed"):
                    self.assertEqual(c.reply(), b"")
                    self.assertLess(time.monotonic() - start, 4.5)
                    c.close()
                self.assertTrue(wait_until(lambda: not self.proxy.spool()))
                self.assertEqual(self.bdats(), [])
                self.assertEqual(self.scan.requests, [])

    def test_a_session_that_ends_between_chunks_leaves_no_file(self):
        for end in (b"QUIT", None):
            c = self.begun()
            self.assertEqual(self.chunk(c, b"abandoned"), OK)
            self.assertEqual(len(self.proxy.spool()), 1)
            if end:
                self.assertTrue(c.ask(end).startswith(b"221"))
            c.close()
            self.assertTrue(wait_until(lambda: not self.proxy.spool()))


class DiskFull(unittest.TestCase):
    """A limit on the size of a file stands for a full disk."""

    def test_chunk_and_data_are_put_off(self):
        full = b"452 Requested action not taken: insufficient system storage\r\n"
        server = MailServer()
        proxy = Proxy(server.port, start=False)
        proxy.start()
        scan = ScanDaemon(proxy.home)
        resource.prlimit(proxy.process.pid, resource.RLIMIT_FSIZE, (1 << 20, 1 << 20))
        for begin, body in ((b"BDAT 3000000 LAST\r\n", b"x" * 3000000), (b"BDAT 900000\r\n", b"x" * 900000)):
            c = Client(proxy.port)
            c.envelope()
            c.send(begin + body)
            if begin.startswith(b"BDAT 900000"):
                self.assertEqual(c.reply(), OK)
                c.send(begin + body)
            self.assertEqual(c.reply(), full)
            self.assertEqual(c.reply(), b"", "the session ends")
            c.close()
            self.assertTrue(wait_until(lambda: not proxy.spool()))
        c = Client(proxy.port)
        c.envelope()
        self.assertEqual(c.data((b"x" * 70 + b"\r\n") * 30000 + b".\r\n"), full)
        c.close()
        self.assertTrue(wait_until(lambda: not proxy.spool()))
        self.assertEqual(server.messages, [])
        self.assertEqual(scan.requests, [])
        proxy.stop()
        scan.close()
        server.close()


@unittest.skipUnless(available(), "needs root and Postfix")
class RealServer(unittest.TestCase):
    """A server that speaks CHUNKING itself: the message in the mailbox is the one that was sent."""

    HEADER = b"From: s@example.org\r\nSubject: chunks\r\n\r\n"

    def setUp(self):
        self.server = Postfix(limit=2000000)
        self.addCleanup(self.server.close)
        self.proxy = Proxy(self.server.port, {NET + "/TimeoutBetweenNOOPs": "5", NET + "/ConnectionTimeout": "20"})
        self.addCleanup(self.proxy.stop)
        self.scan = ScanDaemon(self.proxy.home)
        self.addCleanup(self.scan.close)

    def client(self):
        c = Client(self.proxy.port)
        self.addCleanup(c.close)
        c.envelope()
        return c

    def expect_message(self, sent):
        path = self.server.next_message()
        with open(path, "rb") as f:
            stored = f.read()
        os.unlink(path)
        # The server puts its own lines in front, and keeps lines with a line feed.
        self.assertTrue(stored.endswith(b"\n" + sent.replace(b"\r\n", b"\n")), "the message has changed")

    def test_byte_for_byte(self):
        # Lines as the server keeps them: no longer than 998 bytes, CR only in front of LF.
        body = (b".\r\n..\r\nQUIT\r\nBDAT 5 LAST\r\n\r\n.\r\n" + bytes(set(range(1, 256)) - {10, 13}) + b"\r\n") * 800
        message = self.HEADER + body
        self.assertGreater(len(message), 200000)
        for size in (len(message), 32768, 32769, 5000, 700):
            with self.subTest(size):
                c = self.client()
                for at in range(0, len(message), size):
                    part = message[at:at + size]
                    last = at + size >= len(message)
                    c.send(b"BDAT %d%s\r\n" % (len(part), b" LAST" if last else b"") + part)
                    reply = c.reply()
                    self.assertTrue(reply.startswith(b"250 2.0.0 Ok" if last else OK), reply)
                self.expect_message(message)
                self.assertTrue(c.ask(b"QUIT").startswith(b"221"))

    def test_message_over_the_servers_limit(self):
        c = self.client()
        message = self.HEADER + b"too long\r\n" * 300000
        c.send(b"BDAT %d LAST\r\n" % len(message) + message)
        reply = c.reply()
        self.assertRegex(reply, rb"^5\d\d .*\r\n$")
        self.assertTrue(c.ask(b"NOOP").startswith(b"250"), "replies are in step")
        self.assertEqual(self.server.delivered(), [])
