"""A stop of the service waits for nobody who only makes ready: handshakes, headers, servers that say nothing."""

import ctypes
import os
import socket
import time
import unittest

from harness import NET, Client, MailServer, Proxy
from tls import Authority

WAIT = {NET + "/ConnectionTimeout": "60"}


class StopWhileOpening(unittest.TestCase):
    def setUp(self):
        self.server = MailServer()
        self.addCleanup(self.server.close)
        self.silent = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(self.silent.close)

    def proxy(self, keys, silent=False):
        port = self.silent.getsockname()[1] if silent else self.server.port
        proxy = Proxy(port, {**WAIT, **keys}, start=False)
        self.addCleanup(lambda: proxy.process is None or not proxy.alive() or proxy.stop())
        authority = Authority()
        self.addCleanup(authority.close)
        proxy.load({NET + "/TLS/Certificate": authority.issue("mail.pem")})
        proxy.start()
        return proxy

    def opens(self, proxy):
        client = socket.create_connection(("127.0.0.1", proxy.port), 10)
        self.addCleanup(client.close)
        return client

    def assert_stops(self, proxy):
        time.sleep(0.5)  # the session gets to its wait
        begin = time.monotonic()
        proxy.stop()
        self.assertLess(time.monotonic() - begin, 6)  # two are for a client that does not close; a wait would cost ten

    def test_a_handshake_behind_starttls(self):
        proxy = self.proxy({NET + "/TLS/Mode": "offer"})
        client = Client(proxy.port)
        self.addCleanup(client.close)
        client.reply()
        client.ask(b"EHLO me")
        self.assertEqual(client.ask(b"STARTTLS")[:3], b"220")
        self.assert_stops(proxy)

    def test_what_does_not_come(self):
        for keys in ({NET + "/TLS/Mode": "wrapped"}, {NET + "/ProxyProtocol": "Y", NET + "/Trust/a": "127.0.0.1"}):
            with self.subTest(**keys):
                proxy = self.proxy(keys)
                self.opens(proxy)
                self.assert_stops(proxy)

    def test_a_server_that_says_nothing(self):
        for mode in ("require", "wrapped"):
            with self.subTest(mode):
                proxy = self.proxy({NET + "/ServerTLS/Mode": mode}, silent=True)
                client = self.opens(proxy)
                self.assert_stops(proxy)
                self.assertEqual(client.recv(100)[:9], b"421 4.3.2")


class StopOfHeldUpThreads(unittest.TestCase):
    """The threads that carry sessions and listeners hang, as on a disk that answers no more: a stop still ends."""
    SEIZE, INTERRUPT, ALL = 0x4206, 0x4207, 0x40000000

    def setUp(self):
        self.libc = ctypes.CDLL(None, use_errno=True)
        self.libc.ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]

    def hold(self, process):
        """Its threads of tasks."""
        folder, held = "/proc/%d/task" % process.pid, []
        for thread in map(int, os.listdir(folder)):
            with open("%s/%d/comm" % (folder, thread), encoding="utf-8") as file:
                if file.read().strip() != "tasks":
                    continue
            if self.libc.ptrace(self.SEIZE, thread, None, None) != 0:
                self.skipTest("can't hold threads here: " + os.strerror(ctypes.get_errno()))
            self.libc.ptrace(self.INTERRUPT, thread, None, None)
            self.assertTrue(os.WIFSTOPPED(os.waitpid(thread, self.ALL)[1]))
            held.append(thread)
        return held

    def test_it_ends(self):
        server = MailServer()
        self.addCleanup(server.close)
        proxy = Proxy(server.port)
        self.addCleanup(proxy.process.kill)
        held = self.hold(proxy.process)
        self.assertGreaterEqual(len(held), 2)
        begin = time.monotonic()
        proxy.process.terminate()
        for thread in held:
            while not os.WIFEXITED(os.waitpid(thread, self.ALL)[1]):
                pass
        proxy.process.wait(10)
        self.assertLess(time.monotonic() - begin, 18)  # a session that hangs too has thirteen
