"""vtreport as its user meets it, against an HTTP server that plays the statistics daemon."""

import base64
import datetime
import glob
import os
import pty
import re
import shutil
import socket
import subprocess
import tempfile
import unittest

from harness import BIN, Listening

TABLES = b'2 3 Event "" Count "Denied peers" 10.0.0.1 7 1 2 "caf\xc3\xa9" \x1b[31m'


class Server(Listening):
    """Answers each connection with the same bytes and keeps the requests."""

    def __init__(self, answer, path=None):
        self.answer = answer
        self.requests = []
        if path is None:
            self.listener = socket.create_server(("127.0.0.1", 0))
            self.port = self.listener.getsockname()[1]
        else:
            self.listener = socket.socket(socket.AF_UNIX)
            self.listener.bind(path)
            self.listener.listen()
        self.listen()

    def _serve(self, client):
        with client, client.makefile("rb") as stream:
            head = b""
            while not head.endswith(b"\r\n\r\n"):
                line = stream.readline()
                if not line:
                    break
                head += line
            length = re.search(rb"Content-Length: (\d+)", head)
            body = stream.read(int(length.group(1))) if length else b""
            self.requests.append(head + body)
            client.sendall(self.answer)

    def close(self):
        try:
            self.listener.shutdown(socket.SHUT_RDWR)  # wakes the accept, which would keep the port
        except OSError:
            pass
        super().close()


def ok(body):
    return b"HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: %d\r\n\r\n" % len(body) + body


