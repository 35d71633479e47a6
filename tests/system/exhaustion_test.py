"""The scan daemon at the end of its means: descriptors, threads, memory. It refuses, says so, and is there again
afterwards."""

import contextlib
import json
import os
import shutil
import socket
import sqlite3
import struct
import subprocess
import tempfile
import time
import unittest

from harness import BIN, wait_until
from scanning import EICAR, NOT_CHECKED, QUEUED, REJECTED, Scanning, body
from waiting import serves


class Descriptors(Scanning):
    LATE = True

    @classmethod
    def start_scanner(cls):
        cls.maild = cls.spawn("prlimit", "--nofile=64:64", BIN + "/vtmaild", "debug")
        assert wait_until(lambda: cls.serves("vtmaild"), 20)

    def occupy(self, count=120):
        """Connections with a word of nonsense on each, as many as there may be."""
        held = []
        for _ in range(count):
            client = socket.socket(socket.AF_UNIX)
            client.setblocking(False)
            if client.connect_ex(self.proxy.home + "/pipes/vtmaild") != 0:
                client.close()
                break
            held.append(client)
            try:
                client.send(b"VTIPC\0\0\0" + struct.pack("<III", 4, 4, 0) + b"junk")
            except OSError:
                pass
        return held

    def test_taken_by_others(self):
        self.assertEqual(self.send(body(b"before")), NOT_CHECKED, "no engine yet; the proxy has its connection now")
        held = self.occupy()
        self.assertGreater(len(held), 60)
        self.start_engine()
        self.settings(PassWhenDown="Y")
        for _ in range(3):
            begin = time.monotonic()
            self.assertEqual(self.send(body(b"while there are none")), NOT_CHECKED, "it is not the engine that is down")
            self.assertLess(time.monotonic() - begin, 10)
        for client in held:
            client.close()
        self.assertTrue(wait_until(lambda: self.send(body(b"again")) == QUEUED, 5))
        self.assertEqual(self.send(body(EICAR)), REJECTED)
        self.assertNotIn("mail could pass unscanned", self.log())
        self.assertIsNone(self.maild.poll())


