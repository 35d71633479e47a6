"""The statistics daemon as a whole: records over its pipe, reports and pages over HTTP, and what strangers do to it."""

import base64
import csv
import io
import json
import os
import re
import signal
import socket
import sqlite3
import struct
import subprocess
import tempfile
import shutil
import threading
import time
import unittest

from harness import BIN, flat, free_port, wait_until
from waiting import serves

KEY = "/VTWIN/Daemons/StatsDaemon"
MARKER = b"2.0LIPCNOREPLY\0"
SOURCE_HOST, AGENT, SENDER, RECIPIENTS, LABEL, EVENT, VALUE = 0x4101, 0x1501, 0x1300, 0x4400, 0x1B00, 0x4801, 0x4901
LOOPBACK = struct.unpack("<i", socket.inet_aton("127.0.0.1"))[0]
FORM = ("request_type=%d&request_id=1&request_format=%d&agent_id=4&time_period=0&date_start=%s&date_end=%s")


class Pipe:
    """A client of the pipe VTSTATD."""

    def __init__(self, home):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(20)
        self.socket.connect(os.path.join(home, "pipes", "VTSTATD"))
        self.stream = self.socket.makefile("rb")

    def send(self, payload):
        self.socket.sendall(b"VTIPC\0\0\0" + struct.pack("<III", len(payload), len(payload), 0) + payload)

    def ask(self, payload):
        self.send(payload)
        header = self.stream.read(20)
        return self.stream.read(struct.unpack("<I", header[8:12])[0])

    def record(self, event, **fields):
        attributes = [(EVENT, event), (SOURCE_HOST, LOOPBACK), (AGENT, 5)]
        attributes += [(globals()[name.upper()], value) for name, value in fields.items()]
        reply = self.ask(flat(attributes))
        assert reply == MARKER, reply

    def close(self):
        self.stream.close()
        self.socket.close()


def parse(data):
    head, _, body = data.partition(b"\r\n\r\n")
    lines = head.decode().split("\r\n")
    headers = {name.lower(): value for name, value in (line.split(": ", 1) for line in lines[1:])}
    return int(lines[0].split()[1]), headers, body


class Statd(unittest.TestCase):
    keys = {}

    def setUp(self):
        self.home = tempfile.mkdtemp(prefix="vantrel-statd.")
        self.env = dict(os.environ, VANTREL_HOME=self.home)
        self.port = free_port()
        values = {KEY + "/HTTPPort": str(self.port)}
        values.update(self.keys)
        subprocess.run([BIN + "/vtregistry", "load"], input=json.dumps(values), text=True, env=self.env, check=True)
        self.process = None
        self.start()

    def start(self):
        self.process = subprocess.Popen([BIN + "/vtstatd", "debug"], env=self.env, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT)
        self.assertTrue(wait_until(self.ready, 20), "vtstatd does not come up")

    def ready(self):
        if not serves(self.home + "/pipes/VTSTATD"):
            return False
        try:
            socket.create_connection(("127.0.0.1", self.port), 1).close()
            return True
        except OSError:
            return False

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        output, _ = self.process.communicate(timeout=60)
        return output

    def tearDown(self):
        self.assertIsNone(self.process.poll(), "vtstatd has died")
        output = self.stop()
        self.assertNotIn(b"Sanitizer", output)
        shutil.rmtree(self.home)

    def pipe(self):
        pipe = Pipe(self.home)
        self.addCleanup(pipe.close)
        return pipe

    def pair(self):
        with open(os.path.join(self.home, "report.token"), encoding="ascii") as file:
            return file.read().strip()

    def raw(self, request, timeout=20):
        """Sends bytes and reads all that comes until the end."""
        with socket.create_connection(("127.0.0.1", self.port), timeout) as connection:
            connection.sendall(request)
            out = b""
            while data := connection.recv(65536):
                out += data
            return out

    def request(self, method, path="/", pair=None, body=b"", headers=""):
        token = base64.b64encode((pair or self.pair()).encode()).decode()
        head = "%s %s HTTP/1.1\r\nAuthorization: basic %s\r\n%s" % (method, path, token, headers)
        if method == "POST":
            if "Content-Type" not in headers:
                head += "Content-Type: application/x-www-form-urlencoded\r\n"
            head += "Content-Length: %d\r\n" % len(body)
        return parse(self.raw(head.encode() + b"\r\n" + body))

    def report(self, kind, form=0, start="", end=""):
        status, headers, body = self.request("POST", body=(FORM % (kind, form, start, end)).encode())
        self.assertEqual(status, 200)
        self.assertEqual(int(headers["content-length"]), len(body))
        self.assertNotIn("transfer-encoding", headers)
        return body.decode()

    def live(self):
        status, _, body = self.request("GET", "/live")
        self.assertEqual(status, 200)
        return json.loads(body)

    def settled(self):
        self.assertTrue(wait_until(lambda: self.live()["waiting"] == 0), self.live())

    def rows(self, sql):
        with sqlite3.connect(os.path.join(self.home, "stats.db"), timeout=10) as database:
            result = database.execute(sql).fetchall()
        database.close()
        return result