class Report(unittest.TestCase):
    def setUp(self):
        self.home = tempfile.mkdtemp(prefix="vantrel-report.")
        self.out = tempfile.mkdtemp(prefix="vantrel-report-out.")
        self.addCleanup(shutil.rmtree, self.home, True)
        self.addCleanup(shutil.rmtree, self.out, True)
        self.env = dict(os.environ, VANTREL_HOME=self.home, VANTREL_REPORT_USER="joe", VANTREL_REPORT_PASSWORD="s:e")
        self.server = None

    def serve(self, answer):
        self.server = Server(answer)
        self.addCleanup(self.server.close)
        subprocess.run([BIN + "/vtregistry", "set", "/VTWIN/Daemons/StatsDaemon/HTTPPort", str(self.server.port)],
                       env=self.env, check=True)

    def run_it(self, *words):
        # In a session of its own, so that no terminal of the tester's is asked.
        return subprocess.run([BIN + "/vtreport", *words], env=self.env, cwd=self.out, capture_output=True, timeout=30,
                              start_new_session=True)

    def fails(self, result, word, left=()):
        self.assertEqual(result.returncode, 1, result)
        self.assertEqual(result.stdout, b"")
        self.assertRegex(result.stderr.decode(), "^vtreport: .*" + word + ".*\n$")
        self.assertEqual([os.path.getsize(os.path.join(self.out, name)) for name in os.listdir(self.out)], list(left))

    def test_tables_are_aligned_and_cannot_steer_the_terminal(self):
        self.serve(ok(TABLES))
        result = self.run_it("--from", "2024-01-31", "--to", "2024-02-29")
        self.assertEqual(result.returncode, 0, result)
        self.assertEqual(result.stdout.decode(), "Mail from 2024-01-31 to 2024-02-29 (UTC)\n\nBy event\n\n"
                         "Event         Count\nDenied peers  10.0.0.1  7\n\nBy caf\u00e9\n\nnothing in this period\n")
        token = base64.b64encode(b"joe:s:e")
        self.assertIn(b"basic " + token + b"\r\n", self.server.requests[0])
        self.assertIn(b"request_type=3&", self.server.requests[0])
        self.assertIn(b"date_start=2024-01-31&date_end=2024-02-29", self.server.requests[0])
        self.assertEqual(os.listdir(self.out), [], "no file is left")

    def test_formats(self):
        for number, name in ((1, "html"), (2, "txt"), (3, "csv")):
            body = name.encode() * 5000
            self.serve(ok(body))
            result = self.run_it("--format", name)
            self.assertEqual(result.returncode, 0, result)
            path = result.stdout.decode().rstrip("\n")
            self.assertEqual(os.path.dirname(path), os.path.realpath(self.out))
            self.assertTrue(path.endswith("." + name), path)
            with open(path, "rb") as report:
                self.assertEqual(report.read(), body)
            self.assertIn(b"request_type=2&request_id=1&request_format=%d&" % number, self.server.requests[0])

    def test_the_last_thirty_days_and_one_end_given(self):
        self.serve(ok(b"1 1 x"))
        before = datetime.datetime.now(datetime.timezone.utc).date()
        self.run_it()
        today = datetime.datetime.now(datetime.timezone.utc).date()
        if before == today:
            start = today - datetime.timedelta(29)
            self.assertIn(b"date_start=%s&date_end=%s" % (start.isoformat().encode(), today.isoformat().encode()),
                          self.server.requests[0])
        self.run_it("--to", "2024-03-01")
        self.assertIn(b"date_start=2024-02-01&date_end=2024-03-01", self.server.requests[1])

    def test_an_empty_report(self):
        self.serve(ok(b"0"))
        result = self.run_it()
        self.assertEqual((result.returncode, result.stdout.decode().splitlines()[1:]), (0, ["", "nothing in this period"]))

    def test_events_of_an_empty_period(self):
        self.serve(ok(b'2 4 Event Code Total Bytes Clean 100 0 0'))
        result = self.run_it()
        self.assertEqual((result.returncode, result.stdout.decode().splitlines()[1:]),
                         (0, ["", "By event", "", "nothing in this period"]))

    def test_a_wide_table_fits_the_page(self):
        sender, counts = "s" * 200 + "@example.org", (0, 7, 1234567, 0)
        row = [sender, *(counts * 4), "99"]
        self.serve(ok((f"2 {len(row)} Sender " + " ".join("Refused" for _ in row[1:]) + ' "' + '" "'.join(map(str, row)) + '"').encode()))
        lines = self.run_it().stdout.decode().splitlines()
        self.assertEqual(max(map(len, lines[4:6])), 100)
        self.assertEqual(lines[5].split()[1:], ["7", "1234567"] * 4 + ["99"])
        self.assertRegex(lines[5], r"^s+\.\.  ")
        self.assertEqual(lines[6], "(0 in all: " + ", ".join(["Refused"] * 8) + ")")

    def test_failures(self):
        for status, why in (("401 Unauthorized", "refuses user and password"), ("400 Bad Request", "can't do anything with the days"),
                            ("503 Busy", "busy"), ("500 Oops", "status 500")):
            self.serve(b"HTTP/1.1 %s\r\nContent-Length: 0\r\n\r\n" % status.encode())
            self.fails(self.run_it(), "no report from 127.0.0.1: .*" + why)
        self.serve(b"")
        self.fails(self.run_it(), "gives no answer")
        self.serve(ok(b"a" * 10000)[:-1])
        self.fails(self.run_it("--format", "csv"), "before it was whole", [8192])
        os.unlink(os.path.join(self.out, os.listdir(self.out)[0]))
        self.env["TMPDIR"] = self.home
        self.fails(self.run_it(), "no report")
        self.assertEqual(glob.glob(self.home + "/vtreport*"), [], "of the tables nothing stays")
        self.env["TMPDIR"] = "/nowhere"
        self.fails(self.run_it(), "temporary directory")
        self.serve(ok(b"x"))
        self.server.close()
        self.fails(self.run_it("--format", "csv"), "doesn't run there")
        self.fails(self.run_it("--host", "no-such-host.invalid"), "unknown host: no-such-host.invalid")

    def test_credentials(self):
        self.serve(ok(b"1 1 x"))
        del self.env["VANTREL_REPORT_PASSWORD"]
        self.assertEqual(self.run_it().returncode, 0, "the server decides whether it wants any")
        self.assertIn(b"basic " + base64.b64encode(b":") + b"\r\n", self.server.requests[-1])
        self.server.answer = b"HTTP/1.1 401 Unauthorized\r\nContent-Length: 0\r\n\r\n"
        self.fails(self.run_it(), "VANTREL_REPORT_USER")
        with open(os.path.join(self.home, "report.token"), "w") as token:
            token.write("local:0123\n")
        # The token is this instance's: neither another host nor whoever has taken the port must learn it.
        del self.server.requests[:]
        self.fails(self.run_it(), "no report")
        self.fails(self.run_it("--host", "127.0.0.2"), "doesn't run there")
        own = Server(ok(b"1 1 x"), self.home + "/pipes/VTSTATD.http")
        self.addCleanup(own.close)
        for host in ("127.0.0.1", "localhost"):
            self.assertEqual(self.run_it("--host", host).returncode, 0)
            self.assertIn(b"basic " + base64.b64encode(b"local:0123") + b"\r\n", own.requests[-1])
        self.assertEqual(self.server.requests, [])

    def test_the_terminal_is_asked_without_echo(self):
        self.serve(ok(b"1 1 done"))
        del self.env["VANTREL_REPORT_USER"]
        child, terminal = pty.fork()
        if child == 0:
            os.execve(BIN + "/vtreport", ["vtreport"], self.env)
        shown = bytearray()

        def read_until(text):
            while text not in shown:
                try:
                    shown.extend(os.read(terminal, 4096))
                except OSError:
                    break
            self.assertIn(text, shown)

        read_until(b"User: ")
        os.write(terminal, b"ann\n")
        read_until(b"Password: ")
        os.write(terminal, b"hidden\n")
        read_until(b"done")
        self.assertEqual(os.waitpid(child, 0)[1], 0)
        os.close(terminal)
        self.assertIn(b"basic " + base64.b64encode(b"ann:hidden") + b"\r\n", self.server.requests[0])
        self.assertNotIn(b"hidden", shown)

    def test_usage(self):
        for words in (["--format", "pdf"], ["--format"], ["--from", "2023-02-29"], ["--to", ""], ["--from", "2024-05-02", "--to", "2024-05-01"],
                      ["--nonsense"], ["word"]):
            result = self.run_it(*words)
            self.assertEqual((result.returncode, result.stdout), (2, b""), words)
            self.assertIn(b"\nusage: vtreport [--host HOST]", result.stderr, words)
        result = self.run_it("--help")
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        self.assertTrue(result.stdout.startswith(b"usage: vtreport"))

