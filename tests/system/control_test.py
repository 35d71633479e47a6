"""`vtsmtpproxy status` and `drain`: what an owner sees of a running proxy, and how it is taken out of service."""

import json
import os
import re
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest

from harness import BIN, NET, SEEN, Client, MailServer, Proxy, ScanDaemon, clean, free_port, listens, wait_until
from system_test import System


class Control(System):
    def word(self, *words, **more):
        return subprocess.run([BIN + "/vtsmtpproxy", *words], env=self.proxy.env, text=True, capture_output=True, timeout=60, **more)

    def status(self):
        done = self.word("status", "--json")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return json.loads(done.stdout)

    def phases(self):
        return sorted(each["phase"] for each in self.status()["sessions"])

    def background(self, *words):
        process = subprocess.Popen([BIN + "/vtsmtpproxy", *words], env=self.proxy.env, text=True, stdout=subprocess.PIPE)
        self.addCleanup(process.stdout.close)
        return process


class Status(Control):
    def test_programs_and_sessions(self):
        self.assertTrue(wait_until(lambda: self.status()["session_count"] == 0))
        logger = self.proxy.logger()
        c = self.ready()
        c.ask(b"DATA")
        c.send(b"x" * 1000)
        self.assertTrue(wait_until(lambda: self.phases() == ["receiving"]), self.phases())
        seen = self.status()
        session = seen["sessions"][0]
        self.assertEqual((session["peer"], session["interface"], session["bytes"]), ("127.0.0.1", "net", 1000))
        self.assertRegex(session["id"], r"\A[0-9a-z]+\Z")
        self.assertTrue(0 <= session["age_ms"] < 20000, session)
        programs = {each["name"]: each for each in seen["programs"]}
        self.assertEqual([name for name, each in programs.items() if each["running"]], ["vtsmtpproxy", "vtlogd"])
        self.assertEqual(list(programs), ["vtsmtpproxy", "vtmaild", "vtlogd", "vtstatd", "vtregistry"])
        for name, process in (("vtsmtpproxy", self.proxy.process), ("vtlogd", logger)):
            self.assertEqual(programs[name]["pid"], process.pid)
            self.assertLess(abs(time.time() - programs[name]["started"]), 60)
        text = self.word("status").stdout
        self.assertRegex(text, r"(?m)^vtsmtpproxy +runs since .* UTC, pid %d, version \d+\.\d+\.\d+$" % self.proxy.process.pid)
        self.assertRegex(text, r"(?m)^vtmaild +does not run$")
        self.assertRegex(text, r"(?m)^1 session, 1 interface listens$")
        self.assertRegex(text, r"(?m)^%s +127\.0\.0\.1 +net +receiving +\d+\.\ds +1000$" % session["id"])
        logger.kill()
        logger.wait(10)
        self.assertFalse(self.status()["programs"][2]["running"])

    def test_each_phase_shows(self):
        scanned, relayed = threading.Event(), threading.Event()
        self.addCleanup(scanned.set)
        self.addCleanup(relayed.set)
        self.scan.answer = lambda request: scanned.wait(30) and clean()
        self.server.rules["DATA"] = lambda line: relayed.wait(30) and b"354 go on\r\n"
        c = self.ready()
        self.assertEqual(self.phases(), ["dialogue"])
        c.ask(b"DATA")
        c.send(b"hello\r\n.\r\n")
        self.assertTrue(wait_until(lambda: self.phases() == ["scanning"]), self.phases())
        scanned.set()
        self.assertTrue(wait_until(lambda: self.phases() == ["relaying"]), self.phases())
        relayed.set()
        self.assertEqual(c.reply(), b"250 queued\r\n")
        self.assertTrue(wait_until(lambda: self.phases() == ["dialogue"]), self.phases())
        with socket.create_server(("127.0.0.1", 0)) as silent:
            self.proxy.change({NET + "/ServerToForward": "127.0.0.1:%d" % silent.getsockname()[1]})
            waiting = self.client()
            self.assertTrue(wait_until(lambda: "connecting" in self.phases()), self.phases())
            waiting.close()

    def test_the_output_is_bounded(self):
        idle = [socket.create_connection(("127.0.0.1", self.proxy.port), 20) for _ in range(1010)]
        for each in idle:
            self.addCleanup(each.close)
        self.assertTrue(wait_until(lambda: self.status()["session_count"] == 1010, 30))
        self.assertEqual(len(self.status()["sessions"]), 1000)
        text = self.word("status").stdout
        self.assertTrue(text.endswith("\nand 10 more\n"), text[-200:])

    def test_watch_goes_on_until_it_is_ended(self):
        watching = self.background("status", "--watch", "--json")
        first, second = (json.loads(watching.stdout.readline()) for _ in range(2))
        self.assertTrue(first["answers"] and second["answers"])
        watching.send_signal(signal.SIGINT)
        self.assertEqual(watching.wait(10), -signal.SIGINT)
        # A terminal is wiped, a file isn't.
        watching = self.background("status", "--watch")
        self.assertRegex(watching.stdout.readline(), r"\Avtsmtpproxy +runs")
        watching.send_signal(signal.SIGINT)
        watching.wait(10)

    def test_a_proxy_that_hangs_is_not_waited_for_for_ever(self):
        os.kill(self.proxy.process.pid, signal.SIGSTOP)
        try:
            started = time.monotonic()
            done = self.word("status")
            self.assertLess(time.monotonic() - started, 30)
            self.assertEqual(done.returncode, 0, "it runs")
            self.assertIn("the proxy does not answer\n", done.stdout)
        finally:
            os.kill(self.proxy.process.pid, signal.SIGCONT)

    def test_nobody_else_reaches_the_endpoint(self):
        for path, mode in (("/pipes", 0o700), ("/metrics", 0o700), ("/metrics/vtsmtpproxy", 0o600)):
            self.assertEqual(os.stat(self.proxy.home + path).st_mode & 0o777, mode, path)

    def test_junk_is_answered_by_nothing(self):
        for junk in (b"x", b"status ", b"drain\0", b"\0" * 100000, b"cancel\n"):
            with socket.socket(socket.AF_UNIX) as owner:
                owner.settimeout(10)
                owner.connect(self.proxy.home + "/pipes/VTSMTPPROXY-CONTROL")
                size = len(junk).to_bytes(4, "little")
                owner.sendall(b"VTIPC\0\0\0" + size + size + bytes(4) + junk)
                with owner.makefile("rb") as stream:
                    self.assertEqual(stream.read(35)[20:], b"2.0LIPCNOREPLY\0", junk[:10])
        self.assertTrue(self.proxy.listening())


