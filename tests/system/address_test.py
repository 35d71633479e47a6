"""IPv6 beside IPv4, on both sides of the proxy; which server a session gets, and what its client hears where there is none."""

import contextlib
import os
import signal
import socket
import time
import unittest

from harness import NET, Client, MailServer, Proxy, ScanDaemon, free_port, wait_until

IP_LIST = "/VTWIN/Filters/AS/AllowDenyIPList/"
V4, V6 = "127.0.0.1", "::1"


def outage(words):
    return b"421 4.3.2 proxy.example " + words + b", try again later\r\n"


REFUSED, SILENT = outage(b"Mail server takes no connection"), outage(b"Mail server does not answer")
UNKNOWN, CLOSED = outage(b"Mail server not found"), outage(b"Mail server closed the connection")
STOPPING = outage(b"Service is stopping")


class Swallower:
    """A port that never answers: its queue of connections is full."""

    def __init__(self, host=V4):
        family = socket.AF_INET6 if ":" in host else socket.AF_INET
        self.listener = socket.socket(family)
        self.listener.bind((host, 0))
        self.listener.listen(0)
        self.port = self.listener.getsockname()[1]
        self.held = []
        while True:
            waiting = socket.socket(family)
            self.held.append(waiting)
            waiting.settimeout(0.3)
            try:
                waiting.connect((host, self.port))
            except TimeoutError:
                break

    def close(self):
        for each in (*self.held, self.listener):
            each.close()


class Case(unittest.TestCase):
    def serve(self, **rules):
        server = MailServer(**rules)
        self.addCleanup(server.close)
        return server

    def run_proxy(self, port, keys=None, **options):
        self.proxy = Proxy(port, keys, **options)
        self.addCleanup(self.end, self.proxy)
        return self.proxy

    def end(self, proxy):
        code, output = proxy.stop()
        self.assertIn(code, (None, 1), output)
        self.assertNotIn(b"Sanitizer", output)

    def client(self, host=None, timeout=15):
        client = Client(self.proxy.port, timeout, host or self.proxy.host)
        self.addCleanup(client.close)
        return client

    def greeting(self, host=None):
        with contextlib.closing(Client(self.proxy.port, 15, host or self.proxy.host)) as client:
            return client.reply()

    def change(self, **keys):
        self.proxy.change({NET + "/" + key: value for key, value in keys.items()})


class Families(Case):
    def deliver(self, host):
        c = self.client(host)
        c.envelope()
        self.assertEqual(c.data(b"hello\r\n.\r\n"), b"250 queued\r\n")
        c.close()

    def test_ipv6_from_end_to_end(self):
        server = self.serve(host=V6)
        proxy = self.run_proxy(0, {NET + "/IPAddress": V6, NET + "/ServerToForward": "[::1]:%d" % server.port})
        scan = ScanDaemon(proxy.home)
        self.addCleanup(scan.close)
        self.deliver(V6)
        self.assertEqual(server.messages, [b"hello\r\n\r\n"])
        self.assertIn(b"\0::1\0", scan.requests[0], "the scan hears of the client")
        with self.assertRaises(ConnectionRefusedError):
            self.client(V4)

    def test_one_listener_for_both(self):
        server = self.serve()
        proxy = self.run_proxy(server.port, {NET + "/IPAddress": "::"})
        scan = ScanDaemon(proxy.home)
        self.addCleanup(scan.close)
        self.deliver(V6)
        self.deliver(V4)
        self.assertIn(b"\0::1\0", scan.requests[0])
        self.assertIn(b"\x00127.0.0.1\x00", scan.requests[1])
        self.assertNotIn(b"ffff", scan.requests[1])

    def test_where_it_listens(self):
        proxy = self.run_proxy(self.serve().port)

        def taken():
            open_at = []
            for host in (V4, V6):
                with contextlib.suppress(ConnectionRefusedError, ConnectionResetError):
                    Client(proxy.port, 5, host).close()
                    open_at.append(host)
            return open_at
        for text, hosts in (("", [V4]), ("0.0.0.0", [V4]), ("::", [V4, V6]), ("::1", [V6]), ("::ffff:127.0.0.1", [V4]),
                            ("::1%", []), ("[::1]", []), ("2001:db8::zz", []), ("2001:db8::1", []), ("127.1", [V4])):
            proxy.load({NET + "/IPAddress": text})
            self.assertTrue(wait_until(lambda: taken() == hosts), (text, taken()))


