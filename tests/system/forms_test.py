"""What is scanned is what is delivered: messages that are infected only in the form in which some receiver reads them,
archives beyond the engine's limits, encrypted ones; with the real engine."""

import glob
import io
import os
import signal
import socket
import time
import zipfile

from harness import BIN, wait_until
from scanning import EICAR, NOT_CHECKED, QUEUED, REJECTED, Scanning, archive, attached, body, encrypted_archive

ZIPPED = archive(("eicar.com", EICAR))
FAR = archive(("zeros", b"\0" * (30 << 20)), ("eicar.com", EICAR))  # beyond what the engine unpacks
PART = b"Content-Type: application"  # where an attachment's headers begin
# One file, the pattern behind the limit: an engine may unpack a part of it and say nothing about the rest.
LONG = archive(("long", b"\0" * (30 << 20) + EICAR))


def dotted(message, begin, line_end=b"\r\n"):
    """The message with a dot in front of each line from the one that begins so, but for the empty ones."""
    lines = message.split(b"\r\n")
    first = next(i for i, line in enumerate(lines) if line.startswith(begin))
    return b"\r\n".join(lines[:first]) + line_end + line_end.join(b"." + line if line else line for line in lines[first:-1]) + b"\r\n"


def with_true_dots(data):
    """A message with the bytes in quoted-printable, whose dots stand at the start of lines and belong there."""
    coded = b"".join(b"=\r\n." if byte == 0x2E else b"=%02X" % byte + (b"=\r\n" if i % 20 == 19 else b"")
                     for i, byte in enumerate(data))
    return (b"Subject: a file\r\nMIME-Version: 1.0\r\nContent-Type: application/zip; name=f.zip\r\n"
            b"Content-Transfer-Encoding: quoted-printable\r\n\r\n" + coded + b"\r\n")


class Forms(Scanning):
    def test_by_data(self):
        known = attached(ZIPPED, first=b"Received: from x\r\n")
        lines = known.split(b"\r\n")
        # Every other line end a bare LF, the coded lines stuffed: a server unstuffs behind either.
        mixed = b"".join((b"." if i > 8 and line else b"") + line
                         + (b"\n" if i % 2 else b"\r\n") for i, line in enumerate(lines[:-1])) + b"\r\n"
        cases = {
            "begins with Received, one dot before each line of the attachment": dotted(known, PART),
            "one dot before each line": dotted(known, b"MIME"),
            "bare LF and stuffed dots": dotted(known, PART, line_end=b"\n"),
            "mixed line ends": mixed,
            "stuffed behind CR LF, true dots behind LF": dotted(known, b"MIME").replace(b"\r\n.--b", b"\n.--b"),
            "bare CR": dotted(known, PART, line_end=b"\r"),
            "all line ends bare CR": known.replace(b"\r\n", b"\r") + b"\r\n",
            "blank in front": attached(ZIPPED, first=b" \r\n"),
            "begins with a blank": attached(ZIPPED, first=b" folded\r\n"),
            "empty lines in front": b"\r\n\r\n" + attached(ZIPPED),
            "tab in front of the first header": b"\t" + attached(ZIPPED, first=b""),
            "dot in front of all": b"." + attached(ZIPPED),
            "lines that truly begin with a dot": with_true_dots(ZIPPED).replace(b"\r\n.", b"\r\n.."),
        }
        for name, message in cases.items():
            with self.subTest(name):
                count = len(self.server.messages)
                self.assertEqual(self.send(message), REJECTED)
                self.assertEqual(len(self.server.messages), count)

    def test_by_chunks(self):
        cases = {
            "lines that truly begin with a dot": with_true_dots(ZIPPED),
            "the same, known for mail": b"Received: from x\r\n" + with_true_dots(ZIPPED),
            "bare LF": attached(ZIPPED).replace(b"\r\n", b"\n"),
            "dots behind bare LF, lost on the way by DATA": dotted(attached(ZIPPED), PART, line_end=b"\n"),
        }
        for name, message in cases.items():
            with self.subTest(name):
                self.assertEqual(self.send_chunk(message), REJECTED)

    def test_clean_forms_arrive_unchanged(self):
        text = body(b"..a\r\n..\r\nb\n..c\r\nd\re")
        self.assertEqual(self.send(text), QUEUED)
        self.assertIn(text, self.server.messages[-1])
        self.assertEqual(self.send(attached(archive(("a", b"clean")))), QUEUED)
        self.assertTrue(self.send_chunk(body(b".a\r\n.b\n.c")).startswith(b"250"))
        self.assertEqual(self.server.messages[-1], body(b".a\r\n.b\n.c"))

    def test_beyond_the_limits(self):
        for name, data in {"behind": FAR, "one long file": LONG}.items():
            with self.subTest(name):
                count = len(self.server.messages)
                self.assertEqual(self.send(attached(data)), NOT_CHECKED)
                self.assertEqual(len(self.server.messages), count)
        self.settings(PassWhenTooBig="Y")
        self.assertEqual(self.send(attached(FAR)), QUEUED)
        self.assertTrue(self.logged("passes unscanned: Heuristics.Limits.Exceeded"))