class NoProxy(unittest.TestCase):
    def test_codes_and_words(self):
        with tempfile.TemporaryDirectory() as parent:
            env = dict(os.environ, VANTREL_HOME=parent + "/home")
            cases = (  # words, code, what is on which stream
                (["status"], 1, r"vtsmtpproxy +does not run\n", "no such instance"),
                (["status", "--json"], 1, r'\{"answers": false', "no such instance"),
                (["drain"], 1, "", "vtsmtpproxy: the proxy does not run\n"),
                (["drain", "--cancel"], 1, "", "vtsmtpproxy: the proxy does not run\n"),
                (["status", "--bogus"], 2, "", "unexpected: --bogus"), (["status", "now"], 2, "", "unexpected: now"),
                (["drain", "--wait"], 2, "", "needs a number"), (["drain", "--wait", "-1"], 2, "", "no number of seconds"),
                (["drain", "--wait", "1h"], 2, "", "no number of seconds"), (["drain", "--cancel", "--wait", "1"], 2, "", "doesn't wait"),
                (["drain", "5"], 2, "", "unexpected: 5"), (["status", "--help"], 0, "usage: vtsmtpproxy status", ""),
                (["drain", "--help"], 0, "usage: vtsmtpproxy drain", ""))
            for words, code, out, error in cases:
                with self.subTest(words):
                    done = subprocess.run([BIN + "/vtsmtpproxy", *words], env=env, text=True, capture_output=True, timeout=20)
                    self.assertEqual(done.returncode, code, done)
                    for text, pattern in ((done.stdout, out), (done.stderr, error)):
                        self.assertRegex(text, pattern or r"\A\Z")
            for words in (["vtlog", "find"], ["vtlog", "follow"], ["vtquarantine", "list"], ["vtreport"], ["vtmaild", "status"]):
                done = subprocess.run([BIN + "/" + words[0], *words[1:]], env=env, capture_output=True, timeout=20,
                                      stdin=subprocess.DEVNULL, start_new_session=True)
                self.assertNotEqual((done.returncode, done.stderr), (0, b""), words)
            self.assertEqual(os.listdir(parent), [], "an instance is not made by a look at it")

    def test_of_programs_that_it_may_not_look_at_nothing_is_said(self):
        other = ["setpriv", "--reuid", "nobody", "--regid", "nogroup", "--clear-groups"]
        if os.geteuid() != 0 or subprocess.run([*other, BIN + "/vtsmtpproxy", "--version"], capture_output=True).returncode != 0:
            self.skipTest("nobody else to be")
        with tempfile.TemporaryDirectory() as home:
            for words in (["vtsmtpproxy", "status"], ["vtsmtpproxy", "drain"], ["vtmaild", "status"], ["vtlog", "find"]):
                done = subprocess.run([*other, BIN + "/" + words[0], *words[1:]], env=dict(os.environ, VANTREL_HOME=home), text=True,
                                      capture_output=True, timeout=20)
                self.assertEqual(done.stdout, "")
                self.assertRegex(done.stderr, r"\A\w+: .*owned by another user: be that user or root.*\n\Z")
                self.assertNotEqual(done.returncode, 0)


