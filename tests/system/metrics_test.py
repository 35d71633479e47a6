"""What the programs count, as Prometheus reads it, and who may read it."""

import collections
import os
import signal
import socket
import ssl
import subprocess
import unittest

from filters_test import AS
from harness import BIN, NET, verdict, wait_until
from metrics import STATS, Pages
from scanning import Scanning
from system_test import System
from tls import Tls, TlsClient

FORWARD, REJECT, DROP = (b"Subject: %d\r\n\r\n" % number + b"x" * 100 * number + b"\r\n" for number in range(3))


class Counted(System):
    keys = {AS + "/AllowDenyIPList/Enabled": "Y", AS + "/AllowDenyIPList/Addresses/one/IP": "127.0.0.9",
            AS + "/AllowDenyIPList/Addresses/one/Action": "2", AS + "/SenderBlackList/Enabled": "Y",
            AS + "/SenderBlackList/EnabledSendDenyMessage": "Y", AS + "/SenderBlackList/UsersList/1": "bad@x.example",
            AS + "/DirectoryHarvesting/Enabled": "Y", AS + "/DirectoryHarvesting/ResponseTimeout": "1",
            AS + "/DirectoryHarvesting/EnabledSendDenyMessage": "Y"}

    def setUp(self):
        super().setUp()
        self.pages = Pages(self.proxy)
        self.seen = collections.Counter()
        self.before = self.quiet()

    def quiet(self):
        """The numbers, once no session runs."""
        latest = {}

        def none():
            latest.update(self.pages.numbers())
            return latest['vantrel_sessions_active{interface="net"}'] == 0
        self.assertTrue(wait_until(none), latest)
        return latest

    def opened(self):
        """A client whose replies are counted."""
        client = self.client()
        read = client.reply

        def reply():
            text = read()
            if text:
                self.seen[chr(text.rstrip(b"\r\n").splitlines()[-1][0]) + "xx"] += 1
            return text
        client.reply = reply
        return client

    def grown(self, name, **labels):
        key = name + ("{%s}" % ",".join('%s="%s"' % each for each in labels.items()) if labels else "")
        return self.after[key] - self.before[key]

    def expect(self, cases):
        for name, label, values in cases:
            for value, expected in values.items():
                with self.subTest(name, value=value):
                    self.assertEqual(self.grown(name, **{label: value}), expected)

    def test_known_traffic_is_counted_exactly(self):
        c = self.opened()
        c.envelope()
        for number in range(3):
            if number:
                c.mail()
            self.assertEqual(c.data(FORWARD + b".\r\n"), b"250 queued\r\n")
        for mask, body in ((4, REJECT), (2, DROP)):
            self.scan.answer = lambda request, mask=mask: verdict(mask)
            c.mail()
            c.data(body + b".\r\n")
        self.scan.answer = lambda request: b"junk"
        c.mail()
        self.assertTrue(c.data(FORWARD + b".\r\n").startswith(b"451"))
        c.mail()
        self.assertTrue(c.ask(b"DATA").startswith(b"354"))
        c.send(b"never ended")
        c.close()
        denied = socket.create_connection(("127.0.0.1", self.proxy.port), 10, source_address=("127.0.0.9", 0))
        self.assertEqual(denied.recv(10), b"")
        denied.close()
        c = self.opened()
        c.reply()
        self.assertTrue(c.ask(b"MAIL FROM:<bad@x.example>").startswith(b"550"))
        self.assertTrue(c.ask(b"MAIL FROM:<s@example.org>").startswith(b"250"))
        self.assertTrue(c.ask(b"RCPT TO:<r@elsewhere.example>").startswith(b"550"))
        self.server.rules["RCPT"] = b"550 no such user\r\n"
        self.assertTrue(c.ask(b"RCPT TO:<who@example.org>").startswith(b"550"))
        self.after = self.quiet()
        self.expect((
            ("vantrel_messages_total", "verdict", {"forward": 3, "reject": 1, "drop": 1, "failed": 1, "none": 1}),
            ("vantrel_message_bytes_total", "verdict",
             {"forward": 3 * len(FORWARD), "reject": len(REJECT), "drop": len(DROP), "failed": len(FORWARD)}),
            ("vantrel_filter_hits_total", "filter", {"ip_list": 1, "senders": 1, "guard": 1, "relay": 1}),
            ("vantrel_sessions_total", "interface", {"net": 3}),
            ("vantrel_tls_sessions_total", "version", {"TLSv1.2": 0, "TLSv1.3": 0}),
            ("vantrel_replies_total", "class", {each: self.seen[each] for each in ("2xx", "3xx", "4xx", "5xx")}),
            ("vantrel_message_size_bytes_bucket", "le", {"1024": 7, "+Inf": 7})))
        self.assertEqual((self.grown("vantrel_scan_seconds_count"), self.grown("vantrel_relay_seconds_count")), (6, 3))
        self.assertEqual(self.after["vantrel_spool_bytes"], 0)

    def test_what_is_in_hand_shows(self):
        c = self.opened()
        c.envelope()
        c.ask(b"DATA")
        c.send(b"x" * 998 + b"\r\n" * 50 + b"more")
        self.assertTrue(wait_until(lambda: self.pages.numbers()["vantrel_spool_bytes"] >= 998))
        self.assertEqual(self.pages.numbers()['vantrel_sessions_active{interface="net"}'], 1)
        c.close()
        self.assertEqual(self.quiet()["vantrel_spool_bytes"], 0)

    def test_no_client_is_counted_that_was_not_let_in(self):
        self.proxy.change({NET + "/MaxThreads": "1"})
        c = self.opened()
        c.reply()
        refused = self.client()
        self.assertTrue(refused.reply().startswith(b"421"))
        self.after = self.pages.numbers()
        self.assertEqual(self.grown("vantrel_sessions_refused_total", interface="net"), 1)
        self.assertEqual(self.grown("vantrel_sessions_total", interface="net"), 1)
        self.assertEqual(self.after['vantrel_sessions_active{interface="net"}'], 1)
        self.assertEqual(self.grown("vantrel_replies_total", **{"class": "4xx"}), 1)

    def test_names_of_interfaces_are_escaped(self):
        self.proxy.change({NET.replace("/net", '/a"b\\c') + "/Port": "0"})
        status, body, headers = self.pages.get("/metrics")
        self.assertEqual(headers["Content-Type"], "text/plain; version=0.0.4; charset=utf-8")
        self.assertIn('vantrel_sessions_total{interface="a\\"b\\\\c"} 0\n', body)
        done = subprocess.run(["promtool", "check", "metrics"], input=body, text=True, capture_output=True)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))

    def test_changes_of_the_store_are_counted(self):
        self.proxy.tool("set", AS + "/SenderBlackList/UsersList/2", "other@x.example")
        self.proxy.tool("del", AS + "/SenderBlackList/UsersList/2")
        self.after = self.pages.numbers()
        self.assertEqual(self.grown("vantrel_store_changes_total"), 2)

    def test_a_proxy_that_dies_leaves_its_totals_and_no_sessions(self):
        c = self.opened()
        c.reply()
        self.assertTrue(wait_until(lambda: self.pages.numbers()['vantrel_sessions_active{interface="net"}'] == 1))
        os.kill(self.proxy.process.pid, signal.SIGKILL)
        self.proxy.process.wait(10)
        after = self.pages.numbers()
        self.assertEqual(after['vantrel_sessions_active{interface="net"}'], 0)
        self.assertEqual(after['vantrel_program_up{program="vtsmtpproxy"}'], 0)
        self.assertGreaterEqual(after['vantrel_sessions_total{interface="net"}'], 1)
        self.assertNotIn('vantrel_process_start_time_seconds{program="vtsmtpproxy"}', after)
        self.proxy.process.stdout.close()
        self.proxy.start()
        after = self.quiet()
        self.assertEqual(after['vantrel_program_up{program="vtsmtpproxy"}'], 1)
        self.assertEqual(after['vantrel_messages_total{verdict="forward"}'], 0)


