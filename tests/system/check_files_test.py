"""`vtsmtpproxy check` about the directories and files of an instance: who may see them, and the room."""

import os
import subprocess

from check_test import Checking
from harness import NET


class CheckedFiles(Checking):
    def test_directories_that_others_may_enter(self):
        os.chmod(self.proxy.home + "/tmp", 0o777)
        self.one(self.proxy.home + "/tmp", "chmod")

        os.chmod(self.proxy.home + "/tmp", 0o700)
        os.makedirs(self.proxy.home + "/quarantine", exist_ok=True)
        os.chmod(self.proxy.home + "/quarantine", 0o755)
        self.one(self.proxy.home + "/quarantine", "chmod")

    def test_files_that_others_may_read(self):
        for name in ("store.db", "stats.db-wal", "report.token"):
            path = self.proxy.home + "/" + name
            with open(path, "ab"):
                pass
            for mode, bad in ((0o644, True), (0o602, True), (0o660, True), (0o640, False)):
                with self.subTest(name=name, mode=oct(mode)):
                    os.chmod(path, mode)
                    if bad:
                        self.one(path, "chmod g-w,o= " + path)
                    else:
                        self.assert_fine()

    def test_a_private_key_that_others_may_read(self):
        for keys, key in (({"Certificate": self.good}, "Certificate"), ({"Certificate": self.good, "Key": self.good}, "Key")):
            self.proxy.load({NET + "/TLS/" + name: value for name, value in keys.items()})
            os.chmod(self.good, 0o644)
            self.one(NET + "/TLS/" + key, "chmod o= " + self.good)
            os.chmod(self.good, 0o640)
            self.assert_fine()

    def test_little_room_for_mail(self):
        for size, severity in (("10m", "error"), ("100m", "warning")):
            with self.subTest(size):
                done = subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=700,size=" + size, "none", self.proxy.home + "/tmp"],
                                      capture_output=True)
                if done.returncode != 0:
                    self.skipTest("can't mount")
                try:
                    self.one(self.proxy.home + "/tmp", "make room", severity)
                finally:
                    subprocess.run(["umount", "-l", self.proxy.home + "/tmp"], check=True)


del Checking  # no cases of its own