class WhoMay(Case):
    def setUp(self):
        self.server = self.serve()
        self.run_proxy(self.server.port, {NET + "/IPAddress": "::"})

    def test_relay_networks(self):
        for network, mask, v4, v6 in (("127.0.0.0", "255.0.0.0", True, False), ("127.0.0.1", "255.0.0.0", False, False),
                                      ("0.0.0.0/0", "", True, False), ("0.0.0.0/abc", "", False, False),
                                      ("0000:0000:0000:0000:0000:0000:0000:0001/128", "", False, True)):
            self.change(**{"RelayNetworks/a/IPAddress": network, "RelayNetworks/a/Mask": mask})
            for host, allowed in ((V4, v4), (V6, v6)):
                c = self.client(host)
                c.reply()
                c.ask(b"MAIL FROM:<s@elsewhere.example>")
                self.assertEqual(c.ask(b"RCPT TO:<r@elsewhere.example>"),
                                 b"250 ok\r\n" if allowed else b"550 Unable to relay\r\n", (network, mask, host))
                c.close()

    def test_a_denied_ipv6_client_is_counted(self):
        # Records have room for IPv4 addresses: such a client's is 0.
        self.proxy.statistics()
        self.proxy.load({IP_LIST + "Enabled": "Y", IP_LIST + "Addresses/a/IP": "::/0", IP_LIST + "Addresses/a/Action": "2"})
        start = time.monotonic()
        self.assertEqual(self.greeting(V6), b"")
        self.assertLess(time.monotonic() - start, 4, "nobody is asked for the name of an address")
        self.assertTrue(wait_until(lambda: self.proxy.records("event_code, source_host") == [(80, 0)]))


class Servers(Case):
    def test_every_address_of_a_name(self):
        """The name has both families' loopback in a table of hosts of the proxy's own; one of them has the server."""
        for order in ((V6, V4), (V4, V6)):
            for host in order:
                server = self.serve(host=host, GREETING=b"554 " + host.encode() + b"\r\n")
                proxy = self.run_proxy(0, {NET + "/ServerToForward": "both.example:%d" % server.port}, start=False)
                with open(proxy.home + "/hosts", "w") as file:
                    file.writelines("%s both.example\n" % each for each in order)
                proxy.command = ["unshare", *([] if os.geteuid() == 0 else ["--map-root-user"]), "--mount", "sh", "-c",
                                 'mount --bind "$0" /etc/hosts && exec "$@"', proxy.home + "/hosts", *proxy.command]
                proxy.start()
                self.assertEqual(self.greeting(), b"554 " + host.encode() + b"\r\n", order)

    def test_fallback_servers_in_their_order(self):
        first, second, third = (self.serve(GREETING=b"554 %d\r\n" % number) for number in (1, 2, 3))
        down = free_port()
        proxy = self.run_proxy(first.port, {NET + "/FallbackServers/a": "127.0.0.1:%d" % down, NET + "/FallbackServers/b": "",
                                            NET + "/FallbackServers/c": "localhost:%d" % second.port,
                                            NET + "/FallbackServers/d": "127.0.0.1:%d" % third.port})
        self.assertEqual(self.greeting(), b"554 1\r\n")
        self.assertEqual([second.connections, third.connections], [0, 0])
        for server, answer in ((first, b"554 2\r\n"), (second, b"554 3\r\n"), (third, REFUSED)):
            server.listener.shutdown(socket.SHUT_RDWR)
            server.close()
            self.assertEqual(self.greeting(), answer)
        self.assertTrue(proxy.alive())

    def test_a_server_that_does_not_answer_is_left_in_time(self):
        swallower = Swallower(V6)
        self.addCleanup(swallower.close)
        server = self.serve()
        self.run_proxy(0, {NET + "/ServerToForward": "[::1]:%d" % swallower.port, NET + "/ConnectTimeout": "1",
                           NET + "/FallbackServers/a": "127.0.0.1:%d" % server.port})
        start = time.monotonic()
        c = self.client()
        self.assertTrue(c.reply().startswith(b"220"))
        self.assertTrue(0.9 < time.monotonic() - start < 10, time.monotonic() - start)
        # And the dialogue's waits are its own: nothing of the connect's limit is left.
        time.sleep(1.5)
        self.assertEqual(c.ask(b"NOOP"), b"250 ok\r\n")


