"""The pre-filters in the running proxy: who is refused and how, and that a change is judged by at once."""

import time
import unittest

from harness import NET, Client, MailServer, Proxy, wait_until
from system_test import System

AS = "/VTWIN/Filters/AS"
DEFAULT = b"550 5.7.1 Message Rejected\r\n"


class Filters(System):
    def change(self, key, value):
        """Judged by at the very next check: nothing is waited for."""
        done = self.proxy.tool("set", AS + key, value)
        self.assertEqual(done.returncode, 0, done.stderr)

    def greeted(self):
        c = self.client()
        self.assertTrue(c.reply().startswith(b"220"))
        return c


class Peers(Filters):
    keys = {AS + "/AllowDenyIPList/Enabled": "Y", AS + "/AllowDenyIPList/Addresses/other/IP": "10.0.0.1",
            AS + "/AllowDenyIPList/Addresses/other/Action": "2"}

    def test_denied_peer_gets_no_byte_and_reaches_no_server(self):
        self.greeted()
        self.change("/AllowDenyIPList/Addresses/loopback/IP", "127.0.0.0")
        self.change("/AllowDenyIPList/Addresses/loopback/Mask", "255.0.0.0")
        self.greeted()
        self.change("/AllowDenyIPList/Addresses/loopback/Action", "2")
        before = self.server.connections
        for _ in range(3):
            self.assertEqual(self.client().reply(), b"")
        self.assertEqual(self.server.connections, before)
        self.change("/AllowDenyIPList/Addresses/a-friend/IP", "127.0.0.1")
        self.change("/AllowDenyIPList/Addresses/a-friend/Action", "1")
        self.greeted()
        self.change("/AllowDenyIPList/Addresses/a-friend/Action", "2")
        self.assertEqual(self.client().reply(), b"")
        self.change("/AllowDenyIPList/Enabled", "N")
        self.greeted()


class Senders(Filters):
    keys = {AS + "/SenderBlackList/Enabled": "Y", AS + "/SenderBlackList/EnabledSendDenyMessage": "Y",
            AS + "/SenderBlackList/DenyMessage": "550 not you", AS + "/SenderBlackList/UsersList/1": "Bad@x.example",
            AS + "/SenderBlackList/WildcardsList/1": "*@spam.*"}

    def test_listed_senders_are_refused_and_the_session_goes_on(self):
        c = self.greeted()
        self.server.lines.clear()
        for line in (b"MAIL FROM:<bad@X.example>", b"mail from: <bad@x.example> SIZE=1", b"SOML FROM:<bad@x.example>",
                     b"MAIL FROM:<any@SPAM.example>"):
            self.assertEqual(c.ask(line), b"550 not you\r\n", line)
            self.assertTrue(wait_until(lambda: set(self.server.lines) <= {b"NOOP\r\n"}), self.server.lines)
        self.assertEqual(c.ask(b"RCPT TO:<r@example.org>"), b"250 ok\r\n")
        c.send(b"DATA\r\n")
        self.assertEqual(c.reply(), b"503 Bad sequence of commands\r\n", "no sender was accepted")
        self.assertEqual(c.ask(b"MAIL FROM:<good@x.example>"), b"250 ok\r\n")
        self.assertEqual(c.ask(b"MAIL <bad@x.example>"), b"550 5.7.1 Message Rejected\r\n", "a sender to some servers")
        self.assertEqual(c.ask(b"RCPT TO:<r@example.org>"), b"250 ok\r\n")
        self.assertEqual(c.data(b"hello\r\n.\r\n"), b"250 queued\r\n")
        self.assertIn(b"MAIL FROM:<good@x.example>\r\n", self.server.lines, "the line passes unchanged")

    def test_drop(self):
        self.change("/SenderBlackList/EnabledDropConnection", "Y")
        c = self.greeted()
        self.assertEqual(c.ask(b"MAIL FROM:<bad@x.example>"), b"550 not you\r\n")
        self.assertEqual(c.reply(), b"", "the session ends")
        self.assertNotIn(b"MAIL FROM:<bad@x.example>\r\n", self.server.lines)
        self.change("/SenderBlackList/EnabledSendDenyMessage", "N")
        self.assertEqual(self.greeted().ask(b"MAIL FROM:<bad@x.example>"), b"")

    def test_running_sessions_judge_by_a_change_at_once(self):
        sessions = [self.greeted() for _ in range(50)]
        for round_ in range(4):
            on = round_ % 2 == 0
            self.change("/SenderBlackList/UsersList/new", "new@x.example" if on else "gone@x.example")
            for c in sessions:
                self.assertEqual(c.ask(b"MAIL FROM:<new@x.example>"), b"550 not you\r\n" if on else b"250 ok\r\n")
        self.change("/SenderBlackList/Enabled", "N")
        for c in sessions:
            self.assertEqual(c.ask(b"MAIL FROM:<bad@x.example>"), b"250 ok\r\n")


