"""The proxy as its users meet it: dialogue, messages, verdicts, faults of every side, stop and reload."""

import os
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest

from harness import BIN, NET, Client, MailServer, Proxy, ScanDaemon, clean, free_port, verdict, wait_until

REJECTED = b"550 Rejected by Vantrel.\r\n"
NOT_CHECKED = b"451 4.3.0 Message could not be checked, try again later\r\n"


class System(unittest.TestCase):
    keys = {}

    def setUp(self):
        self.server = MailServer()
        self.proxy = Proxy(self.server.port, self.keys)
        self.scan = ScanDaemon(self.proxy.home)

    def tearDown(self):
        self.assertTrue(self.proxy.alive(), "the proxy has died")
        self.assertTrue(wait_until(lambda: not self.proxy.spool()), self.proxy.spool())
        self.scan.close()
        code, output = self.proxy.stop()
        self.server.close()
        self.assertEqual(code, 1, output)
        self.assertNotIn(b"Sanitizer", output)

    def client(self):
        client = Client(self.proxy.port)
        self.addCleanup(client.close)
        return client

    def opened(self, *lines):
        """A client that has been greeted, and has said these."""
        client = self.client()
        client.reply()
        for line in lines:
            client.ask(line)
        return client

    def ready(self):
        """A client with an envelope."""
        client = self.client()
        client.envelope()
        return client

    def greeting(self):
        client = self.client()
        reply = client.reply()
        client.close()
        return reply

    def in_step(self, client):
        self.assertEqual(client.ask(b"VRFY step"), b"250 ok\r\n")
        self.assertEqual(self.server.lines[-1], b"VRFY step\r\n")


class Dialogue(System):
    def test_replies_are_rewritten_and_filtered(self):
        c = self.client()
        self.assertEqual(c.reply(), b"220 proxy.example ESMTP Vantrel Proxy\r\n")
        self.assertEqual(c.ask(b"EHLO me"), b"250-proxy.example\r\n250-SIZE 1000000\r\n250-CHUNKING\r\n250 8BITMIME\r\n")
        self.assertEqual(c.ask(b"HELO me"), b"250 proxy.example ESMTP Vantrel Proxy, pleased to meet you\r\n")
        self.assertEqual(c.ask(b"NOOP"), b"250 ok\r\n")
        self.assertEqual(c.ask(b"QUIT"), b"221 proxy.example ESMTP Vantrel Proxy closing connection\r\n")
        self.assertEqual(c.reply(), b"")

    def test_a_withheld_last_line_still_ends_the_reply(self):
        for last in (b"250 STARTTLS\r\n", b"250\tSTARTTLS\r\n", b"250: PIPELINING\r\n"):
            self.server.rules["EHLO"] = b"250-real\r\n250-SIZE\r\n" + last
            c = self.opened()
            self.assertEqual(c.ask(b"EHLO me"), b"250-proxy.example\r\n250-SIZE\r\n250 EHLO\r\n", last)

    def test_a_challenge_that_no_command_has_asked_for(self):
        """What comes next is taken for its answer, and the proxy lives on."""
        usual = self.server.rules
        for verb in ("END", "GREETING"):
            self.server.rules = {**usual, verb: b"334 Q2hhbGxlbmdl\r\n"}
            c = self.client()
            if verb == "END":
                c.envelope()
                c.data(b"text\r\n.\r\n")
            else:
                c.reply()
            c.send(b"QW5zd2Vy\r\n")
            self.assertTrue(wait_until(lambda: b"QW5zd2Vy\r\n" in self.server.lines), verb)
            self.server.lines.clear()

    def test_replies_of_several_lines_stay_in_step(self):
        self.server.rules.update(GREETING=b"220-one\r\n220-two\r\n220 three\r\n", HELO=b"250-a\r\n250 b\r\n",
                                 MAIL=b"250-x\r\n250 y\r\n", RCPT=b"250-x\r\n250 y\r\n",
                                 EHLO=b"250-real\r\n250-SIZE\r\n250 PIPELINING\r\n", QUIT=b"221-a\r\n221 b\r\n")
        c = self.client()
        self.assertEqual(c.reply(), b"220 proxy.example ESMTP Vantrel Proxy\r\n")
        self.assertEqual(c.ask(b"EHLO me"), b"250-proxy.example\r\n250-SIZE\r\n250 EHLO\r\n")
        self.assertTrue(c.ask(b"HELO me").startswith(b"250 proxy.example"))
        self.assertEqual(c.ask(b"MAIL FROM:<s@example.org>"), b"250-x\r\n250 y\r\n")
        self.assertEqual(c.ask(b"RCPT TO:<r@example.org>"), b"250-x\r\n250 y\r\n")
        self.assertEqual(c.data(b"hello\r\n.\r\n"), b"250 queued\r\n")
        self.assertEqual(self.scan.requests[0].count(b"r@example.org"), 1, "confirmed once")
        self.assertTrue(c.ask(b"QUIT").startswith(b"221 proxy.example"))

    def test_commands_answered_here_never_reach_the_server(self):
        for line, reply in ((b"DATA", b"503 Bad sequence of commands\r\n"), (b"DATA now", b"501 Unknown command\r\n"),
                            (b"BDAT x", b"501 Unknown command\r\n"), (b"BDAT 12345678901", b"501 Unknown command\r\n"),
                            (b"RCPT TO:<u@elsewhere.example>", b"550 Unable to relay\r\n"),
                            (b"RCPT TO:<u%elsewhere.example@example.org>", b"550 Unable to relay\r\n"),
                            (b"NO\0OP", b"501 Unknown command\r\n"), (b"BURL imap://x LAST", b"501 Unknown command\r\n"),
                            (b"NOOP\rRCPT TO:<u@elsewhere.example>", b"501 Unknown command\r\n")):
            c = self.opened()
            self.server.lines.clear()
            self.assertEqual(c.ask(line), reply, line)
            self.assertTrue(wait_until(lambda: self.server.lines == [b"NOOP\r\n"]), line)
        before = len(self.server.lines)
        c.send(b"\r\n\n")
        self.assertEqual(c.ask(b"VRFY x"), b"250 ok\r\n")
        self.assertEqual(self.server.lines[before:], [b"VRFY x\r\n"], "blank lines go nowhere")


