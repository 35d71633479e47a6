"""Senders' signatures: what is not altered verifies at the server, however it came, with everything on that looks at it."""

import base64
import re
import subprocess

import dkim

from scanning import QUEUED, Scanning, archive

TEXT = b"Gr\xc3\xbc\xc3\x9fe\r\n..two dots\r\n.one dot\r\n.\t\r\n\ttabs and blanks   \r\n \r\nFrom the shore\r\n"
ATTACHED = (b"Content-Type: multipart/mixed;\r\n boundary=b\r\n\r\n--b\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: 8bit\r\n\r\n" + TEXT +
            b"--b\r\nContent-Type: application/zip; name=f.zip\r\nContent-Transfer-Encoding: base64\r\n\r\n" +
            base64.encodebytes(archive(("a.txt", b"text" * 500))).replace(b"\n", b"\r\n") + b"--b--\r\n")
HEADERS = (b"From: \"A  B\" <s@example.org>\r\nTo: r@example.org\r\nSubject: =?utf-8?q?Gr=C3=BC=C3=9Fe?=\r\n\tfolded  twice\r\n  here\r\n"
           b"Message-ID:<1@example.org>\r\nMIME-Version: 1.0\r\n")
PLAIN = b"Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: 8bit\r\n\r\n"
BODIES = {"text": PLAIN + TEXT, "a dot at the end": PLAIN + TEXT + b".\r\n..\r\n", "attachment": ATTACHED,
          "empty lines at the end": PLAIN + TEXT + b"\r\n" * 3, "long lines": PLAIN + b"x" * 998 + b"\r\n" + b".y" * 400 + b"\r\n",
          "longer than what stays in memory": PLAIN + (TEXT + b"a line\r\n" * 10) * 900}


class Signed(Scanning):
    def setUp(self):
        self.settings(**{"Attachments/Rules/programs/RealType": "application/x-dosexec", "Attachments/Rules/programs/Action": "remove",
                         "Content/Rules/pills/Where": "text", "Content/Rules/pills/Pattern": "pills", "Content/Rules/pills/Action": "tag",
                         "WhenAmbiguous": "refuse"})
        pem = subprocess.run(["openssl", "genrsa", "-traditional", "2048"], capture_output=True, check=True).stdout
        public = subprocess.run(["openssl", "rsa", "-pubout", "-outform", "DER"], input=pem, capture_output=True, check=True).stdout
        self.key, self.record = pem, b"v=DKIM1; k=rsa; p=" + base64.b64encode(public)

    def verified(self, message):
        return dkim.verify(message, dnsfunc=lambda name, timeout=5: self.record)

    def test_what_is_not_altered(self):
        for way in (b"simple", b"relaxed"):
            for name, text in BODIES.items():
                message = HEADERS + text
                message = dkim.sign(message, b"s", b"example.org", self.key, canonicalize=(way, way)) + message
                for send, given in ((self.send, re.sub(rb"(?m)^\.", b"..", message)), (self.send_chunk, message)):
                    with self.subTest("%s, %s, %s" % (way.decode(), name, send.__name__)):
                        self.assertTrue(self.verified(message))
                        count = len(self.server.messages)
                        self.assertIn(send(given), (QUEUED, b"250 ok\r\n"))
                        arrived = b"".join(self.server.messages[count:])  # in as many pieces as it was relayed
                        if send == self.send:
                            arrived = re.sub(rb"(?m)^\.", b"", arrived)
                        self.assertTrue(self.verified(arrived))
        self.assertFalse(self.verified(message.replace(b"shore", b"sea")), "the check is none")


del Scanning  # no cases of its own