class StatRecords(Statd):
    def test_records_reach_the_table_and_all_reports(self):
        pipe = self.pipe()
        pipe.record(80, recipients="")
        pipe.record(100, sender="<a@Sender.example>", recipients="r@one.example;s@two.example", value=1000)
        pipe.record(101, sender="", label="Eicar \"quoted\\", recipients="r@one.example", value=70)
        pipe.record(109, sender="<a@held.example>", recipients="r@one.example", value=30)
        pipe.record(12345)
        self.assertEqual(pipe.ask(b"no tagged message"), MARKER)
        self.assertEqual(pipe.ask(flat([])), MARKER, "a record of nothing is one")
        self.settled()
        self.assertEqual(self.live()["lost"], 1)
        self.assertEqual(self.rows("SELECT count(*) FROM records")[0][0], 6)
        self.assertEqual(self.rows("SELECT source_host, sender, value, label FROM records WHERE event_code = 100"),
                         [(LOOPBACK, "<a@Sender.example>", 1000, None)])
        text = self.report(1)
        self.assertRegex(text, r"Infected, refused +101 +1 +70\n")
        self.assertRegex(text, r"Event 12345 +12345 +1 +0\n")
        self.assertRegex(text, r"Quarantined +109 +1 +30\n")
        self.assertIn("\nMessages 3, infected 1, bytes 1,100\n", text)
        self.assertRegex(text, r"\n127\.0\.0\.1 +5 ")
        self.assertIn("\nsender.example ", text)
        self.assertRegex(text, r"\none\.example +3 ")
        self.assertEqual(self.report(2, 2).splitlines()[2:], text.splitlines()[2:])
        self.assertIn("Eicar &quot;quoted\\", self.report(2, 1))
        rows = list(csv.reader(io.StringIO(self.report(2, 3))))
        self.assertEqual({len(row) for row in rows}, {5})
        self.assertIn(["Signature", 'Eicar "quoted\\', "Infected, refused", "1", "70"], rows)
        tables = self.report(3)
        self.assertIn('"Eicar \'quoted/"', tables)
        self.assertRegex(tables, r'^15 4\n"Event" "Code" "Total" "Bytes"\n')
        status, _, page = self.request("GET")
        self.assertEqual(status, 200)
        self.assertIn(b"Eicar &quot;quoted", page)

    def test_a_thousand_a_second_are_no_effort(self):
        def send():
            pipe = self.pipe()
            for _ in range(1000):
                pipe.record(100, sender="a@b.example")

        begin = time.monotonic()
        threads = [threading.Thread(target=send) for _ in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertLess(time.monotonic() - begin, 30)
        self.settled()
        self.assertEqual(self.rows("SELECT count(*) FROM records"), [(4000,)])
        self.assertEqual(self.rows("SELECT sum(count) FROM hours"), [(4000,)])

    def test_a_stop_writes_what_is_queued_and_a_kill_leaves_a_sound_file(self):
        pipe = self.pipe()
        for _ in range(500):
            pipe.record(100)
        self.stop()
        self.assertEqual(self.rows("SELECT count(*) FROM records"), [(500,)])
        self.start()
        pipe = self.pipe()
        for _ in range(1500):
            pipe.record(100, sender="a@b.example")
        self.process.kill()
        self.process.communicate()
        self.assertEqual(self.rows("PRAGMA integrity_check"), [("ok",)])
        kept = self.rows("SELECT count(*) FROM records")[0][0]
        self.assertGreaterEqual(kept, 500)
        self.assertEqual(self.rows("SELECT sum(count) FROM hours"), [(kept,)], "counts and records go together")
        self.start()
        self.pipe().record(100)
        self.settled()
        self.assertEqual(self.rows("SELECT count(*) FROM records"), [(kept + 1,)])

    def test_old_records_go_and_0_keeps_all(self):
        self.pipe().record(100)
        self.settled()
        self.stop()
        with sqlite3.connect(os.path.join(self.home, "stats.db")) as database:
            database.execute("INSERT INTO records(received, event_code) VALUES(strftime('%s', 'now') - 4 * 86400, 100)")
        database.close()
        count = "SELECT count(*) FROM records"
        registry = [BIN + "/vtregistry", "set", KEY + "/KeepDays"]
        subprocess.run(registry + ["0"], env=self.env, check=True)
        self.start()
        for days in ("0", "5"):
            subprocess.run(registry + [days], env=self.env, check=True)
            time.sleep(1)
            self.assertEqual(self.rows(count), [(2,)], days)
        subprocess.run(registry + ["3"], env=self.env, check=True)
        self.assertTrue(wait_until(lambda: self.rows(count) == [(1,)]))


class StatHttp(Statd):
    def test_accounts(self):
        passwd = [BIN + "/vtstatd", "passwd"]
        run = lambda *words, text="": subprocess.run(passwd + list(words), input=text, text=True, env=self.env,
                                                     capture_output=True).returncode
        self.assertEqual(run("ann", text="s3:cret\nmore\n"), 0)
        self.assertEqual(run("ann2", text="\n"), 1)
        self.assertEqual(run("a/b", text="x\n"), 2)
        for method, path in (("GET", "/"), ("GET", "/live"), ("POST", "/")):
            form = b"request_type=1" if method == "POST" else b""
            self.assertEqual(self.request(method, path, "ann:s3:cret", form)[0], 200)
            status, headers, _ = self.request(method, path, "ann:wrong", form)
            self.assertEqual(status, 401)
            self.assertTrue(headers["www-authenticate"].startswith("Basic "))
            status, headers, _ = parse(self.raw(("%s %s HTTP/1.1\r\n\r\n" % (method, path)).encode()))
            self.assertEqual(status, 401)
        dump = subprocess.run([BIN + "/vtregistry", "dump"], env=self.env, capture_output=True, text=True).stdout
        self.assertIn("Accounts/ann", dump)
        self.assertNotIn("s3:cret", dump)
        self.assertEqual(run("-d", "ann"), 0)
        self.assertEqual(self.request("GET", "/", "ann:s3:cret")[0], 401)

    def test_the_owner_is_served_whoever_has_the_port(self):
        env = {name: value for name, value in self.env.items() if not name.startswith("VANTREL_REPORT")}
        subprocess.run([BIN + "/vtregistry", "set", KEY + "/HTTPAddress", "127.0.0.3"], env=env, check=True)
        report = subprocess.run([BIN + "/vtreport"], env=env, capture_output=True, text=True, start_new_session=True)
        self.assertEqual(report.returncode, 0, report.stderr)
        self.assertIn("By event\n\nnothing in this period", report.stdout)

    def test_statuses(self):
        for method, path, status in (("GET", "/x", 404), ("POST", "/x", 404), ("GET", "/live/", 404), ("PUT", "/", 405), ("POST", "/live", 405),
                                     ("GET", "/?x=1", 200)):
            self.assertEqual(self.request(method, path)[0], status, (method, path))
        good = b"request_type=1"
        for body, headers in ((b"", ""), (b"\xff\0", ""), (good, "Content-Type: text/plain\r\n")):
            self.assertEqual(self.request("POST", body=body, headers=headers)[0], 400, body[:40])
        self.assertEqual(self.request("POST", body=good, headers="Content-Type: Application/X-WWW-Form-Urlencoded; "
                                      "charset=utf-8\r\n")[0], 200)

    def test_a_page_brings_all_it_needs(self):
        status, headers, body = self.request("GET")
        self.assertEqual(status, 200)
        policy = headers["content-security-policy"]
        self.assertIn("default-src 'none'", policy)
        self.assertNotIn("unsafe", policy)
        nonce = re.search(r"script-src 'nonce-([0-9a-f]{32})'", policy).group(1)
        for element in re.findall(rb"<(?:style|script)[^>]*>", body):
            self.assertIn(b'nonce="%s"' % nonce.encode(), element)
        self.assertEqual(headers["x-content-type-options"], "nosniff")
        self.assertEqual(headers["cache-control"], "no-store")
        self.assertNotIn(nonce, self.request("GET")[1]["content-security-policy"], "a new one each time")
        self.assertNotRegex(body, rb"(?:src|href|url)\s*[=(]")
        self.assertIn(b"No records yet", body)

    def test_the_port_can_be_moved(self):
        old, self.port = self.port, free_port()
        subprocess.run([BIN + "/vtregistry", "set", KEY + "/HTTPPort", str(self.port)], env=self.env, check=True)
        self.assertTrue(wait_until(self.ready))
        self.assertEqual(self.request("GET", "/live")[0], 200)
        with self.assertRaises(OSError):
            socket.create_connection(("127.0.0.1", old), 1)


class StatFaults(Statd):
    def test_large_forms_are_not_read(self):
        token = base64.b64encode(self.pair().encode()).decode()
        head = "POST / HTTP/1.1\r\nContent-Type: application/x-www-form-urlencoded\r\nAuthorization: basic %s\r\n" % token
        for length in ("65537", "104857600", "99999999999999999", "18446744073709551615"):
            data = self.raw((head + "Content-Length: %s\r\n\r\n" % length).encode())
            self.assertEqual(parse(data)[0], 413, length)
        for length in ("x", "-1", "99999999999999999999999"):
            data = self.raw((head + "Content-Length: %s\r\n\r\n" % length).encode())
            self.assertIn(parse(data)[0], (400, 413), length)
        self.assertEqual(parse(self.raw((head + "Transfer-Encoding: chunked\r\n\r\n").encode()))[0], 411)
        before = self.memory()
        with socket.create_connection(("127.0.0.1", self.port), 20) as connection:
            connection.sendall((head + "Content-Length: 104857600\r\n\r\n").encode())
            try:
                for _ in range(1600):
                    connection.sendall(b"x" * 65536)
                self.fail("100 MB were taken")
            except OSError:
                pass
        self.assertLess(self.memory() - before, 20 << 10)
        body = b"request_type=1&x=" + b"y" * (65536 - 17)
        self.assertEqual(self.request("POST", body=body)[0], 200, "64 KiB are not too large")

    def memory(self):
        with open("/proc/%d/status" % self.process.pid, encoding="ascii") as file:
            return int(re.search(r"VmRSS:\s+(\d+)", file.read()).group(1))

    def test_nonsense_does_no_harm(self):
        for data in (b"\r\n\r\n", b"\0" * 1000, b"GET / HTTP/9.9\r\n\r\n", b"GET\r\n\r\n", b"GET / HTTP/1.1\r\n: x\r\n\r\n",
                     b"GET / HTTP/1.1\r\n" + b"A: b\r\n" * 20000 + b"\r\n", b"GET /" + b"x" * 200000 + b" HTTP/1.1\r\n\r\n",
                     b"\x16\x03\x01\x02\0\x01\0\x01\xfc\x03\x03"):
            with socket.create_connection(("127.0.0.1", self.port), 20) as connection:
                try:
                    connection.sendall(data)
                    connection.shutdown(socket.SHUT_WR)
                    while connection.recv(65536):
                        pass
                except OSError:
                    pass
        pipe = self.pipe()
        for payload in (b"x", flat([(SENDER, "a" * 300000)]), struct.pack("<IIII", 16, 5, 5, 0), b"\xff" * 64):
            self.assertEqual(pipe.ask(payload), MARKER)
        half = self.pipe()
        half.socket.sendall(b"VTIPC\0\0\0\xff\xff")
        self.pipe().record(100)
        self.settled()

    def test_silent_and_slow_clients_are_let_go_while_records_come_in(self):
        silent = [socket.create_connection(("127.0.0.1", self.port), 20) for _ in range(1000)]
        slow = socket.create_connection(("127.0.0.1", self.port), 20)
        begin = time.monotonic()
        pipe = self.pipe()
        gone = 0
        slow_gone = None
        while time.monotonic() - begin < 50 and (gone < len(silent) or slow_gone is None):
            pipe.record(100)
            self.assertEqual(self.request("GET", "/live")[0], 200)
            if slow_gone is None:
                try:
                    slow.sendall(b"G")
                    slow.settimeout(0.05)
                    if slow.recv(1) == b"":
                        slow_gone = time.monotonic() - begin
                except TimeoutError:
                    pass
                except OSError:
                    slow_gone = time.monotonic() - begin
            gone = sum(1 for each in silent if self.ended(each))
            time.sleep(0.5)
        self.assertEqual(gone, len(silent))
        self.assertIsNotNone(slow_gone)
        self.assertGreater(slow_gone, 20)
        for each in silent + [slow]:
            each.close()

    @staticmethod
    def ended(connection):
        connection.setblocking(False)
        try:
            return connection.recv(1, socket.MSG_PEEK) == b""
        except BlockingIOError:
            return False
        except OSError:
            return True

    def test_without_its_port_it_still_receives(self):
        self.stop()
        with socket.create_server(("127.0.0.1", self.port)):
            self.start()
            self.pipe().record(100)
            output = self.stop()
        self.assertIn(b"can't serve HTTP on 127.0.0.1:%d" % self.port, output)
        self.assertEqual(self.rows("SELECT count(*) FROM records"), [(1,)])
        self.start()

    def test_a_logger_that_does_not_answer_holds_up_no_stop(self):
        self.stop()
        logger = socket.socket(socket.AF_UNIX)
        self.addCleanup(logger.close)
        logger.bind(os.path.join(self.home, "pipes", "vtlogd"))
        logger.listen(8)
        with socket.create_server(("127.0.0.1", self.port)):
            self.start()
            connection, _ = logger.accept()  # the warning that the port is taken
            self.addCleanup(connection.close)
            self.pipe().record(100)
            begin = time.monotonic()
            self.stop()
            self.assertLess(time.monotonic() - begin, 20)
        self.assertEqual(self.rows("SELECT count(*) FROM records"), [(1,)])
        self.start()

    def test_guesses_hold_nobody_up(self):
        done = threading.Event()

        def guess():
            while not done.is_set():
                try:
                    self.assertIn(self.request("GET", "/", "ann:x")[0], (401, 503))
                except (OSError, IndexError):
                    pass

        threads = [threading.Thread(target=guess) for _ in range(20)]
        for thread in threads:
            thread.start()
        try:
            for _ in range(20):
                begin = time.monotonic()
                self.pipe().record(100)
                self.assertEqual(self.request("GET", "/live")[0], 200)
                self.assertLess(time.monotonic() - begin, 10)
        finally:
            done.set()
            for thread in threads:
                thread.join()
