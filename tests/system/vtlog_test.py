"""vtlog: what it finds in the log, and what it follows."""

import json
import os
import re
import signal
import subprocess
import time
import unittest

from harness import BIN, wait_until
from logged import BODY, FORMAT, Logged


class Vtlog(Logged):
    KEYS = {"/VTWIN/Daemons/LoggerDaemon/MaxLogSize": "1500"}

    def mail(self, sender):
        client = self.client()
        client.envelope(sender=sender)
        client.data(BODY + b".\r\n")
        client.close()
        self.assertTrue(wait_until(lambda: self.vtlog("find", "--from", sender.decode())[1]), sender)

    def follow(self, *words):
        process = subprocess.Popen([BIN + "/vtlog", "follow", *words], env=self.proxy.env, stdout=subprocess.PIPE, text=True)
        self.addCleanup(process.stdout.close)
        time.sleep(0.5)
        return process

    def test_find_over_all_files_in_both_formats(self):
        for i in range(8):
            self.proxy.tool("set", FORMAT, "json" if i % 2 else "text")
            self.mail(b"s%d@example.org" % i)
        self.assertIn("vtlogd.log.2", os.listdir(self.proxy.home + "/log"))
        code, lines = self.vtlog("find", "--to", "R@example.org", "--json")
        self.assertEqual(code, 0)
        self.assertEqual([json.loads(line)["from"] for line in lines], ["s%d@example.org" % i for i in range(8)])
        code, lines = self.vtlog("find", "--from", "@example.org", "--verdict", "forward", "--peer", "127.0.0.0/8", "--since", "1h")
        self.assertEqual([re.search(r" from=(\S+)", line)[1] for line in lines], ["s%d@example.org" % i for i in range(8)])
        one = json.loads(self.vtlog("find", "--from", "<S1@example.org>", "--verdict", "FORWARD", "--json")[1][0])
        for typed in (one["id"], "[%s]" % one["id"], "<%s>" % one["id"], one["id"].upper()):
            self.assertEqual(len(self.vtlog("find", "--id", typed)[1]), 1, typed)
        for words in (("--verdict", "reject"), ("--peer", "192.0.2.1"), ("--until", "1h"), ("--from", "s@example.org")):
            self.assertEqual(self.vtlog("find", *words), (1, []), words)

    def test_follow_goes_on_over_rotation_and_ends_at_once(self):
        self.mail(b"before@example.org")
        process = self.follow("--to", "r@example.org")
        for i in range(8):
            self.mail(b"s%d@example.org" % i)
        os.unlink(self.proxy.home + "/log/vtlogd.log")
        self.mail(b"last@example.org")
        senders = [re.search(r" from=(\S+)@", process.stdout.readline())[1] for _ in range(9)]
        self.assertEqual(senders, ["s%d" % i for i in range(8)] + ["last"])
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(5), 0)
        self.assertEqual(process.stdout.read(), "")

    def test_a_reader_that_goes_ends_it(self):
        process = self.follow()
        process.stdout.close()
        self.mail(b"a@example.org")
        self.assertEqual(process.wait(5), 0)

    def test_words_and_files_that_are_wrong(self):
        for words in (("find", "--since", "yesterday"), ("find", "--verdict", "maybe"), ("find", "--peer", "x"), ("find", "x"),
                      ("find", "--id"), ("look",), ()):
            done = subprocess.run([BIN + "/vtlog", *words], env=self.proxy.env, capture_output=True, text=True)
            self.assertEqual((done.returncode, done.stdout), (2, ""), words)
        self.next_line("session", 1)  # of the look whether the proxy listens
        for file in os.listdir(self.proxy.home + "/log"):
            os.unlink(self.proxy.home + "/log/" + file)
        for word in ("find", "follow"):
            done = subprocess.run([BIN + "/vtlog", word], env=self.proxy.env, capture_output=True, text=True, timeout=20)
            self.assertEqual((done.returncode, done.stdout), (3, ""))
            self.assertIn("vtlogd.log", done.stderr)


if __name__ == "__main__":
    unittest.main()