class FullDisk(unittest.TestCase):
    """A small disk of its own."""

    def setUp(self):
        self.disk = tempfile.mkdtemp(prefix="vantrel-disk.")
        self.addCleanup(os.rmdir, self.disk)
        if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=2m", "none", self.disk], capture_output=True).returncode != 0:
            self.skipTest("can't mount")
        self.addCleanup(subprocess.run, ["umount", "-l", self.disk], check=True)
        self.home = self.disk + "/home"
        self.env = dict(os.environ, VANTREL_HOME=self.home)

    def fill(self):
        with open(self.disk + "/fill", "ab", 0) as file:
            with self.assertRaises(OSError):
                while True:
                    file.write(b"x" * 4096)

    def run_for_a_while(self, *words):
        """The exit code if it ended by itself."""
        process = subprocess.Popen(words, env=self.env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            return process.wait(1)
        except subprocess.TimeoutExpired:
            process.terminate()
            process.wait(20)
            return None

    def run_it(self, *words, **more):
        done = subprocess.run([BIN + "/" + words[0], *words[1:]], env=self.env, text=True, capture_output=True, timeout=20, **more)
        return done.returncode, done.stdout, done.stderr

    def check_reads_and_reasons(self, reason, unserved):
        self.assertEqual(self.run_it("vtregistry", "get", "/a"), (0, "1\n", ""))
        self.assertEqual(json.loads(self.run_it("vtregistry", "dump")[1])["/a"], "1")
        self.assertIn("7  set", self.run_it("vtregistry", "show", "maild.threads")[1])
        self.assertIn('"1" -> not set', self.run_it("vtregistry", "history", "/c")[1])
        self.assertEqual(self.run_it("vtregistry", "list", "/c")[0], 1)
        why = f"can't open the store {self.home}/store.db: {reason}\n"
        for words in (("vtregistry", "set", "/a", "2"), ("vtregistry", "del", "/a"), ("vtregistry", "undo"),
                      ("vtregistry", "edit", "maild"), ("vtstatd", "passwd", "joe"),
                      ("vtsmtpproxy", "setup", "--server", "127.0.0.1:9", "--domain", "a.example")):
            code, _, said = self.run_it(*words, input="secret\n")
            self.assertNotEqual(code, 0, words)
            self.assertTrue(said.endswith(why), said)
        self.assertEqual(self.run_it("vtquarantine", "list", "--json"), (1, "", ""))
        for words in (("vtsmtpproxy", "register"), ("vtregistry", "unregister")):
            self.assertEqual(self.run_it(*words), (0, "", f"{words[0]}: {why}"))
        self.assertEqual(self.run_it("vtmaild", "install")[:2], (255, f"CreateService failed - {self.unwritable}\n"))
        for program in ("vtregistry", "vtlogd", "vtstatd", "vtmaild", "vtsmtpproxy"):
            code, _, said = self.run_it(program, "debug")
            name = program.upper()
            self.assertEqual((code, said), (1, f"{name}: " + (unserved.format(name) if unserved else why)), program)
        self.assertEqual(self.run_it("vtregistry", "get", "/a")[1], "1\n")

    def fill_the_store(self):
        for words in (("set", "/a", "1"), ("set", "maild.threads", "7"), ("set", "/c", "1"), ("del", "/c")):
            self.assertEqual(self.run_it("vtregistry", *words)[0], 0)

    def test_what_is_stored_is_read_and_who_must_write_says_why_not(self):
        self.fill_the_store()
        self.fill()
        self.unwritable = "There is not enough space on the disk."
        self.check_reads_and_reasons("disk I/O error: No space left on device", "")

    def test_a_file_system_that_can_not_be_written(self):
        self.fill_the_store()
        subprocess.run(["mount", "-o", "remount,ro", self.disk], check=True)
        self.unwritable = "The media is write protected."
        self.check_reads_and_reasons("Read-only file system", self.home + "/services/{}.lock: Read-only file system\n")

    def test_what_waits_in_the_log_is_not_left_out(self):
        self.fill_the_store()
        with contextlib.closing(sqlite3.connect(self.home + "/store.db")) as store:
            with store:
                store.execute("UPDATE keys SET value = '2' WHERE path = '/a'")
            shutil.copy(self.home + "/store.db", self.disk)
            shutil.copy(self.home + "/store.db-wal", self.disk)
        for name in ("store.db", "store.db-wal"):
            os.replace(self.disk + "/" + name, self.home + "/" + name)
        self.fill()
        code, out, said = self.run_it("vtregistry", "get", "/a")
        self.assertEqual((code, out), (1, ""))
        self.assertIn("No space left", said)
        os.unlink(self.disk + "/fill")
        self.assertEqual(self.run_it("vtregistry", "get", "/a"), (0, "2\n", ""))

    def test_a_change_that_has_no_room_says_why(self):
        self.fill_the_store()
        with contextlib.closing(sqlite3.connect(self.home + "/store.db")) as store:
            store.execute("SELECT count(*) FROM keys").fetchall()  # the files beside it are there
            self.fill()
            code, _, said = self.run_it("vtregistry", "set", "/a", "x" * 50000)
            self.assertEqual((code, said), (1, f"vtregistry: can't set /a: {self.home}/store.db: database or disk is full\n"))

    def test_no_program_dies_of_the_counter_that_all_map(self):
        subprocess.run([BIN + "/vtregistry", "set", "/a", "1"], env=self.env, check=True)
        logger = subprocess.Popen([BIN + "/vtlogd", "debug"], env=self.env, stdout=subprocess.DEVNULL)
        self.addCleanup(logger.wait, 20)
        self.addCleanup(logger.terminate)
        self.assertTrue(wait_until(lambda: serves(self.home + "/pipes/vtlogd"), 20))
        os.unlink(self.home + "/store.seq")
        self.fill()
        for words in (("vtregistry", "watch", "/a"), ("vtmaild", "debug"), ("vtsmtpproxy", "debug")):
            with self.subTest(words[0]):
                self.assertIsNone(self.run_for_a_while(BIN + "/" + words[0], *words[1:]))
        self.assertEqual(os.listdir(self.home + "/metrics"), ["vtlogd"], "what can't be had whole is not begun")
