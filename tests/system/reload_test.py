"""A change of the configuration loses nobody: listeners that are still wanted stay open, and those that can't be had are
had later."""

import signal
import socket
import sqlite3
import subprocess
import threading
import time
import unittest

from address_test import Case
from harness import BIN, NET, Client, free_port, wait_until
from waiting import serves

INTERFACES = NET[:NET.rindex("/")]
V4 = "127.0.0.1"


class Logged(Case):
    def setUp(self):
        self.server = self.serve()
        proxy = self.run_proxy(self.server.port, start=False)
        logger = subprocess.Popen([BIN + "/vtlogd", "debug"], env=proxy.env, stdout=subprocess.DEVNULL)
        self.addCleanup(logger.wait)
        self.addCleanup(logger.terminate)
        self.assertTrue(wait_until(lambda: serves(proxy.home + "/pipes/vtlogd"), 20))
        proxy.start()

    def log(self):
        try:
            with open(self.proxy.home + "/log/vtlogd.log", encoding="utf-8") as file:
                return file.read()
        except FileNotFoundError:
            return ""

    def assert_logged(self, text):
        self.assertTrue(wait_until(lambda: text in self.log()), text + "\n" + self.log())
        self.assertEqual(self.log().count(text), 1, self.log())

    def interface(self, name, port, **keys):
        keys = {"Port": str(port), "IPAddress": V4, "ServerToForward": "127.0.0.1:%d" % self.server.port, **keys}
        return {INTERFACES + "/" + name + "/" + key: value for key, value in keys.items()}

    def shows(self, name, port):
        with socket.create_connection((V4, port), 10) as client:
            return name in client.recv(200)


class Listeners(Logged):
    def connect_all_the_time(self, stop, served, faults):
        while not stop.is_set():
            try:
                with socket.create_connection((V4, self.proxy.port), 10) as client:
                    greeting = client.recv(200)
                (served if greeting[:4] == b"220 " else faults).append(greeting)
            except OSError as fault:
                faults.append(fault)

    def test_nobody_is_lost_by_changes(self):
        stop, served, faults = threading.Event(), [], []
        clients = [threading.Thread(target=self.connect_all_the_time, args=(stop, served, faults)) for _ in range(4)]
        for client in clients:
            client.start()
        before, other = Client(self.proxy.port), free_port()
        self.assertEqual(before.reply()[:4], b"220 ")
        try:
            for number in range(0, 60, 3):
                self.change(MaxThreads="0", ConnectTimeout=str(10 + number))
                # The entry moves to the second position, and back to the first.
                self.proxy.load(self.interface("first", other))
                self.change(**{"Trust/a": "192.0.2.%d" % number})
                self.proxy.tool("del", INTERFACES + "/first")
                self.change(**{"MailDomains/b": "b%d.example" % number})
                self.assertEqual(before.ask(b"NOOP"), b"250 ok\r\n")
        finally:
            stop.set()
            for client in clients:
                client.join()
        self.assertEqual(faults, [])
        self.assertGreater(len(served), 60)
        before.close()

    def test_clients_in_the_backlog_stay_there(self):
        self.proxy.process.send_signal(signal.SIGSTOP)
        try:
            waiting = [self.client() for _ in range(40)]
            self.proxy.load({NET + "/GreetingDomainName": "other.example"})
            self.proxy.load(self.interface("first", free_port()))
        finally:
            self.proxy.process.send_signal(signal.SIGCONT)
        self.assertEqual([client.reply()[:4] for client in waiting], [b"220 "] * 40)

    def test_of_two_with_one_port_the_first_listens(self):
        ours, theirs = b"proxy.example", b"first.example"
        taken = "interface %s: 127.0.0.1:%d: Address already in use"
        waiting = self.client()
        self.proxy.load(self.interface("first", self.proxy.port, GreetingDomainName="first.example"))
        self.assertTrue(wait_until(lambda: self.shows(theirs, self.proxy.port)))
        self.assert_logged(taken % ("net", self.proxy.port))
        self.proxy.tool("del", INTERFACES + "/first")
        self.assertTrue(wait_until(lambda: self.shows(ours, self.proxy.port)))
        self.assert_logged("interface net: listens on 127.0.0.1:%d" % self.proxy.port)
        self.assertIn(ours, waiting.reply())
        self.assertEqual(waiting.ask(b"NOOP"), b"250 ok\r\n")

    def test_one_that_is_no_longer_wanted_is_closed(self):
        running = self.client()
        self.assertEqual(running.reply()[:4], b"220 ")
        self.proxy.tool("del", NET)
        self.assertTrue(wait_until(lambda: not self.proxy.listening()))
        self.assertEqual(running.ask(b"NOOP"), b"250 ok\r\n")
        self.proxy.load(self.interface("net", self.proxy.port))
        self.assertTrue(wait_until(self.proxy.listening))
        self.assertEqual(running.ask(b"NOOP"), b"250 ok\r\n")