class Drain(Control):
    def refused(self, port=None):
        with socket.socket() as client:
            return client.connect_ex(("127.0.0.1", port or self.proxy.port)) != 0

    def drained(self, *words):
        done = self.word("drain", *words)
        return done.returncode, done.stdout

    def alone(self):
        self.assertTrue(wait_until(lambda: self.status()["session_count"] == 0))

    def test_sessions_go_on_and_new_ones_are_refused(self):
        self.alone()
        c = self.ready()
        drain = self.background("drain")
        self.assertEqual(drain.stdout.readline(), "1 session is left\n")
        self.assertTrue(self.refused())
        self.assertTrue(self.status()["draining"])
        self.assertEqual(c.data(b"hello\r\n.\r\n"), b"250 queued\r\n")
        c.mail()
        self.assertEqual(c.data(b"again\r\n.\r\n"), b"250 queued\r\n")
        self.assertIsNone(drain.poll(), "a session is left")
        self.assertTrue(c.ask(b"QUIT").startswith(b"221"))
        self.assertEqual((drain.wait(20), drain.stdout.read()), (0, "no session is left\n"))
        self.assertTrue(self.refused(), "it goes on draining")
        self.assertEqual(self.drained(), (0, "no session is left\n"))

    def test_the_time_over_and_cancelled(self):
        self.alone()
        c = self.ready()
        started = time.monotonic()
        self.assertEqual(self.drained("--wait", "1"), (1, "1 session is left\nthe time is over, the proxy goes on draining\n"))
        self.assertTrue(1 <= time.monotonic() - started < 10)
        self.assertEqual(self.drained("--wait", "0")[0], 1)
        self.assertTrue(self.refused())
        drain = self.background("drain")
        self.assertEqual(drain.stdout.readline(), "1 session is left\n")
        self.assertEqual(self.drained("--cancel"), (0, "the proxy takes new sessions\n"))
        self.assertFalse(self.refused(), "at once")
        self.assertEqual((drain.wait(20), drain.stdout.read()), (1, "the proxy takes new sessions again\n"))
        self.assertEqual(c.data(b"hello\r\n.\r\n"), b"250 queued\r\n")
        self.assertTrue(self.ready())

    def test_another_configuration_opens_nothing_while_it_drains(self):
        self.alone()
        self.assertEqual(self.drained()[0], 0)
        seen, moved = free_port(), free_port()
        self.proxy.load({SEEN + "/Port": str(seen), SEEN + "/IPAddress": "127.0.0.1", NET + "/Port": str(moved)})
        time.sleep(4)  # longer than it takes to try again what could not be had
        self.assertTrue(all(self.refused(port) for port in (self.proxy.port, seen, moved)))
        self.assertEqual(self.status()["listeners"], 0)
        self.assertEqual(self.drained("--cancel")[0], 0)
        self.assertTrue(listens(seen) and listens(moved), "as the configuration is now")
        self.assertTrue(self.refused(), "the port of before")

    def test_who_is_in_the_backlog_is_served(self):
        """Clients that the system has let in while the proxy was busy."""
        self.alone()
        os.kill(self.proxy.process.pid, signal.SIGSTOP)
        early = [Client(self.proxy.port) for _ in range(40)]
        drain = self.background("drain", "--wait", "20")
        time.sleep(0.5)
        os.kill(self.proxy.process.pid, signal.SIGCONT)
        for each in early:
            self.assertTrue(each.reply().startswith(b"220"))
            self.assertTrue(each.ask(b"QUIT").startswith(b"221"))
            each.close()
        self.assertEqual(drain.wait(30), 0)
        self.assertTrue(self.refused())

    def test_another_instance_takes_over(self):
        self.alone()
        c = self.ready()
        self.assertEqual(self.drained("--wait", "0")[0], 1)
        server = MailServer()
        other = Proxy(server.port, {NET + "/Port": str(self.proxy.port)}, start=False)
        other.port = self.proxy.port
        scan = ScanDaemon(other.home)
        other.start()
        fresh = Client(other.port)
        fresh.envelope()
        self.assertEqual(fresh.data(b"new\r\n.\r\n"), b"250 queued\r\n")
        self.assertEqual(c.data(b"old\r\n.\r\n"), b"250 queued\r\n")
        self.assertEqual(([each.strip() for each in server.messages], [each.strip() for each in self.server.messages]),
                         ([b"new"], [b"old"]))
        fresh.close()
        scan.close()
        other.stop()
        server.close()


class Stopped(unittest.TestCase):
    def test_a_stop_ends_a_proxy_that_drains(self):
        server = MailServer()
        proxy = Proxy(server.port)
        c = Client(proxy.port)
        self.assertTrue(c.reply().startswith(b"220"))
        drain = subprocess.Popen([BIN + "/vtsmtpproxy", "drain"], env=proxy.env, text=True, stdout=subprocess.PIPE)
        self.assertRegex(drain.stdout.readline(), r"\A\d+ sessions? (is|are) left\n\Z")
        started = time.monotonic()
        proxy.process.terminate()
        self.assertEqual(proxy.process.wait(20), 1)
        self.assertLess(time.monotonic() - started, 5)
        self.assertEqual(drain.wait(20), 0)
        self.assertRegex(drain.stdout.read(), re.compile(r"^(the proxy has ended|no session is left)$", re.M))
        drain.stdout.close()
        c.close()
        proxy.stop()
        server.close()


if __name__ == "__main__":
    unittest.main()
