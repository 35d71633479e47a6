"""The scan daemon at the end of its means: descriptors, threads, memory. It refuses, says so, and is there again
afterwards."""

import os
import socket
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
