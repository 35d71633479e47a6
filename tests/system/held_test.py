"""The pages of the quarantine: who may see them, what of a message they show, and how it gets out."""

import base64
import json
import os
import pwd
import re
import signal
import subprocess
import tempfile
import threading
import time
import unittest
import urllib.error
import urllib.parse
import urllib.request

from harness import BIN, MailServer, Proxy, wait_until
from metrics import parse

STATS = "/VTWIN/Daemons/StatsDaemon/"
HOSTILE = (b"Subject: <script>alert(1)</script>\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n"
           b"Content-Type: text/html\r\n\r\n</pre><img src=x onerror=alert(2)>\r\n--b--\r\n")


class Stay(urllib.request.HTTPRedirectHandler):
    def redirect_request(self, *args):
        return None


class Held(unittest.TestCase):
    def setUp(self):
        self.server = MailServer()
        self.addCleanup(self.server.close)
        self.proxy = Proxy(self.server.port, start=False)
        self.addCleanup(self.proxy.stop)
        for name in ("ann", "bob"):
            subprocess.run([BIN + "/vtstatd", "passwd", name], input="secret-%s\n" % name, text=True, env=self.proxy.env, check=True,
                           capture_output=True)
        self.proxy.tool("set", STATS + "QuarantineAccounts/1", "ann")
        self.proxy.statistics()
        self.url = "http://127.0.0.1:%s" % self.proxy.tool("get", STATS + "HTTPPort").stdout.strip()
        self.assertTrue(wait_until(lambda: self.ask("/")[0] == 200))

    def ask(self, path, form=None, account="ann", password=None):
        pair = "%s:%s" % (account, password or "secret-" + account)
        request = urllib.request.Request(self.url + path, data=urllib.parse.urlencode(form).encode() if form is not None else None,
                                         headers={"Authorization": "Basic " + base64.b64encode(pair.encode()).decode()})
        try:
            with urllib.request.build_opener(Stay).open(request, timeout=20) as reply:
                return reply.status, reply.read().decode(), reply.headers
        except urllib.error.HTTPError as error:
            with error:
                return error.code, error.read().decode(), error.headers
        except OSError:
            return 0, "", {}

    def hold(self, message=HOSTILE):
        with tempfile.NamedTemporaryFile() as file:
            file.write(message)
            file.flush()
            done = subprocess.run([BIN + "/act", file.name, "chunks", "quarantine:<b>bad</b>"], env=self.proxy.env, text=True,
                                  capture_output=True, check=True)
        return done.stdout.split()[1]

    def state(self, which):
        done = subprocess.run([BIN + "/vtquarantine", "show", which, "--json"], env=self.proxy.env, text=True, capture_output=True)
        return json.loads(done.stdout)["state"] if done.returncode == 0 else "gone"

    def token(self, which, account="ann"):
        return re.search(r'name="token" value="([0-9a-f]{32})"', self.ask("/quarantine/" + which, account=account)[1])[1]

    def test_what_is_counted(self):
        first, second = self.hold(), self.hold()
        subprocess.run([BIN + "/vtquarantine", "release", first], env=self.proxy.env, check=True, capture_output=True)

        def counted(*names):
            numbers = parse(self.ask("/metrics")[1])
            return [numbers["vantrel_quarantine_" + name] for name in names]
        names = ('messages{state="held"}', 'messages{state="released"}', "bytes", "released_total", "expired_total", "pushed_out_total")
        self.assertEqual(counted(*names), [1, 1, 2 * len(HOSTILE), 1, 0, 0])
        self.ask("/quarantine/" + second, {"action": "release", "token": self.token(second)})
        self.assertTrue(wait_until(lambda: counted("released_total") == [2]))
        subprocess.run([BIN + "/vtquarantine", "expire", "--days", "0"], env=self.proxy.env, check=True, capture_output=True)
        self.assertEqual(counted(*names), [0, 0, 0, 2, 2, 0])

    def test_who_may(self):
        which = self.hold()
        for path, form in (("/quarantine", None), ("/quarantine/" + which, None), ("/quarantine/" + which, {"action": "delete"})):
            self.assertEqual(self.ask(path, form, account="bob")[0], 403, path)
            self.assertEqual(self.ask(path, form, password="wrong")[0], 401, path)
        with open(self.proxy.home + "/report.token", encoding="ascii") as file:
            self.assertEqual(self.ask("/quarantine", account="local", password=file.read().strip()[6:])[0], 200, "the owner")
        for path in ("/quarantine/nothing", "/quarantine/../store.db", "/quarantine/" + which + "/x", "/quarantinex"):
            self.assertEqual(self.ask(path)[0], 404, path)
        self.assertEqual(self.state(which), "held")

    def test_nothing_of_a_message_is_active(self):
        which = self.hold()
        for path in ("/quarantine", "/quarantine?q=SCRIPT", "/quarantine/" + which):
            code, page, headers = self.ask(path)
            self.assertEqual(code, 200)
            self.assertIn(which, page)
            self.assertIn("&lt;script&gt;", page)
            self.assertFalse(re.search(r"<script|<img|<b>|alert\(2\)&gt;</pre><", page), page)
            self.assertIn("default-src 'none'", headers["Content-Security-Policy"])
        self.assertIn("onerror=alert(2)&gt;", page)
        self.assertNotIn(which, self.ask("/quarantine?q=nobody")[1])

    def test_release_and_delete(self):
        which, other = self.hold(), self.hold()
        for form in ({"action": "release"}, {"action": "release", "token": ""}, {"action": "release", "token": "0" * 32},
                     {"action": "delete", "token": "x"}):
            self.assertEqual(self.ask("/quarantine/" + which, form)[0], 403, form)
        token = self.token(which)
        self.assertEqual(self.ask("/quarantine/" + which, {"action": "open", "token": token})[0], 400)
        self.assertEqual(self.state(which), "held")
        self.server.rules["DATA"] = b"451 <later>\r\n"
        self.assertEqual(self.ask("/quarantine/" + which, {"action": "release", "token": token})[0], 303)
        self.assertTrue(wait_until(lambda: "451 &lt;later&gt;" in self.ask("/quarantine/" + which)[1]))
        self.assertEqual(self.state(which), "held")
        self.server.rules["DATA"] = b"354 go on\r\n"
        code, _, headers = self.ask("/quarantine/" + which, {"action": "release", "token": token})
        self.assertEqual((code, headers["Location"]), (303, "/quarantine/" + which))
        self.assertTrue(wait_until(lambda: self.state(which) == "released"))
        self.assertTrue(wait_until(lambda: "Released; the server said: 250 queued" in self.ask("/quarantine/" + which)[1]))
        self.assertEqual(self.ask("/quarantine/" + which, {"action": "release", "token": token})[0], 303)
        time.sleep(0.5)  # what the releaser would need
        page = self.ask("/quarantine/" + which)[1]
        self.assertIn("Released; the server said: 250 queued", page)
        self.assertNotIn("Not released", page)
        self.assertEqual(self.server.messages, [b"X-Vantrel-Released: " + which.encode() + b"\r\n" + HOSTILE])
        self.assertEqual(self.ask("/quarantine/" + other, {"action": "delete", "token": token})[0], 303)
        self.assertEqual(self.state(other), "gone")
        self.assertEqual(self.ask("/quarantine/" + other, {"action": "delete", "token": token})[0], 404)

    def test_a_second_click_releases_nothing(self):
        self.proxy.logger()
        which = self.hold()
        form = {"action": "release", "token": self.token(which)}
        gate = threading.Event()
        self.addCleanup(gate.set)
        self.server.rules["DATA"] = lambda line: gate.wait(20) and b"354 go on\r\n"
        for _ in range(3):
            self.assertEqual(self.ask("/quarantine/" + which, form)[0], 303)
        self.assertTrue(wait_until(lambda: self.state(which) == "releasing"))
        self.assertEqual(self.ask("/quarantine/" + which, form)[0], 303)
        self.assertIn("Being released.", self.ask("/quarantine/" + which)[1])
        gate.set()
        self.assertTrue(wait_until(lambda: self.state(which) == "released"))
        self.assertEqual(self.ask("/quarantine/" + which, form)[0], 303)
        self.assertTrue(wait_until(lambda: self.lines(which)))
        time.sleep(0.5)
        self.assertEqual(self.lines(which), [self.line(which)])
        self.assertIn("Released; the server said: 250 queued", self.ask("/quarantine/" + which)[1])

    def test_the_pages_words_know_no_command_line(self):
        which, cut = self.hold(), self.hold()
        self.server.rules["END"] = b""
        process = subprocess.Popen([BIN + "/vtquarantine", "release", cut], env=self.proxy.env)
        self.assertTrue(wait_until(lambda: self.server.messages))
        process.kill()
        process.wait()
        self.assertIn("may have it", self.ask("/quarantine/" + cut)[1])
        self.server.rules["END"] = None
        self.ask("/quarantine/" + which, {"action": "release", "token": self.token(which)})
        self.assertTrue(wait_until(lambda: "Not released: " in self.ask("/quarantine/" + which)[1]))
        self.assertIn("the server may have it</p>", self.ask("/quarantine/" + which)[1])
        done = subprocess.run([BIN + "/vtquarantine", "release", which], env=self.proxy.env, text=True, capture_output=True)
        self.assertIn("its state is `releasing`; --again sends it all the same", done.stderr)

    def lines(self, which):
        """Of a message, in the log: what was done with it, without the time."""
        done = subprocess.run([BIN + "/vtlog", "find", "--id", which, "--json"], env=self.proxy.env, text=True, capture_output=True)
        return [{name: value for name, value in json.loads(line).items() if name != "time"} for line in done.stdout.splitlines()]

    def line(self, which, **fields):
        return {"event": "quarantine", "id": which, "log_id": "", "act": "release", "result": "done", "through": "page", "by": "ann",
                "from": "s@example.org", "to": "r@example.org", "reply": "250 queued", **fields}

    def test_what_is_done_is_in_the_log(self):
        logger = self.proxy.logger()
        which, other = self.hold(), self.hold()
        person = {"through": "vtquarantine", "by": not os.getuid() and os.environ.get("SUDO_USER") or pwd.getpwuid(os.getuid()).pw_name}
        release = [BIN + "/vtquarantine", "release", which, "--to"]
        self.server.rules["RCPT"] = b"550 no \"such\" one\r\n"
        subprocess.run(release + ["a@example.org"], env=self.proxy.env, capture_output=True)
        self.server.rules.update(RCPT=b"250 ok\r\n", END=b"250 queued\r\n")
        subprocess.run(release + ["b@example.org"], env=self.proxy.env, capture_output=True, check=True)
        expected = [self.line(which, **person, result="failed", to="a@example.org", reply='a@example.org: 550 no "such" one'),
                    self.line(which, **person, to="b@example.org")]
        self.assertTrue(wait_until(lambda: len(self.lines(which)) == 2), self.proxy.log())
        self.assertEqual(self.lines(which), expected)
        self.ask("/quarantine/" + other, {"action": "release", "token": self.token(other)})
        self.assertTrue(wait_until(lambda: self.state(other) == "released"))
        self.ask("/quarantine/" + other, {"action": "delete", "token": self.token(other)})
        expected = [self.line(other), self.line(other, act="delete", reply="")]
        self.assertTrue(wait_until(lambda: len(self.lines(other)) == 2), self.proxy.log())
        self.assertEqual(self.lines(other), expected)
        self.assertIn("event=quarantine id=%s log_id=\"\" act=delete result=done by=ann through=page " % other, self.proxy.log())
        subprocess.run([BIN + "/vtquarantine", "delete", which, "nothing"], env=self.proxy.env, capture_output=True)
        self.assertTrue(wait_until(lambda: len(self.lines(which)) == 3), self.proxy.log())
        self.assertEqual(self.lines(which)[-1], self.line(which, **person, act="delete", reply=""))
        self.assertEqual(self.lines("nothing"), [])
        # Nobody waits for one that hangs, or is not there.
        for number in (signal.SIGSTOP, signal.SIGKILL):
            which = self.hold()
            logger.send_signal(number)
            begin = time.monotonic()
            subprocess.run([BIN + "/vtquarantine", "delete", which], env=self.proxy.env, check=True, timeout=30)
            self.assertLess(time.monotonic() - begin, 5, number)
            self.assertEqual(self.state(which), "gone")

    def test_a_stop_waits_for_no_server(self):
        which = self.hold()
        self.server.rules["END"] = b""
        self.ask("/quarantine/" + which, {"action": "release", "token": self.token(which)})
        self.assertTrue(wait_until(lambda: self.server.messages))
        daemon = self.proxy.daemons[-1]
        daemon.terminate()
        daemon.wait(10)
        self.assertEqual(self.state(which), "releasing")


if __name__ == "__main__":
    unittest.main()
