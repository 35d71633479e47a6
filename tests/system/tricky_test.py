"""What is scanned is what any reader sees: the pattern where one reader finds it and another doesn't, with the real engine."""

import os
import subprocess

from harness import BIN, wait_until
from scanning import EICAR, NOT_CHECKED, QUEUED, REJECTED, Scanning, attached, body
from tricky import CASES, CLEAN, TEXT, b64, message, mixed, part

FORGED = message(b"Content-Type: text/plain\r\n" + mixed(TEXT, part(b64(CLEAN))))
DEEP = message(part(b"", None, kind=b"message/rfc822") * 45 + TEXT)


class Tricky(Scanning):
    def test_nothing_gets_through(self):
        """Also where ambiguous structure passes."""
        self.settings(WhenAmbiguous="pass", TooComplex="pass")
        for name, text in CASES:
            with self.subTest(name):
                count = len(self.server.messages)
                self.assertEqual(self.send(text), REJECTED)
                self.assertEqual(len(self.server.messages), count)

    def test_nothing_gets_through_in_chunks(self):
        self.settings(WhenAmbiguous="pass", TooComplex="pass")
        for name, text in CASES[::3]:
            with self.subTest(name):
                self.assertEqual(self.send_chunk(text), REJECTED)

    def test_ambiguous_structure(self):
        for word, reply in {"pass": QUEUED, "refuse": REJECTED, "put off": NOT_CHECKED, "no such word": NOT_CHECKED}.items():
            with self.subTest(word):
                self.settings(WhenAmbiguous=word)
                self.assertEqual(self.send(FORGED), reply)
                self.assertEqual(self.send(attached(CLEAN)), QUEUED)
        self.assertTrue(self.logged("can be read in different ways is refused: two Content-Type headers"))
        self.assertTrue(wait_until(lambda: (108, "two Content-Type headers") in [row[:2] for row in self.events()]))

    def test_what_is_too_complex(self):
        for word, reply in {"put off": NOT_CHECKED, "refuse": REJECTED, "pass": QUEUED, "no such word": NOT_CHECKED}.items():
            with self.subTest(word):
                self.settings(TooComplex=word)
                self.assertEqual(self.send(DEEP), reply if word != "pass" else NOT_CHECKED, "the engine doesn't go so deep either")
        self.settings(TooComplex="pass", MaxParts="3")
        self.assertEqual(self.send(message(mixed(TEXT, TEXT, TEXT))), QUEUED)
        self.settings(TooComplex="refuse")
        self.assertEqual(self.send(message(mixed(TEXT, TEXT, TEXT))), REJECTED)
        self.assertTrue(self.logged("too complex is refused: more parts than MaxParts"))


class FromTheShell(Scanning):
    def scan(self, *words):
        done = subprocess.run([BIN + "/vtmaild", "test", *words], env=self.proxy.env, text=True, capture_output=True, timeout=60)
        return done.returncode, done.stdout

    def file(self, name, text):
        path = os.path.join(self.proxy.home, name)
        with open(path, "wb") as file:
            file.write(text)
        return path

    def test_what_it_says(self):
        clean, bad = self.file("clean", body(b"text")), self.file("bad", body(EICAR))
        forged = self.file("forged", FORGED)
        self.settings(WhenAmbiguous="put off")
        self.assertEqual(self.scan(clean), (0, clean + ": pass\n  antivirus: nothing\n  attachments: nothing\n"
                                               "  content: nothing\n  antispam: nothing\n"))
        code, out = self.scan(clean, bad, forged)
        self.assertEqual(code, 1)
        self.assertIn(bad + ": reject\n  antivirus: reject, VirusAction: ", out)
        self.assertIn(forged + ": put off\n  antivirus: put off, WhenAmbiguous: two Content-Type headers\n", out)
        dots = self.file("dots", b".Subject: a\r\n\r\n" + EICAR + b"\r\n")
        self.assertEqual(self.scan("--chunks", dots)[0], 1)

    def test_what_it_can_not(self):
        self.assertEqual(self.scan()[0], 2)
        self.assertEqual(self.scan("--nothing")[0], 2)
        self.assertEqual(self.scan(self.proxy.home + "/none")[0], 2)
        self.settings(ClamdSocket=self.proxy.home + "/none")
        self.assertEqual(self.scan(self.file("clean", body(b"text")))[0], 3)
