"""The scan daemon at the end of its means: descriptors, threads, memory. It refuses, says so, and is there again
afterwards."""

import socket
import struct
import time
import unittest

from harness import BIN, wait_until
from scanning import EICAR, NOT_CHECKED, QUEUED, REJECTED, Scanning, body


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
            self.assertLess(time.monotonic() - begin, 5)
        for client in held:
            client.close()
        self.assertTrue(wait_until(lambda: self.send(body(b"again")) == QUEUED, 5))
        self.assertEqual(self.send(body(EICAR)), REJECTED)
        self.assertNotIn("mail could pass unscanned", self.log())
        self.assertIsNone(self.maild.poll())


if __name__ == "__main__":
    unittest.main()
