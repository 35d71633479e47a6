"""The certificate of an interface: what is wrong with it is in the log as soon as the table has been read, and what its
clients see then."""


from harness import NET, Client, wait_until
from tls import Tls


class Certificate(Tls):
    def load(self, **keys):
        self.proxy.load({NET + "/TLS/" + key: value for key, value in keys.items()})

    def told(self, complaint, times=1):
        text = "interface net: TLS: " + complaint
        return wait_until(lambda: self.log().count(text) >= times) and self.log().count(text) == times

    def test_what_is_wrong_is_told_when_the_table_is_read(self):
        self.start({"TLS/Mode": "offer", "TLS/Certificate": ""})
        self.assertTrue(self.told("no certificate is set"), self.log())

        path = self.proxy.home + "/mail.pem"
        self.load(Certificate=path)
        self.assertTrue(self.told(path + ": No such file or directory"), self.log())
        # What is wrong is told once, however often other keys change.
        self.load(Ciphers="NOTHING")
        self.assertTrue(self.told("NOTHING: no cipher match"), self.log())
        self.proxy.load({NET + "/ConnectTimeout": "20"})
        self.load(Ciphers="", Mode="off")
        self.load(Certificate="/nonexistent", Mode="wrapped")
        self.assertTrue(self.told("/nonexistent: No such file or directory"), self.log())
        self.assertTrue(self.told("NOTHING: no cipher match"), self.log())

    def test_nothing_is_told_of_a_good_one(self):
        self.start({"TLS/Mode": "require"})
        # A key that isn't one: the complaint shows that the table has been read before.
        self.load(Key="/nonexistent")
        self.assertTrue(self.told("/nonexistent: No such file or directory"), self.log())
        self.assertEqual(self.log().count("TLS"), 1)

    def test_what_clients_see_of_none(self):
        for mode, offered, mail in (("offer", False, b"250"), ("require", True, b"530")):
            self.start({"TLS/Mode": mode, "TLS/Certificate": "/nonexistent"})
            c = Client(self.proxy.port)
            self.addCleanup(c.close)
            c.reply()
            self.assertEqual(b"STARTTLS" in c.ask(b"EHLO me"), offered, mode)
            self.assertEqual(c.ask(b"STARTTLS")[:3], b"454")
            self.assertEqual(c.ask(b"MAIL FROM:<s@example.org>")[:3], mail, mode)
