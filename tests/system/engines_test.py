"""Several engines, real ones behind relays on TCP that fail as a test chooses: none of the infected messages reaches the
server, whatever becomes of the engines."""

import contextlib
import json
import os
import socket
import subprocess
import threading
import time

from harness import BIN, free_port, wait_until
from metrics import Pages
from scanning import EICAR, KEY, QUEUED, Scanning, attached, body
from system_test import NOT_CHECKED, REJECTED

# As many messages as a class sends while an engine fails; half of them infected.
MESSAGES = int(os.environ.get("VANTREL_ENGINE_MESSAGES", "60"))
SENDERS = 4


class Relay:
    """A clamd on TCP as its daemon sees it: passes all on to the Unix socket of a real one, or spoils its answers."""

    def __init__(self, path, host="127.0.0.1"):
        self.path, self.host, self.fault, self.connections, self.lock = path, host, None, set(), threading.Lock()
        self.streams = 0
        self.port = 0
        self.start()

    def start(self):
        family = socket.AF_INET6 if ":" in self.host else socket.AF_INET
        self.listener = socket.create_server((self.host, self.port), family=family, backlog=64)
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self.accept, args=(self.listener,), daemon=True).start()

    @property
    def address(self):
        return ("[%s]:%d" if ":" in self.host else "%s:%d") % (self.host, self.port)

    def accept(self, listener):
        with contextlib.suppress(OSError):
            while True:
                client, _ = listener.accept()
                engine = socket.socket(socket.AF_UNIX)
                try:
                    engine.connect(self.path)
                except OSError:
                    client.close()
                    continue
                with self.lock:
                    self.connections |= {client, engine}
                threading.Thread(target=self.up, args=(client, engine), daemon=True).start()
                threading.Thread(target=self.down, args=(engine, client), daemon=True).start()

    def up(self, client, engine):
        with contextlib.suppress(OSError):
            while data := client.recv(65536):
                self.streams += data.startswith(b"zINSTREAM")
                engine.sendall(data)
            engine.shutdown(socket.SHUT_WR)

    def down(self, engine, client):
        with contextlib.suppress(OSError):
            while data := engine.recv(65536):
                fault = self.fault
                if fault == "hang":
                    continue  # nothing comes back, and nothing ends
                if fault == "half":
                    client.sendall(data[:-1] if data.endswith(b"OK\0") else data[:len(data) // 2])
                    break
                if fault == "nonsense":
                    data = b"HTTP/1.1 200: OK\0"
                elif fault == "two":
                    data = data + b"stream: OK\0"
                client.sendall(data)
        for each in (engine, client):
            with contextlib.suppress(OSError):
                each.shutdown(socket.SHUT_RDWR)
            each.close()

    def kill(self):
        with contextlib.suppress(OSError):
            self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        with self.lock:
            gone, self.connections = self.connections, set()
        for each in gone:
            with contextlib.suppress(OSError):
                each.shutdown(socket.SHUT_RDWR)


class Engines(Scanning):
    @classmethod
    def start_engine(cls):
        super().start_engine()
        path = cls.proxy.home + "/clamd/clamd.sock"
        cls.relays = {"a": Relay(path), "b": Relay(path, "::1")}
        cls.proxy.load({KEY + "Engines/" + name: relay.address for name, relay in cls.relays.items()})
        cls.proxy.load({KEY + "ScanTimeout": "20", KEY + "ClamdSocket": "/nobody/is/here"})

    @classmethod
    def tearDownClass(cls):
        super().tearDownClass()
        for each in cls.relays.values():
            each.kill()

    def engines(self):
        done = subprocess.run([BIN + "/vtmaild", "status", "--json"], env=self.proxy.env, text=True, capture_output=True, timeout=60)
        return {each["name"]: each for each in json.loads(done.stdout)["engines"]}

    def become(self, seconds=60, **states):
        self.assertTrue(wait_until(lambda: {name: each["state"].split(":")[0] for name, each in self.engines().items()} == states,
                                   seconds), self.engines())

    def several(self, count):
        """Sends so many on several connections, every other one infected; the replies to each kind."""
        replies = {True: [], False: []}
        turns = iter(range(count))
        lock = threading.Lock()

        def sender():
            while True:
                with lock:
                    turn = next(turns, None)
                if turn is None:
                    return
                infected = turn % 2 == 1
                message = attached(EICAR, first=b"Subject: bad %d\r\n" % turn) if infected else body(b"good %d" % turn)
                reply = self.send(message)
                with lock:
                    replies[infected].append(reply)

        threads = [threading.Thread(target=sender) for _ in range(SENDERS)]
        for each in threads:
            each.start()
        return threads, replies

    def passes_while(self, fault, clean_all_arrive=True):
        """Messages pass; in their midst `fault` is called."""
        before = len(self.server.messages)
        threads, replies = self.several(MESSAGES)
        self.assertTrue(wait_until(lambda: len(replies[True]) + len(replies[False]) >= MESSAGES // 10, 60))
        fault()
        for each in threads:
            each.join(200)
            self.assertFalse(each.is_alive())
        arrived = self.server.messages[before:]
        self.assertFalse([each for each in arrived if b"Subject: bad" in each], "an infected message arrived")
        self.assertLessEqual(set(replies[True]), {REJECTED, NOT_CHECKED})
        self.assertLessEqual(set(replies[False]), {QUEUED, NOT_CHECKED})
        self.assertEqual(len(arrived), replies[False].count(QUEUED))
        self.assertEqual((len(replies[True]), len(replies[False])), (MESSAGES // 2, MESSAGES // 2))
        if clean_all_arrive:
            self.assertEqual(set(replies[False]), {QUEUED})
            self.assertEqual(set(replies[True]), {REJECTED})


class EachFails(Engines):
    def setUp(self):
        self.become(a="up", b="up")

    def tearDown(self):
        for relay in self.relays.values():
            relay.fault = None
            relay.kill()
            relay.start()

    def test_both_are_asked(self):
        before = {name: each.streams for name, each in self.relays.items()}
        self.passes_while(lambda: None)
        for name, each in self.relays.items():
            self.assertGreater(each.streams, before[name] + MESSAGES // 10)

    def test_killed(self):
        for name, relay in self.relays.items():
            with self.subTest(name):
                self.passes_while(relay.kill)
                self.become(**{"a": "up", "b": "up", name: "down"})
                relay.start()
                self.become(a="up", b="up")

    def test_faults(self):
        for name, relay in self.relays.items():
            for fault in ("nonsense", "half", "two", "hang"):
                with self.subTest(name + " " + fault):
                    # What hangs costs a scan half of its time, once: then the others are asked first.
                    begun = time.monotonic()
                    self.passes_while(lambda: setattr(relay, "fault", fault))
                    self.assertLess(time.monotonic() - begun, 60)
                    relay.fault = None
                    relay.kill()
                    relay.start()
                    self.become(a="up", b="up")

    def test_all_of_them_fail(self):
        for fault in ("nonsense", "half", "two"):
            with self.subTest(fault):
                def spoil():
                    for relay in self.relays.values():
                        relay.fault = fault
                self.passes_while(spoil, clean_all_arrive=False)
                self.assertEqual(self.send(body(b"still good")), NOT_CHECKED)
                for relay in self.relays.values():
                    relay.fault = None
                    relay.kill()
                    relay.start()
                self.become(a="up", b="up")


    def test_all_of_them_hang(self):
        self.settings(ScanTimeout="4")
        for relay in self.relays.values():
            relay.fault = "hang"
        for message in (attached(EICAR), body(b"good")):
            begun = time.monotonic()
            self.assertEqual(self.send(message), NOT_CHECKED)
            self.assertLess(time.monotonic() - begun, 10)


class NamedEngines(Engines):
    def numbers(self):
        pages = Pages.__new__(Pages)
        pages.proxy, pages.port = self.proxy, int(self.proxy.tool("get", "/VTWIN/Daemons/StatsDaemon/HTTPPort").stdout)
        return {name: value for name, value in pages.numbers().items() if name.startswith("vantrel_engine_up")}

    def test_states_and_changes(self):
        self.become(a="up", b="up")
        engine = self.engines()["a"]
        self.assertEqual((engine["address"], engine["outstanding"]), (self.relays["a"].address, 0))
        self.assertTrue(wait_until(lambda: all(each["version"].startswith("ClamAV ") for each in self.engines().values())))
        text = subprocess.run([BIN + "/vtmaild", "status"], env=self.proxy.env, text=True, capture_output=True)
        self.assertRegex(text.stdout, r"(?m)^b at \[::1\]:\d+: up, 0 in hand, ClamAV .*$")
        self.assertTrue(self.logged("a at %s finds the test pattern" % self.relays["a"].address))
        self.assertEqual(self.numbers(), {'vantrel_engine_up{engine="a"}': 1, 'vantrel_engine_up{engine="b"}': 1})

        # One more, by its socket: it takes descriptors.
        self.proxy.load({KEY + "Engines/local": "unix:%s/clamd/clamd.sock" % self.proxy.home})
        self.become(a="up", b="up", local="up")
        # One goes, one can't be read, one is nowhere.
        self.proxy.tool("del", KEY + "Engines/a")
        self.proxy.load({KEY + "Engines/b": "nonsense", KEY + "Engines/c": "127.0.0.1:%d" % free_port()})
        self.become(b="down", c="down", local="up")
        self.assertTrue(self.logged("b at nonsense: this is no address"))
        self.assertEqual(self.numbers(), {'vantrel_engine_up{engine="b"}': 0, 'vantrel_engine_up{engine="c"}': 0,
                                          'vantrel_engine_up{engine="local"}': 1})
        self.assertEqual(self.send(body(b"good")), QUEUED)
        self.assertEqual(self.send(attached(EICAR)), REJECTED)
        status = subprocess.run([BIN + "/vtsmtpproxy", "status", "--json"], env=self.proxy.env, text=True, capture_output=True)
        self.assertEqual(sorted(json.loads(status.stdout)["engines"], key=lambda each: each["name"]),
                         [{"name": "b", "up": False}, {"name": "c", "up": False}, {"name": "local", "up": True}])
        # Without any that can be reached mail is put off.
        self.proxy.tool("del", KEY + "Engines/local")
        self.become(b="down", c="down")
        self.assertEqual(self.send(body(b"good")), NOT_CHECKED)
        self.proxy.load({KEY + "Engines/b": self.relays["b"].address})
        self.proxy.tool("del", KEY + "Engines/c")
        self.become(b="up")
        # Without names it is the one of ClamdSocket.
        self.proxy.tool("del", KEY + "Engines/b")
        self.proxy.tool("set", KEY + "ClamdSocket", "")
        self.become(clamd="up")
        self.assertEqual(self.send(attached(EICAR)), REJECTED)

    def test_usage(self):
        run = lambda *words, env=self.proxy.env: subprocess.run([BIN + "/vtmaild", "status", *words], env=env, text=True, capture_output=True)
        self.assertEqual(run("--help").returncode, 0)
        self.assertEqual(run("now").returncode, 2)
        gone = run("--json", env=dict(self.proxy.env, VANTREL_HOME="/nowhere/at/all"))
        self.assertEqual((gone.returncode, json.loads(gone.stdout)), (1, {"answers": False, "engines": []}))


class StreamLimit(Engines):
    """An engine whose limit on streams is below our own largest message says so."""
    ENGINE = Scanning.ENGINE.replace("StreamMaxLength 20M", "StreamMaxLength 100K")

    def test_what_is_beyond_it(self):
        self.become(a="up", b="up")
        large = body(b"x" * 70 + b"\r\n") + (b"y" * 70 + b"\r\n") * 2000
        self.assertEqual(self.send(large), NOT_CHECKED)
        self.assertEqual(self.send(body(b"small")), QUEUED)
        self.assertEqual(self.send(attached(EICAR)), REJECTED)
        # Another one that takes it is asked in its place.
        self.proxy.load({KEY + "Engines/local": "unix:%s/clamd/clamd.sock" % self.proxy.home})
        self.become(a="up", b="up", local="up")
        self.assertEqual(self.send(large), QUEUED)


del Engines, Scanning  # no cases of their own