class CountedTls(Tls):
    def test_handshakes_by_version(self):
        self.start({"TLS/Mode": "offer"})
        pages = Pages(self.proxy)
        for version, more in ((ssl.TLSVersion.TLSv1_2, 1), (ssl.TLSVersion.TLSv1_3, 2)):
            for _ in range(more):
                client = TlsClient(self.proxy.port)
                self.addCleanup(client.close)
                client.start_tls(self.authority.trusting(version))
        distrustful = TlsClient(self.proxy.port)
        self.addCleanup(distrustful.close)
        with self.assertRaises(ssl.SSLError):
            distrustful.start_tls(ssl.create_default_context())
        counted = {name: value for name, value in pages.numbers().items() if name.startswith("vantrel_tls_sessions_total")}
        # With TLS 1.3 the server has finished before a client can say that it doesn't trust it.
        self.assertEqual(counted['vantrel_tls_sessions_total{version="TLSv1.2"}'], 1)
        self.assertIn(counted['vantrel_tls_sessions_total{version="TLSv1.3"}'], (2, 3))
        self.assertEqual(counted['vantrel_tls_sessions_total{version="other"}'], 0)


class Access(System):
    PATHS = ("/metrics", "/healthz", "/readyz")

    def setUp(self):
        super().setUp()
        self.pages = Pages(self.proxy)
        self.pages.account("prom", "secret")

    def owners_socket(self, path):
        with socket.socket(socket.AF_UNIX) as owner:
            owner.connect(self.proxy.home + "/pipes/VTSTATD.http")
            owner.sendall(b"GET " + path.encode() + b" HTTP/1.1\r\n\r\n")
            return int(owner.makefile("rb").readline().split()[1])

    def test_who_may_ask(self):
        good, wrong = "prom:secret", "prom:secret2"
        cases = (  # the word, status without an account, with one, with a wrong one
            (None, True, True, True), ("loopback", True, True, True), ("account", False, True, False),
            ("all", True, True, True), ("nonsense", False, True, False), ("loopback", True, True, True))
        for word, *expected in cases:
            if word is not None:
                self.proxy.tool("set", "--force", STATS + "/MetricsAccess", word)
            for path in self.PATHS:
                with self.subTest(word=word, path=path):
                    got = [self.pages.get(path, account)[0] != 401 for account in (None, good, wrong)]
                    self.assertEqual(got, expected)
                    self.assertEqual(self.pages.get(path, source="127.9.9.9")[0] != 401, expected[0])
                    self.assertEqual(self.owners_socket(path) != 401, expected[0])
                    self.assertEqual(self.pages.get(path, good, method="POST")[0], 405)
        self.assertEqual(self.pages.get("/")[0], 401, "the page of people needs an account as before")
        self.assertEqual(self.pages.get("/metrics/")[0], 404)