class Outages(Case):
    def hang_up(self, greeting=b"", how=None):
        """The port of a server that closes behind its greeting."""
        return self.serve(GREETING=greeting, HELLO=how).port

    def test_the_client_hears_why(self):
        swallower = Swallower()
        self.addCleanup(swallower.close)
        mute = self.serve(GREETING=b"")
        self.run_proxy(free_port(), {NET + "/ConnectTimeout": "1", NET + "/ConnectionTimeout": "1"})
        for text, answer in (("127.0.0.1:%d" % free_port(), REFUSED), ("[::1]:%d" % free_port(), REFUSED),
                             ("127.0.0.1:%d" % swallower.port, SILENT), ("no.such.host.invalid", UNKNOWN), ("[::1", UNKNOWN),
                             ("300.1.1.1", UNKNOWN), ("127.0.0.1:%d" % mute.port, CLOSED),
                             ("127.0.0.1:%d" % self.hang_up(), CLOSED), ("127.0.0.1:%d" % self.hang_up(b"ab\r\n22"), CLOSED),
                             # A reset is seen while the connection is being made, or after that.
                             ("127.0.0.1:%d" % self.hang_up(how=MailServer.RESET), CLOSED + REFUSED)):
            self.change(ServerToForward=text)
            for sent in (b"", b"EHLO early\r\nMAIL FROM:<s@example.org>\r\n" * 100):
                c = self.client()
                with contextlib.suppress(ConnectionError):
                    c.send(sent)
                reply = c.reply()
                self.assertTrue(reply.endswith(b"\r\n"), (text, reply))
                self.assertIn(reply, answer, text)
                self.assertEqual(c.stream.read(), b"", "a close in good order")
                c.close()

    def test_sessions_without_a_server_count_no_longer_than_they_last(self):
        self.run_proxy(free_port(), {NET + "/MaxThreads": "1"})
        for _ in range(3):
            self.assertTrue(wait_until(lambda: self.greeting() == REFUSED))

    def test_the_log_hears_why_but_not_of_every_session(self):
        port = free_port()
        proxy = self.run_proxy(port, start=False)
        proxy.logger()
        proxy.start()
        for _ in range(5):
            self.assertEqual(self.greeting(), REFUSED)
        other = self.hang_up()
        proxy.load({NET + "/ServerToForward": "127.0.0.1:%d" % other})
        self.assertTrue(wait_until(lambda: self.greeting() == CLOSED))
        self.assertTrue(wait_until(lambda: "127.0.0.1:%d: no greeting" % other in proxy.log()), proxy.log())
        self.assertEqual(proxy.log().count("127.0.0.1:%d: Connection refused" % port), 1, proxy.log())
        # Nobody but the log tells that a server has gone for which another stands in.
        port, stand_in = free_port(), self.serve()
        proxy.load({NET + "/ServerToForward": "[::1]:%d" % port, NET + "/FallbackServers/a": "127.0.0.1:%d" % stand_in.port})
        self.assertTrue(wait_until(lambda: self.greeting().startswith(b"220")))
        self.assertTrue(wait_until(lambda: "[::1]:%d: Connection refused" % port in proxy.log()), proxy.log())

    def test_a_client_that_has_gone_ends_the_search(self):
        swallower = Swallower()
        self.addCleanup(swallower.close)
        last = self.serve()
        self.run_proxy(swallower.port, {NET + "/ConnectTimeout": "1", NET + "/FallbackServers/a": "127.0.0.1:%d" % last.port})
        sockets = self.proxy.sockets()
        gone = self.client()
        self.assertTrue(wait_until(lambda: self.proxy.sockets() > sockets))
        gone.close()
        # The next one, which came later, has its turn.
        self.assertTrue(self.greeting().startswith(b"220"))
        self.assertEqual(last.connections, 1)

    def test_a_stop_ends_the_waiting(self):
        swallower = Swallower()
        self.addCleanup(swallower.close)
        last = self.serve()
        proxy = self.run_proxy(swallower.port, {NET + "/ConnectTimeout": "60",
                                                NET + "/FallbackServers/a": "127.0.0.1:%d" % last.port})
        clients = [self.client() for _ in range(5)]
        time.sleep(1)
        start = time.monotonic()
        proxy.process.send_signal(signal.SIGTERM)
        for c in clients:
            self.assertEqual(c.reply(), STOPPING)
            c.close()
        self.assertEqual(proxy.process.wait(10), 1)
        self.assertLess(time.monotonic() - start, 20)
        self.assertEqual(last.connections, 0)