class Encrypted(Scanning):
    def setUp(self):
        self.secret = encrypted_archive(self.proxy.home, b"a secret file " * 20)

    def test_what_becomes_of_it(self):
        time.sleep(1)
        first = len(self.events())
        self.assertEqual(self.send(attached(self.secret)), QUEUED, "pass is the default")
        self.assertTrue(self.logged("an encrypted message passes"))
        self.settings(WhenEncrypted="refuse")
        self.assertEqual(self.send(attached(self.secret)), REJECTED)
        self.settings(WhenEncrypted="put off")
        self.assertEqual(self.send(attached(self.secret)), NOT_CHECKED)
        self.settings(WhenEncrypted="no such word")
        self.assertEqual(self.send(attached(self.secret)), NOT_CHECKED)
        self.assertEqual(self.send(attached(archive(("a", b"open")))), QUEUED)
        self.assertTrue(wait_until(lambda: len(self.events(first)) == 5))
        self.assertEqual([row[0] for row in self.events(first)], [106, 107, 104, 104, 100])
        self.assertIn("Encrypted.Zip", self.events(first)[0][1])

    def test_infected_beside_it(self):
        self.assertEqual(self.send(attached(self.secret, ZIPPED)), REJECTED)

    def test_beyond_the_limits_beside_it(self):
        """The engine has one word for both, and which of the two it is, is chance."""
        for _ in range(4):
            self.assertEqual(self.send(attached(self.secret, FAR)), NOT_CHECKED)
            self.assertEqual(self.send(attached(FAR, self.secret)), NOT_CHECKED)

    def test_within_the_same_archive(self):
        both = io.BytesIO(self.secret)
        with zipfile.ZipFile(both, "a", zipfile.ZIP_DEFLATED) as made:
            made.writestr("long", b"\0" * (30 << 20) + EICAR)
        for _ in range(3):
            self.assertEqual(self.send(attached(both.getvalue())), NOT_CHECKED)


class EncryptedUntold(Encrypted):
    """The same with an engine that isn't told to tell."""
    ENGINE = Scanning.ENGINE.replace("AlertEncrypted yes\n", "")


class SilentEngine(Scanning):
    """As the engine comes without configuration: beyond its limits it says that all is clean."""
    ENGINE = "MaxFileSize 20M\nMaxScanSize 20M\nStreamMaxLength 20M\n"

    def test_it_is_not_believed(self):
        self.assertEqual(self.send(body(b"nothing but text, caf\xc3\xa9 =3D (a)")), QUEUED)
        self.assertEqual(self.send(attached(ZIPPED)), REJECTED, "what it finds is believed")
        for name, data in {"beyond": FAR, "one long file": LONG, "small": archive(("a", b"clean"))}.items():
            with self.subTest(name):
                self.assertEqual(self.send(attached(data)), NOT_CHECKED)
        self.assertTrue(self.logged("mail could pass unscanned"))
        self.settings(PassWhenTooBig="Y")
        self.assertEqual(self.send(attached(archive(("a", b"clean")))), QUEUED)

    def test_it_is_proven_again_when_it_is_started_anew(self):
        path = self.proxy.home + "/clamd/clamd.conf"
        with open(path) as file:
            old = file.read()
        clean = attached(archive(("a", b"clean")))
        self.assertEqual(self.send(clean), NOT_CHECKED)
        for engine, reply in ((old + "AlertExceedsMax yes\n", QUEUED), (old, NOT_CHECKED)):
            self.clamd.terminate()
            self.clamd.wait(30)
            with open(path, "w") as file:
                file.write(engine)
            self.start_engine()
            self.assertEqual(self.send(clean), reply)


