"""The certificate of an interface: what is wrong with it is in the log as soon as the table has been read."""

import os
import subprocess
import unittest

from harness import BIN, NET, MailServer, Proxy, wait_until


class Certificate(unittest.TestCase):
    def setUp(self):
        self.server = MailServer()
        self.proxy = Proxy(self.server.port, start=False)
        self.logger = subprocess.Popen([BIN + "/vtlogd", "debug"], env=self.proxy.env, stdout=subprocess.DEVNULL)
        self.assertTrue(wait_until(lambda: os.path.exists(self.proxy.home + "/pipes/vtlogd"), 20))

    def tearDown(self):
        self.proxy.stop()
        self.logger.terminate()
        self.logger.wait(20)
        self.server.close()

    def log(self):
        try:
            with open(self.proxy.home + "/log/vtlogd.log", encoding="utf-8") as file:
                return file.read()
        except FileNotFoundError:
            return ""

    def told(self, complaint, times=1):
        text = "interface net: TLS: " + complaint
        return wait_until(lambda: self.log().count(text) >= times) and self.log().count(text) == times

    def test_what_is_wrong_is_told_when_the_table_is_read(self):
        self.proxy.load({NET + "/TLS/Mode": "offer"})
        self.proxy.start()
        self.assertTrue(self.told("no certificate is set"), self.log())

        path = self.proxy.home + "/mail.pem"
        self.proxy.tool("set", NET + "/TLS/Certificate", path)
        self.assertTrue(self.told(path + ": No such file or directory"), self.log())
        # What is wrong is told once, however often other keys change.
        self.proxy.load({NET + "/TLS/Ciphers": "NOTHING"})
        self.assertTrue(self.told("NOTHING: no cipher match"), self.log())
        self.proxy.load({NET + "/ConnectTimeout": "20"})
        self.proxy.load({NET + "/TLS/Ciphers": "", NET + "/TLS/Mode": "off"})
        self.proxy.load({NET + "/TLS/Certificate": "/nonexistent", NET + "/TLS/Mode": "wrapped"})
        self.assertTrue(self.told("/nonexistent: No such file or directory"), self.log())
        self.assertTrue(self.told("NOTHING: no cipher match"), self.log())

    def test_nothing_is_told_of_a_good_one(self):
        path = self.proxy.home + "/mail.pem"
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout", path,
                        "-out", path + ".cert", "-days", "30", "-subj", "/CN=mail.test"], check=True, capture_output=True)
        self.proxy.load({NET + "/TLS/Mode": "require", NET + "/TLS/Certificate": path + ".cert", NET + "/TLS/Key": path})
        self.proxy.start()
        # A new key that isn't one: the complaint shows that the table has been read before.
        self.proxy.tool("set", NET + "/TLS/Key", "/nonexistent")
        self.assertTrue(self.told("/nonexistent: No such file or directory"), self.log())
        self.assertEqual(self.log().count("TLS"), 1)


if __name__ == "__main__":
    unittest.main()