class Messages(System):
    def deliver(self, body):
        c = self.ready()
        self.assertTrue(c.ask(b"DATA").startswith(b'354 Enter mail, end with "." on a line by itself'))
        c.send(body)
        return c

    def test_bodies(self):
        cases = {"plain": (b"a\r\n.\r\n", b"a\r\n\r\n"), "stuffed": (b"..x\r\n.\r\n", b"..x\r\n\r\n"),
                 "zero": (b"a\0b\r\n.\r\n", b"a\0b\r\n\r\n"), "alone": (b".\r\n", b"\r\n"), "lf": (b"a\n.\n", b"a\n\r\n")}
        for name, (sent, got) in cases.items():
            with self.subTest(name):
                c = self.deliver(sent)
                self.assertEqual(c.reply(), b"250 queued\r\n")
                self.assertEqual(self.server.messages[-1], got)

    def test_no_message_hides_in_another(self):
        """Whatever a server takes for the end of a message: nothing behind it becomes a command there."""
        hidden = b"MAIL FROM:<evil@example.org>\r\nRCPT TO:<victim@example.org>\r\nDATA\r\nhidden\r\n"
        for sent, got in ((b".\r\n", b"..\r\n"), (b".\n", b"..\n"), (b"a\r\n.\r\n", b"a\r\n..\r\n"), (b"a\n.\r\n", b"a\n..\r\n"),
                          (b"a\r\n.\n", b"a\r\n..\n"), (b"a\n.\n", b"a\n..\n")):
            with self.subTest(sent):
                count = len(self.server.messages)
                c = self.deliver(sent + hidden + b"\r\n.\r\n")
                self.assertEqual(c.reply(), b"250 queued\r\n")
                self.assertEqual(self.server.messages[count:], [got + hidden + b"\r\n\r\n"])
                self.in_step(c)

    def test_large_and_many_in_one_session(self):
        c = self.ready()
        for size in (32767, 32768, 65536, 3000000):
            body = (b"0123456789" * 7 + b"\r\n") * (size // 72)
            self.assertEqual(c.data(body + b".\r\n"), b"250 queued\r\n")
            self.assertEqual(self.server.messages[-1], body + b"\r\n")
            c.mail()


class Verdicts(System):
    def test_table(self):
        redirect = dict(section_mask=1, recipients="one@x.example;two@x.example")
        cases = [  # name, reply of the daemon, the client's answer, what the server got
            ("forward", clean(), b"250 queued\r\n", 1, []),
            ("reject", verdict(4), REJECTED, 0, [b"RSET\r\n"]),
            ("no bit", verdict(0), REJECTED, 0, [b"RSET\r\n"]),
            ("drop", verdict(2), b"250 ok\r\n", 0, [b"RSET\r\n"]),
            ("forward and reject", verdict(5), REJECTED, 0, [b"RSET\r\n"]),
            ("redirect", verdict(2, **redirect), b"250 queued\r\n", 1,
             [b"RSET\r\n", b"MAIL FROM:<s@example.org>\r\n", b"RCPT TO: one@x.example\r\n", b"RCPT TO: two@x.example\r\n"]),
            ("reject to redirects", verdict(4, **redirect), REJECTED, 1,
             [b"RSET\r\n", b"MAIL FROM:<s@example.org>\r\n", b"RCPT TO: one@x.example\r\n", b"RCPT TO: two@x.example\r\n"]),
            ("copy", verdict(1, section="Antispam", section_mask=2, recipients=";c@x.example,"), b"250 queued\r\n", 1,
             [b"RCPT TO: c@x.example\r\n"]),
            ("wrong bit", verdict(1, section="Antispam", section_mask=1, recipients="c@x.example"), b"250 queued\r\n", 1, []),
        ]
        for name, reply, answer, delivered, lines in cases:
            with self.subTest(name):
                self.scan.answer = lambda request, reply=reply: reply
                c = self.ready()
                mark, messages = len(self.server.lines), len(self.server.messages)
                self.assertEqual(c.data(b"hello\r\n.\r\n"), answer)
                self.assertEqual(len(self.server.messages) - messages, delivered)
                self.assertEqual(self.server.lines[mark:], lines + ([b"DATA\r\n"] if delivered else []))
                self.assertEqual(c.ask(b"NOOP"), b"250 ok\r\n", "replies are in step")

    def test_a_sender_never_hears_of_a_dropped_message(self):
        self.scan.answer = lambda request: verdict(2)
        self.server.rules["RSET"] = b"554 Too many nonmail commands\r\n"
        c = self.ready()
        self.assertEqual(c.data(b"hello\r\n.\r\n"), b"250 2.0.0 Ok\r\n")
        self.assertEqual(c.reply(), b"", "the server has had enough of this session")
        self.assertEqual(self.server.messages, [])

    def test_failed_scans_are_put_off_and_the_session_goes_on(self):
        answers = {"no data": b"2.0LIPCNOREPLY\0", "junk": b"junk", "no mask": b"\x10" + b"\0" * 15, "closed": None}
        for name, reply in answers.items():
            with self.subTest(name):
                self.scan.answer = lambda request, reply=reply: reply
                c = self.ready()
                self.assertEqual(c.data(b"hello\r\n.\r\n"), NOT_CHECKED)
                self.assertEqual(self.server.messages, [])
                self.scan.answer = lambda request: clean()
                c.mail()
                self.assertEqual(c.data(b"again\r\n.\r\n"), b"250 queued\r\n")
                self.server.messages.clear()

    def test_late_server_is_not_read_one_reply_behind(self):
        def noop(_):
            time.sleep(6.5)  # beyond the limit of a reply
            return b"250 late\r\n"
        self.server.rules["NOOP"] = noop
        self.scan.answer = lambda request: time.sleep(3) or clean()
        c = self.ready()
        self.assertEqual(c.data(b"hello\r\n.\r\n"), b"", "the session ends; the client keeps its message")
        self.assertNotIn(b"RSET\r\n", self.server.lines)
        self.assertEqual(self.server.messages, [])

    def test_changed_and_missing_files(self):
        def path(request):
            at = request.index(b"/tmp/VTNP/")
            return request[request.rindex(b"\0", 0, at) + 1:request.index(b"\0", at)].decode()

        def change(request):
            with open(path(request), "wb") as f:
                f.write(b"disinfected\r\n")
            return clean()

        self.scan.answer = change
        c = self.ready()
        self.assertEqual(c.data(b"hello\r\n.\r\n"), b"250 queued\r\n")
        self.assertEqual(self.server.messages, [b"disinfected\r\n\r\n"])
        self.scan.answer = lambda request: os.unlink(path(request)) or clean()
        c.mail()
        self.assertEqual(c.data(b"hello\r\n.\r\n"), b"250 ok\r\n")
        self.assertEqual(self.server.lines[-1], b"RSET\r\n")


class Faults(System):
    def test_clients_that_vanish_at_each_point_leave_nothing(self):
        steps = [b"EHLO me\r\n", b"MAIL FROM:<s@example.org>\r\n", b"RCPT TO:<r@example.org>\r\n", b"DATA\r\n",
                 b"half a message\r\n", b"and more" * 5000]
        warm = self.ready()
        self.assertEqual(warm.data(b"x\r\n.\r\n"), b"250 queued\r\n")
        time.sleep(1)  # the threads that send the first lines of the log come late
        before, threads = self.proxy.descriptors(), self.proxy.threads()
        for count in range(len(steps) + 1):
            for hard in (False, True):
                c = Client(self.proxy.port)
                c.reply()
                for step in steps[:count]:
                    c.send(step)
                    if step[-2:] == b"\r\n" and not step.startswith(b"half"):
                        c.reply()
                c.reset() if hard else c.close()
        self.assertTrue(wait_until(lambda: self.proxy.threads() <= threads), self.proxy.threads())
        self.assertTrue(wait_until(lambda: self.proxy.descriptors() <= before), self.proxy.descriptors())
        self.assertEqual(len(self.server.messages), 1)
        self.assertEqual(warm.ask(b"NOOP"), b"250 ok\r\n", "another session is unaffected")

    def test_servers_that_fail_at_each_point(self):
        for verb, failure in (("GREETING", b""), ("MAIL", None), ("RCPT", None), ("DATA", None), ("END", None), ("NOOP", None),
                              ("MAIL", MailServer.RESET), ("RCPT", MailServer.RESET),
                              ("DATA", MailServer.RESET), ("NOOP", MailServer.RESET)):
            with self.subTest(verb + str(failure)):
                kept = dict(self.server.rules)
                self.server.rules[verb] = failure
                c = Client(self.proxy.port, 20)
                try:
                    c.reply()
                    for line in (b"MAIL FROM:<s@example.org>", b"RCPT TO:<r@elsewhere.example>", b"RCPT TO:<r@example.org>", b"DATA"):
                        if not c.ask(line):
                            break
                    else:
                        c.send(b"text\r\n.\r\n")
                        self.assertEqual(c.reply(), b"")
                except OSError:
                    pass
                c.close()
                self.server.rules = kept
        other = self.ready()
        self.assertEqual(other.data(b"x\r\n.\r\n"), b"250 queued\r\n")

    def test_junk(self):
        for junk in (b"\0" * 100000, bytes(range(256)) * 400, b"x" * 10000000, b"\r" * 1000 + b"\n" * 1000, b"\xff\xfe\n" * 500):
            c = Client(self.proxy.port, 5)
            try:
                c.reply()
                c.send(junk)
                c.socket.settimeout(0.3)
                c.socket.recv(65536)
            except OSError:
                pass
            c.reset()

    def test_no_scan_daemon_then_one(self):
        self.scan.close()
        c = self.ready()
        self.assertEqual(c.data(b"hello\r\n.\r\n"), NOT_CHECKED)
        self.scan = ScanDaemon(self.proxy.home)
        c.mail()
        self.assertEqual(c.data(b"hello\r\n.\r\n"), b"250 queued\r\n")

    def test_a_byte_a_second_holds_nobody_else_up(self):
        slow = self.opened()
        before = time.monotonic()
        for byte in b"NOOP\r\n":
            slow.send(bytes([byte]))
            time.sleep(1)
            other = self.ready()
            self.assertEqual(other.data(b"x\r\n.\r\n"), b"250 queued\r\n")
        self.assertEqual(slow.reply(), b"250 ok\r\n")
        self.assertGreater(time.monotonic() - before, 5, "longer than the limit of one wait")

    def test_silent_client_is_given_up(self):
        c = self.ready()
        c.ask(b"DATA")
        c.send(b"begun\r\n")
        start = time.monotonic()
        self.assertEqual(c.reply(), b"")
        self.assertGreater(time.monotonic() - start, 3)


class Host(System):
    keys = {NET + "/MaxThreads": "2"}

    def test_limit_of_sessions(self):
        held = []

        def hold():
            held.append(self.client())
            if not held[-1].reply().startswith(b"220"):
                held.pop().close()  # the session of the look whether it listens has not ended yet
            return len(held) == 2
        self.assertTrue(wait_until(hold))
        c = self.client()
        self.assertEqual(c.reply(), b"421 The server has reached the maximum number of threads allowed\r\n")
        held[0].close()

        def admitted():
            c = self.client()
            return c.reply().startswith(b"220")
        self.assertTrue(wait_until(admitted))

    def test_a_burst_is_no_way_past_the_limit(self):
        """All are there before the first session has begun."""
        self.assertTrue(wait_until(lambda: self.client().reply()[:3] == b"220"))
        for _ in range(3):
            time.sleep(0.5)  # the sessions of the round before have ended
            clients = [self.client() for _ in range(100)]
            self.assertLessEqual([c.reply()[:3] for c in clients].count(b"220"), 2)
            for c in clients:
                c.close()

    def test_an_interface_without_a_proper_address_takes_no_port(self):
        for text in ("rubbish", "255.255.255.255", "5"):
            with self.subTest(text):
                port = free_port()
                other = NET[:NET.rindex("/")]
                self.proxy.load({other + "/a/IPAddress": text, other + "/a/Port": str(port),
                                 other + "/zz/IPAddress": "", other + "/zz/Port": str(port),
                                 other + "/zz/ServerToForward": "127.0.0.1:%d" % self.server.port})
                def greeted():
                    try:
                        with socket.create_connection(("127.0.0.1", port), 2) as client:
                            return client.recv(3) == b"220"
                    except OSError:
                        return False
                self.assertTrue(wait_until(greeted))
                self.proxy.tool("del", other + "/zz")

    def test_a_new_store_is_opened_by_many_at_once(self):
        for _ in range(5):
            with tempfile.TemporaryDirectory() as home:
                env = dict(os.environ, VANTREL_HOME=home)
                tools = [subprocess.Popen([BIN + "/vtregistry", "set", "/a/%d" % i, "x"], env=env, stderr=subprocess.PIPE)
                         for i in range(12)]
                self.assertEqual([tool.communicate()[1] for tool in tools], [b""] * len(tools))

    def test_a_command_that_waits_is_ended_by_a_signal(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            tool = subprocess.Popen([BIN + "/vtregistry", "load"], env=self.proxy.env, stdin=subprocess.PIPE)
            time.sleep(0.3)
            tool.send_signal(number)
            self.assertEqual(tool.wait(10), -number)
            tool.stdin.close()

    def test_reload_keeps_running_sessions(self):
        c = self.opened()
        port = free_port()
        other = MailServer(GREETING=b"554 other\r\n")
        self.proxy.load({NET + "/Port": str(port), NET + "/ServerToForward": "127.0.0.1:%d" % other.port})
        self.proxy.port = port
        self.assertTrue(wait_until(self.proxy.listening))
        self.assertEqual(c.ask(b"NOOP"), b"250 ok\r\n")
        c.close()
        self.assertTrue(wait_until(lambda: self.client().reply() == b"554 other\r\n"))
        other.close()


class Stop(unittest.TestCase):
    def test_idle_sessions_end_and_a_message_in_hand_is_finished(self):
        server = MailServer()
        proxy = Proxy(server.port)
        started = threading.Event()
        scan = ScanDaemon(proxy.home, lambda request: started.set() or time.sleep(6) or clean())
        idle, busy = Client(proxy.port), Client(proxy.port)
        idle.reply()
        busy.envelope()
        busy.ask(b"DATA")
        busy.send(b"in hand\r\n.\r\n")
        self.assertTrue(started.wait(15))
        proxy.process.send_signal(signal.SIGTERM)
        start = time.monotonic()
        self.assertEqual(idle.reply(), b"")
        self.assertLess(time.monotonic() - start, 5)
        self.assertEqual(busy.reply(), b"250 queued\r\n")
        self.assertEqual(proxy.process.wait(20), 1)
        code, output = proxy.stop()
        self.assertEqual(output, b"Debugging Vantrel SMTP Proxy.\nStopping Vantrel SMTP Proxy.\n")
        for each in (idle, busy, scan, server):
            each.close()

    def test_second_signal_ends_at_once(self):
        server = MailServer()
        proxy = Proxy(server.port)
        scan = ScanDaemon(proxy.home, lambda request: time.sleep(8) or clean())
        busy = Client(proxy.port)
        busy.envelope()
        busy.ask(b"DATA")
        busy.send(b"in hand\r\n.\r\n")
        wait_until(lambda: scan.requests)
        proxy.process.send_signal(signal.SIGINT)
        time.sleep(0.3)
        self.assertTrue(proxy.alive())
        proxy.process.send_signal(signal.SIGINT)
        self.assertEqual(proxy.process.wait(6), 1)
        proxy.stop()
        for each in (busy, scan, server):
            each.close()