class PartlySilentEngine(Scanning):
    """It tells of its limits, but unpacks the beginning of a long file and calls it clean."""
    ENGINE = "MaxFileSize 20M\nMaxScanSize 100M\nStreamMaxLength 20M\nAlertExceedsMax yes\n"

    def test_it_is_not_believed(self):
        self.assertEqual(self.send(attached(LONG)), NOT_CHECKED)
        self.assertTrue(self.logged("MaxScanSize not above MaxFileSize"))


class SmallEngine(Scanning):
    """Its limit is below ours, and it says nothing."""
    ENGINE = "MaxFileSize 100K\nMaxScanSize 100K\nStreamMaxLength 20M\n"

    def test_it_is_believed_up_to_its_limit(self):
        self.assertEqual(self.send(body(b"short")), QUEUED)
        self.assertEqual(self.send(body(b"a long text\r\n" * 12000)), NOT_CHECKED)


class EngineAsLargeAsOurs(Scanning):
    """Its limit for a file is the same as ours, as both are by default, and it says nothing."""
    ENGINE = "MaxFileSize 200000\nMaxScanSize 20M\nStreamMaxLength 20M\n"

    def test_a_form_beyond_its_limit_is_not_believed(self):
        start = b"Subject: x\r\n\r\n"
        text = b"text\r\n" * 33000
        fits = start + text + b"x" * (199990 - len(start) - len(text) - len(EICAR) - 2) + EICAR + b"\r\n"
        self.assertEqual(self.send(fits), NOT_CHECKED, "it fits, but not with a header in front")
        self.assertEqual(self.send(fits.replace(b"Subject", b"Received")), REJECTED)
        self.assertEqual(self.send(start + text), QUEUED)


class BlindEngine(Scanning):
    """An engine without signatures."""
    SIGNATURES = False

    def test_it_counts_as_down(self):
        self.assertEqual(self.send(body(b"text")), NOT_CHECKED)
        self.settings(PassWhenTooBig="Y")
        self.assertEqual(self.send(body(b"text")), NOT_CHECKED)
        self.settings(PassWhenDown="Y")
        self.assertEqual(self.send(body(b"text")), QUEUED)
        self.assertTrue(self.logged("does not find the test pattern"))


class EngineThatLoadsAnew(Scanning):
    def reload(self):
        with socket.socket(socket.AF_UNIX) as engine:
            engine.connect(self.proxy.home + "/clamd/clamd.sock")
            engine.sendall(b"zRELOAD\0")
            self.assertEqual(engine.recv(100), b"RELOADING\0")

    def test_without_its_signatures_it_is_down(self):
        self.assertEqual(self.send(body(EICAR)), REJECTED)
        files = glob.glob(self.proxy.home + "/clamd/db/*.ndb")
        for file in files:
            os.rename(file, file + ".kept")
        with open(self.proxy.home + "/clamd/db/other.ndb", "w") as other:
            other.writelines("Other%d:0:*:%s\n" % (i, (b"nothing like that %d" % i).hex()) for i in range(500))
        self.reload()
        self.assertTrue(wait_until(lambda: self.send(body(EICAR)) == NOT_CHECKED, 15))
        self.assertEqual(self.send(body(b"clean")), NOT_CHECKED)
        self.assertTrue(self.logged("does not find the test pattern"))
        for file in files:
            os.rename(file + ".kept", file)
        self.reload()
        self.assertTrue(wait_until(lambda: self.send(body(b"clean")) == QUEUED, 40))
        self.assertEqual(self.send(body(EICAR)), REJECTED)


class LateEngine(Scanning):
    LATE = True

    def test_it_is_found_when_it_comes(self):
        self.assertEqual(self.send(body(b"before")), NOT_CHECKED)
        self.start_engine()
        self.assertEqual(self.send(body(EICAR)), REJECTED)
        self.assertEqual(self.send(body(b"clean")), QUEUED)

    def test_stop_while_it_hangs(self):
        """A probe without an answer holds no stop up."""
        if not os.path.exists(self.proxy.home + "/clamd/clamd.sock"):
            self.start_engine()
        self.maild.send_signal(signal.SIGTERM)
        self.maild.wait(20)
        self.clamd.send_signal(signal.SIGSTOP)
        try:
            type(self).maild = self.spawn(BIN + "/vtmaild", "debug")
            self.assertTrue(wait_until(lambda: self.serves("vtmaild"), 20))
            time.sleep(0.5)
            begin = time.monotonic()
            self.maild.send_signal(signal.SIGTERM)
            self.maild.wait(20)
            self.assertLess(time.monotonic() - begin, 15)
        finally:
            self.clamd.send_signal(signal.SIGCONT)
        self.start_scanner()
