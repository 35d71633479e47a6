"""What a judge of TLS servers looks at, asked with openssl: protocols, ciphers, renegotiation, compression, ALPN."""


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