class Guard(Filters):
    keys = {AS + "/DirectoryHarvesting/Enabled": "Y", AS + "/DirectoryHarvesting/EnabledSendDenyMessage": "Y",
            AS + "/DirectoryHarvesting/DenyMessage": "550 too curious", AS + "/DirectoryHarvesting/ResponseTimeout": "1",
            NET + "/MailDomains/b": "second.example", NET + "/RelayNetworks/l/IPAddress": "127.0.0.0",
            NET + "/RelayNetworks/l/Mask": "255.0.0.0"}

    def setUp(self):
        super().setUp()
        self.server.rules["RCPT"] = lambda line: b"250 ok\r\n" if b"known@" in line else b"550-no such\r\n550 user\r\n"

    def probe(self, recipient):
        c = self.greeted()
        c.ask(b"MAIL FROM:<s@example.org>")
        start = time.monotonic()
        return c, c.ask(b"RCPT TO:<" + recipient + b">"), time.monotonic() - start

    def test_unknown_recipients_cost_the_delay_and_the_session(self):
        for recipient in (b"who@example.org", b"who@SECOND.example"):
            c, reply, seconds = self.probe(recipient)
            self.assertEqual(reply, b"550 too curious\r\n")
            self.assertTrue(1 <= seconds < 10, seconds)
            self.assertEqual(c.reply(), b"", "the session ends")

    def test_what_the_guard_leaves_alone(self):
        c, reply, seconds = self.probe(b"known@example.org")
        self.assertEqual(reply, b"250 ok\r\n")
        self.assertEqual(c.ask(b"RCPT TO:<who@elsewhere.example>"), b"550-no such\r\n550 user\r\n")
        self.assertLess(seconds, 1)
        self.server.rules["RCPT"] = b"551 moved\r\n"
        self.assertEqual(c.ask(b"RCPT TO:<who@example.org>"), b"551 moved\r\n")
        self.server.rules["VRFY"] = b"550 no\r\n"
        self.assertEqual(c.ask(b"VRFY who@example.org"), b"550 no\r\n")
        self.change("/DirectoryHarvesting/Enabled", "N")
        self.server.rules["RCPT"] = b"550 no\r\n"
        self.assertEqual(c.ask(b"RCPT TO:<who@example.org>"), b"550 no\r\n")
        self.assertEqual(c.ask(b"NOOP"), b"250 ok\r\n")

    def test_delays_run_side_by_side(self):
        sessions = [self.greeted() for _ in range(10)]
        for c in sessions:
            c.ask(b"MAIL FROM:<s@example.org>")
        start = time.monotonic()
        for c in sessions:
            c.send(b"RCPT TO:<who@example.org>\r\n")
        for c in sessions:
            self.assertEqual(c.reply(), b"550 too curious\r\n")
        self.assertLess(time.monotonic() - start, 8)  # ten of a second each


class GuardAndStop(unittest.TestCase):
    def test_a_stop_does_not_wait_for_a_delay(self):
        server = MailServer(RCPT=b"550 no\r\n")
        proxy = Proxy(server.port, {AS + "/DirectoryHarvesting/Enabled": "Y", AS + "/DirectoryHarvesting/ResponseTimeout": "30",
                                    AS + "/DirectoryHarvesting/EnabledSendDenyMessage": "Y"})
        c = Client(proxy.port)
        c.reply()
        c.ask(b"MAIL FROM:<s@example.org>")
        c.send(b"RCPT TO:<who@example.org>\r\n")
        time.sleep(0.3)
        proxy.process.terminate()
        self.assertEqual(proxy.process.wait(15), 1)
        self.assertEqual(c.reply(), b"")
        code, output = proxy.stop()
        self.assertNotIn(b"Sanitizer", output)
        for each in (c, server):
            each.close()


class Events(unittest.TestCase):
    def test_each_refusal_is_in_the_statistics(self):
        server = MailServer(RCPT=b"550 no\r\n")
        proxy = Proxy(server.port, {
            AS + "/AllowDenyIPList/Enabled": "Y", AS + "/SenderBlackList/Enabled": "Y",
            AS + "/SenderBlackList/EnabledDropConnection": "Y", AS + "/SenderBlackList/UsersList/1": "bad@x.example",
            AS + "/DirectoryHarvesting/Enabled": "Y", AS + "/DirectoryHarvesting/ResponseTimeout": "1"}, start=False)
        proxy.statistics()
        proxy.start()
        c = Client(proxy.port)
        c.reply()
        self.assertEqual(c.ask(b"MAIL FROM:<Bad@x.example>"), b"")
        c.close()
        c = Client(proxy.port)
        c.reply()
        c.ask(b"MAIL FROM:<s@x.example>")
        c.ask(b"RCPT TO:<Who@example.org>")
        c.close()
        for name, value in (("IP", "127.0.0.1"), ("Action", "2")):
            proxy.tool("set", AS + "/AllowDenyIPList/Addresses/a/" + name, value)
        self.assertEqual(Client(proxy.port).reply(), b"")

        def rows():
            return sorted(proxy.records("event_code, source_host, agent_id, service_id, action_mask, object_status, sender, recipients"))
        self.assertTrue(wait_until(lambda: len(rows()) == 3), rows())
        same = (0x0100007F, 4, 22, 62, 30)
        self.assertEqual(rows(), [(80, *same, None, None), (81, *same, "bad@x.example", None),
                                  (82, *same, "s@x.example", "Who@example.org")])
        proxy.stop()
        server.close()