class Ready(Scanning):
    """What is said of an instance in which one program after the other dies."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.pages = Pages.__new__(Pages)
        cls.pages.proxy = cls.proxy
        cls.pages.port = int(cls.proxy.tool("get", STATS + "/HTTPPort").stdout)
        assert wait_until(cls.pages.answers, 20), "vtstatd does not come up"

    def ready(self):
        return self.pages.get("/readyz")[:2]

    def become(self, status, body, seconds=60):
        self.assertTrue(wait_until(lambda: self.ready() == (status, body), seconds), self.ready())

    def test_each_reason(self):
        self.become(200, "ok\n")
        self.assertEqual(self.pages.numbers()['vantrel_engine_up{engine="clamd"}'], 1)
        self.clamd.terminate()
        self.clamd.wait(30)
        self.become(503, "no engine is up\n")
        self.assertEqual(self.pages.numbers()['vantrel_engine_up{engine="clamd"}'], 0)
        os.unlink(self.proxy.home + "/clamd/clamd.sock") if os.path.exists(self.proxy.home + "/clamd/clamd.sock") else None
        self.start_engine()
        self.become(200, "ok\n")
        self.maild.kill()
        self.maild.wait(30)
        self.become(503, "the mail daemon does not run\n", 1)
        self.start_scanner()
        self.become(200, "ok\n")
        subprocess.run([BIN + "/vtsmtpproxy", "drain"], env=self.proxy.env, check=True, stdout=subprocess.DEVNULL)
        self.become(503, "the proxy is draining\n", 1)
        subprocess.run([BIN + "/vtsmtpproxy", "drain", "--cancel"], env=self.proxy.env, check=True, stdout=subprocess.DEVNULL)
        self.become(200, "ok\n", 1)
        with socket.create_server(("127.0.0.1", 0)) as taken:
            self.proxy.load({NET + "/Port": str(taken.getsockname()[1])})
            self.become(503, "the proxy does not listen\n")
        self.proxy.load({NET + "/Port": str(self.proxy.port)})
        self.become(200, "ok\n")
        self.maild.kill()
        self.maild.wait(30)
        self.proxy.process.kill()
        self.proxy.process.wait(30)
        self.become(503, "the proxy does not run\nthe mail daemon does not run\n", 1)
        self.assertEqual(self.pages.get("/healthz")[:2], (200, "ok\n"))


if __name__ == "__main__":
    unittest.main()