class Missing(Logged):
    def ticks(self):
        with open("/proc/%d/stat" % self.proxy.process.pid, encoding="ascii") as file:
            fields = file.read().rsplit(")", 1)[1].split()
        return int(fields[11]) + int(fields[12])

    def published(self):
        return self.proxy.tool("get", "/VTWIN/Agents/VTSMTPProxy/ActiveConnections").stdout.strip()

    def test_a_port_of_somebody_else_is_had_when_it_is_free(self):
        with socket.create_server((V4, 0)) as holder:
            self.proxy.port = holder.getsockname()[1]
            self.proxy.load({NET + "/Port": str(self.proxy.port)})
            taken = "interface net: 127.0.0.1:%d: Address already in use" % self.proxy.port
            self.assert_logged(taken)
            self.proxy.load({NET + "/ConnectTimeout": "11"})
            time.sleep(0.5)
            # Trying again neither spins nor puts off what comes with quiet times, nor brings it forward.
            self.proxy.tool("set", "/VTWIN/Agents/VTSMTPProxy/ActiveConnections", "none")
            before = self.ticks()
            time.sleep(7)
            self.assertLess(self.ticks() - before, 50)
            self.assertEqual(self.published(), "none")
            self.assertTrue(wait_until(lambda: self.published() == "0", 6), self.published())
            self.assert_logged(taken)
        self.assertTrue(wait_until(self.proxy.listening, 5))
        self.assertEqual(self.greeting()[:4], b"220 ")
        self.assert_logged("interface net: listens on 127.0.0.1:%d" % self.proxy.port)

    def test_others_are_served_while_one_is_missing(self):
        with socket.create_server((V4, 0)) as holder:
            port = holder.getsockname()[1]
            self.proxy.load(self.interface("first", port, GreetingDomainName="first.example"))
            self.assert_logged("interface first: 127.0.0.1:%d: Address already in use" % port)
            # Clients that keep the proxy awake don't keep it from trying.
            stop = threading.Event()
            busy = threading.Thread(target=lambda: [self.greeting() for _ in iter(stop.is_set, True)])
            busy.start()
            holder.close()
        try:
            self.assertTrue(wait_until(lambda: self.listening(port) and self.shows(b"first.example", port), 5))
        finally:
            stop.set()
            busy.join()

    def listening(self, port):
        try:
            socket.create_connection((V4, port), 1).close()
        except ConnectionRefusedError:
            return False
        return True

    def test_an_address_that_is_not_there(self):
        where = "192.0.2.1:%d" % self.proxy.port
        self.proxy.load({NET + "/IPAddress": "192.0.2.1"})
        self.assert_logged("interface net: %s: Cannot assign requested address" % where)
        self.proxy.load({NET + "/IPAddress": "rubbish\x1b"})
        self.assert_logged("interface net: no address to listen on: rubbish?")
        self.proxy.load({NET + "/ConnectTimeout": "11"})
        self.proxy.load({NET + "/IPAddress": V4})
        self.assertTrue(wait_until(self.proxy.listening))
        self.assertEqual(self.greeting()[:4], b"220 ")
        self.assert_logged("interface net: no address to listen on: rubbish?")
        self.assertNotIn("listens on", self.log(), "of this address nothing bad was told")


class HeldStore(Logged):
    """Somebody writes to the store and doesn't come to an end."""

    def hold(self):
        store = sqlite3.connect(self.proxy.home + "/store.db", isolation_level=None)
        self.addCleanup(store.close)
        store.execute("BEGIN IMMEDIATE")

    def test_nobody_waits_until_the_count_is_published(self):
        self.hold()
        time.sleep(11)  # the host tries to, in vain, until five seconds later
        begin = time.monotonic()
        self.assertEqual(self.greeting()[:4], b"220 ")
        self.assertLess(time.monotonic() - begin, 2)

    def test_a_start_waits_once(self):
        self.proxy.process.terminate()
        self.proxy.process.wait(20)
        self.proxy.tool("del", "/VTUX/LoggerDaemon/LogLevel")
        self.hold()
        self.proxy.process.stdout.close()
        self.proxy.start()  # which takes its time, and no more


if __name__ == "__main__":
    unittest.main()
