"""What a judge of TLS servers looks at, asked with openssl: protocols, ciphers, renegotiation, compression, tickets, ALPN."""

import re
import unittest

from tls import Tls, run


class TlsList(Tls):
    def setUp(self):
        super().setUp()
        self.start({"TLS/Mode": "offer"})

    def ask(self, *words, text="QUIT\n"):
        return run("openssl", "s_client", "-connect", "127.0.0.1:%d" % self.proxy.port, "-starttls", "smtp", "-CAfile",
                   self.authority.file, *words, text=text)[1]

    def assert_taken(self, said, version):
        self.assertRegex(said, r"(?m)^(New|Reused), TLSv1\.\d, Cipher is (?!\(NONE\))", said)
        self.assertIn(version, said)
        self.assertIn("Verify return code: 0", said)

    def test_protocols(self):
        for version, name in (("-tls1_2", "TLSv1.2"), ("-tls1_3", "TLSv1.3")):
            self.assert_taken(self.ask(version), name)
        for version in ("-tls1", "-tls1_1"):
            said = self.ask(version, "-cipher", "ALL:@SECLEVEL=0")
            self.assertIn("Cipher is (NONE)", said)
            self.assertRegex(said, "alert protocol version", "our side's refusal, not the client's own")

    def test_ciphers(self):
        # Only those that this openssl knows can be asked for; the others nobody can have from us, who have the same library.
        tried = 0
        for name in ("aNULL", "eNULL", "EXPORT", "RC4", "3DES", "DES", "MD5", "PSK", "SRP", "IDEA", "SEED"):
            said = self.ask("-tls1_2", "-cipher", name + ":@SECLEVEL=0")
            if "no cipher match" in said:
                continue
            self.assertIn("Cipher is (NONE)", said, name)
            tried += "handshake failure" in said
        self.assertGreater(tried, 1, "refused by our side")
        self.assert_taken(self.ask("-tls1_2", "-cipher", "ECDHE-ECDSA-AES128-GCM-SHA256"), "ECDHE-ECDSA-AES128-GCM-SHA256")

    def test_renegotiation_compression_alpn(self):
        said = self.ask("-tls1_2", "-comp", "-alpn", "http/1.1,smtp", text="R\nNOOP\nQUIT\n")
        self.assertIn("Secure Renegotiation IS supported", said)
        self.assertIn("Compression: NONE", said)
        self.assertIn("No ALPN negotiated", said)
        self.assertIn("RENEGOTIATING", said)
        self.assertRegex(said, "no renegotiation", said)

    def test_tickets(self):
        for version in ("-tls1_2", "-tls1_3"):
            path = self.authority.dir + "/session"
            # What a client has to say before the tickets of TLS 1.3 have come.
            first = self.ask(version, "-sess_out", path, "-ign_eof", text="EHLO me\r\nQUIT\r\n")
            self.assertIn("New, ", first)
            again = self.ask(version, "-sess_in", path, "-sess_out", path + "2", "-ign_eof", text="EHLO me\r\nQUIT\r\n")
            self.assertRegex(again, r"(?m)^Reused, ", again)
            tickets = [run("openssl", "sess_id", "-in", file, "-noout", "-text")[1] for file in (path, path + "2")]
            found = [re.findall(r"(?m)^ +[0-9a-f]{4} - .*$", text) for text in tickets]
            self.assertTrue(found[0])
            if version == "-tls1_3":
                self.assertNotEqual(found[0], found[1], "each handshake has a ticket of its own")
        one, two = self.ask("-tls1_3", "-sess_out", path, "-ign_eof", text="EHLO me\r\nQUIT\r\n"), self.authority.issue("mail.pem")
        self.assertIn("New, ", one)
        self.assertRegex(self.ask("-tls1_3", "-sess_in", path), r"(?m)^Reused, ", two)


if __name__ == "__main__":
    unittest.main()
