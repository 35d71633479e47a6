"""What is left of a message when a part has been taken out of it, or it has been tagged: Python's mail parser reads it,
and all else is as it was, byte for byte."""

import email
import email.policy
import os
import re
import resource
import shutil
import signal
import subprocess
import tempfile
import unittest

ACT = os.environ["VANTREL_BIN"] + "/act"
POLICY = email.policy.default.clone(raise_on_defect=False)


def stuff(message):
    return re.sub(rb"(^|\r\n)\.", rb"\1..", message)


def unstuff(stored):
    return re.sub(rb"(^|\r\n)\.", rb"\1", stored)


def multipart(*parts, boundary=b"b", kind=b"mixed", head=b"Subject: s\r\nMIME-Version: 1.0\r\n", end=True):
    return (head + b"Content-Type: multipart/" + kind + b"; boundary=" + boundary + b"\r\n\r\npreamble\r\n"
            + b"".join(b"--" + boundary + b"\r\n" + part + b"\r\n" for part in parts)
            + (b"--" + boundary + b"--\r\n" if end else b""))


def inner(*parts, **options):
    return multipart(*parts, boundary=b"inner", head=b"", **options)


TEXT = b"Content-Type: text/plain; charset=iso-8859-1\r\n\r\nhello \xe9\r\n.a dot\r\n..two"
QP = b"Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\nsoft=\r\n end=20"
EXE = (b"Content-Type: application/octet-stream; name=evil.exe\r\nContent-Transfer-Encoding: base64\r\n"
       b"Content-Disposition: attachment; filename=evil.exe\r\n\r\nTVqQAAMAAAA=\r\nTVqQ")
DOTTED = b"Content-Type: application/octet-stream; name=evil.exe\r\n\r\n.evil\r\n..evil"
MESSAGE = b"Content-Type: message/rfc822\r\n\r\n" + multipart(TEXT, EXE, boundary=b"m", head=b"Subject: in\r\n.X: y\r\n").rstrip()

# name: (message, place, what is in front of the removed bytes, what is behind them)
CASES = {
    "the second of three": (multipart(TEXT, EXE, QP), "2", b"--b\r\n" + TEXT + b"\r\n--b\r\n", b"\r\n--b\r\n" + QP + b"\r\n--b--\r\n"),
    "the first": (multipart(EXE, TEXT), "1", b"preamble\r\n--b\r\n", b"\r\n--b\r\n" + TEXT + b"\r\n--b--\r\n"),
    "the last": (multipart(QP, EXE), "2", QP + b"\r\n--b\r\n", b"\r\n--b--\r\n"),
    "dots at its start": (multipart(TEXT, DOTTED, TEXT), "2", TEXT + b"\r\n--b\r\n", b"\r\n--b\r\n" + TEXT + b"\r\n--b--\r\n"),
    "nested": (multipart(TEXT, inner(QP, EXE), EXE), "2.2", QP + b"\r\n--inner\r\n", b"\r\n--inner--\r\n\r\n--b\r\n" + EXE + b"\r\n--b--\r\n"),
    "a whole multipart": (multipart(TEXT, inner(QP, EXE), TEXT), "2", TEXT + b"\r\n--b\r\n", b"\r\n--b\r\n" + TEXT + b"\r\n--b--\r\n"),
    "without an end": (multipart(TEXT, EXE, end=False), "2", TEXT + b"\r\n--b\r\n", b""),
    "an inner one without an end": (multipart(inner(TEXT, EXE, end=False).rstrip(), QP), "1.2", TEXT + b"\r\n--inner\r\n",
                                    b"\r\n--b\r\n" + QP + b"\r\n--b--\r\n"),
    "a message": (multipart(TEXT, MESSAGE, QP), "2", TEXT + b"\r\n--b\r\n", b"\r\n--b\r\n" + QP + b"\r\n--b--\r\n"),
    "within a message": (multipart(TEXT, MESSAGE, QP), "2.2", b"\r\n--m\r\n", b"\r\n--m--\r\n--b\r\n" + QP + b"\r\n--b--\r\n"),
    "line feeds alone": (multipart(TEXT, EXE, QP).replace(b"\r\n", b"\n"), "2", TEXT.replace(b"\r\n", b"\n") + b"\n--b\n",
                         b"\n--b\n" + QP.replace(b"\r\n", b"\n") + b"\n--b--\n"),
    "line feeds in one part": (multipart(TEXT, EXE.replace(b"\r\n", b"\n"), QP), "2", TEXT + b"\r\n--b\r\n", b"\r\n--b\r\n" + QP + b"\r\n--b--\r\n"),
    "no body": (multipart(TEXT, b"Content-Type: application/x-evil\r\n", QP), "2", TEXT + b"\r\n--b\r\n", b"--b\r\n" + QP + b"\r\n--b--\r\n"),
    "headers that go on to the boundary": (multipart(TEXT, b"Content-Type: application/x-evil", QP), "2", TEXT + b"\r\n--b\r\n",
                                           b"--b\r\n" + QP + b"\r\n--b--\r\n"),
    "nothing at all": (multipart(TEXT, b"", QP), "2", TEXT + b"\r\n--b\r\n", b"--b\r\n" + QP + b"\r\n--b--\r\n"),
}


def leaves(message):
    """(type, bytes, headers) of each leaf, messages within it taken apart."""
    return [(part.get_content_type(), part.get_payload(decode=True), part.items())
            for part in email.message_from_bytes(message, policy=email.policy.compat32).walk() if not part.is_multipart()]


class Rewriting(unittest.TestCase):
    def setUp(self):
        self.home = tempfile.mkdtemp(prefix="vantrel-act.")
        self.addCleanup(shutil.rmtree, self.home)
        self.path = self.home + "/message"

    def act(self, message, form, *words, code=0, **options):
        stored = stuff(message) if form == "data" else message
        with open(self.path, "wb") as file:
            file.write(stored)
        os.chmod(self.path, 0o640)
        done = subprocess.run([ACT, self.path, form, *words], env=dict(os.environ, VANTREL_HOME=self.home + "/home"),
                              capture_output=True, text=True, **options)
        self.assertEqual(done.returncode, code, done)
        self.action, self.id = done.stdout.rstrip("\n").split(" ", 1)
        self.assertEqual(os.stat(self.path).st_mode & 0o777, 0o640)
        self.assertEqual([name for name in os.listdir(self.home) if name.startswith("message")], ["message"])
        with open(self.path, "rb") as file:
            stored = file.read()
        self.assertNotIn(b"\r\n.\r\n" if form == "data" else b"\0", stored)
        return unstuff(stored) if form == "data" else stored

    def kept(self):
        with open("%s/home/quarantine/%s.eml" % (self.home, self.id), "rb") as file:
            return file.read()

    def test_all_but_the_part_stays(self):
        for name, (message, place, front, behind) in CASES.items():
            for form in ("data", "chunks"):
                with self.subTest(name, form=form):
                    after = self.act(message, form, "remove:" + place + "=because")
                    self.assertEqual(self.action, "remove")
                    self.assertEqual(self.kept(), message)
                    begin = message.index(front) + len(front) if place != "1" else message.index(front) + len(front)
                    self.assertEqual(after[:begin], message[:begin])
                    self.assertTrue(after.endswith(behind), after)
                    notice = after[begin:len(after) - len(behind)]
                    self.assertNotIn(b"evil.exe\r\nContent-Transfer", notice)
                    self.assertNotIn(b"TVqQ", notice)
                    part = email.message_from_bytes(notice, policy=POLICY)
                    self.assertEqual(part.defects, [])
                    self.assertEqual(part.get_content_type(), "text/plain")
                    for word in ("removed", "because", self.id):
                        self.assertIn(word, part.get_content())
                    found, was = leaves(after), leaves(message)
                    texts = [i for i, leaf in enumerate(found) if self.id.encode() in (leaf[1] or b"")]
                    self.assertEqual(len(texts), 1, "it is a part of its own to another reader")
                    i, more = texts[0], len(was) - len(found)
                    self.assertEqual(found[:i], was[:i])
                    self.assertEqual(found[i + 1:], was[i + 1 + more:])

    def test_the_only_part(self):
        head = b"From: a@example.org\r\nSubject: all of it\r\n.X-Dot: 1\r\n"
        own = (b"Content-Type: application/octet-stream;\r\n name=evil.exe\r\n", b"content-transfer-encoding : base64\r\n")
        for form in ("data", "chunks"):
            for body in (b"\r\nTVqQ\r\n", b"\r\n.TVqQ\r\n", b"\r\n", b""):
                with self.subTest(form=form, body=body):
                    message = own[0] + head + own[1] + b"To: b@example.org\r\n" + body
                    after = self.act(message, form, "remove:1")
                    self.assertEqual(self.kept(), message)
                    parsed = email.message_from_bytes(after, policy=POLICY)
                    self.assertEqual(parsed.defects, [])
                    self.assertEqual(parsed.get_content_type(), "text/plain")
                    self.assertEqual((parsed["Subject"], parsed["To"], parsed[".X-Dot"]), ("all of it", "b@example.org", "1"))
                    self.assertEqual(len(parsed.get_all("Content-Type")), 1)
                    self.assertEqual(len(parsed.get_all("Content-Transfer-Encoding")), 1)
                    self.assertIn(self.id, parsed.get_content())
                    self.assertIn(head, after)
                    self.assertNotIn(b"TVqQ", after)

    def test_several(self):
        message = multipart(TEXT, inner(EXE, QP), EXE, MESSAGE)
        after = self.act(message, "data", "remove:2.1=one", "remove:3=two", "remove:3=three", "remove:4.2=within", "remove:4=around")
        texts = [leaf[1] for leaf in leaves(after)]
        self.assertEqual([self.id.encode() in text for text in texts], [False, True, False, True, True])
        for i, words in ((1, (b"one",)), (3, (b"two", b"three")), (4, (b"around",))):
            for word in words:
                self.assertIn(word, texts[i])
        self.assertEqual(len(os.listdir(self.home + "/home/quarantine")), len(["index.db", ".eml", ".meta"]))

    def test_what_must_not_be_changed_is_held_back(self):
        signed = multipart(inner(TEXT, EXE), b"Content-Type: application/pgp-signature\r\n\r\nx", kind=b"signed")
        coded = multipart(TEXT, b"Content-Type: message/rfc822\r\nContent-Transfer-Encoding: base64\r\n\r\n"
                          b"Q29udGVudC1UeXBlOiBhcHBsaWNhdGlvbi9ldmlsDQoNCmV2aWwNCg==")
        cases = {"signed": (signed, "1.2"), "encrypted": (signed.replace(b"signed", b"encrypted", 1), "1.2"),
                 "S/MIME": (b"Content-Type: application/pkcs7-mime; smime-type=signed-data\r\n\r\nx\r\n", "1"),
                 "in a coded message": (coded, "2.1"), "no such part": (multipart(TEXT, EXE), "7"), "all of it": (multipart(TEXT, EXE), "")}
        for name, (message, place) in cases.items():
            with self.subTest(name):
                self.assertEqual(self.act(message, "data", "remove:" + place, "tag:[x]"), message)
                self.assertEqual(self.action, "quarantine")
                self.assertEqual(self.kept(), message)

    def test_a_name_cannot_forge_the_notice(self):
        name = b"=?utf-8?B?" + b"DQouDQotLWINCg==" + b"?="
        message = multipart(TEXT, b'Content-Type: application/evil; name="' + name + b'"\r\n\r\nx', QP)
        after = self.act(message, "data", "remove:2=a\r\n--b\r\nContent-Type: text/html\r\n\r\n\x1b[2J")
        self.assertEqual(len(leaves(after)), 3)
        self.assertNotIn(b"\x1b", after)

    def test_tags(self):
        dkim = b"DKIM-Signature: a=b;\r\n c=d\r\n"
        cases = {
            "prefix": (dkim + b"subject : hello\r\n\r\nx\r\n", "[SPAM]", dkim + b"subject : [SPAM] hello\r\n\r\nx\r\n"),
            "it is there": (b"Subject: [SPAM] hello\r\n\r\nx\r\n", "[SPAM]", b"Subject: [SPAM] hello\r\n\r\nx\r\n"),
            "no subject": (b"To: a\r\n\r\nSubject: x\r\n", "[SPAM]", b"Subject: [SPAM]\r\nTo: a\r\n\r\nSubject: x\r\n"),
            "empty subject": (b"Subject:\r\n\r\nx\r\n", "Subject: [SPAM]", b"Subject:[SPAM] \r\n\r\nx\r\n"),
            "folded": (b"Subject:\r\n hello\r\n\r\nx\r\n", "[S]", b"Subject:[S] \r\n hello\r\n\r\nx\r\n"),
            "beyond ASCII": (b"Subject: h\r\n\r\nx\r\n", "\u00fc", b"Subject: =?utf-8?B?w7w=?= h\r\n\r\nx\r\n"),
            "a header": (dkim + b"\r\n.x\r\n", "X-Spam: yes", b"X-Spam: yes\r\n" + dkim + b"\r\n.x\r\n"),
            "both": (b"Subject: h\r\n\r\n", "X-Spam: yes\nSubject: [S]\nX-Score: 5", b"X-Spam: yes\r\nX-Score: 5\r\nSubject: [S] h\r\n\r\n"),
            "no headers": (b"\r\n.x\r\n", "[S]", b"Subject: [S]\r\n\r\n.x\r\n"),
        }
        first = b"X-Vantrel-Finding: attachments; test; tagged\r\n"
        for name, (message, tag, wanted) in cases.items():
            for form in ("data", "chunks"):
                with self.subTest(name, form=form):
                    self.assertEqual(self.act(message, form, "tag:" + tag), first + wanted)
                    self.assertEqual((self.action, self.id), ("tag", ""))

    def test_a_line_of_a_mailbox_stays_first(self):
        for line in (b"From a@b Mon Jan 1 00:00:00 2024\r\n", b">From a\r\n"):
            for tag in ("X-Spam: yes", "[S]"):
                after = self.act(line + b"To: a\r\nContent-Type: text/plain\r\n\r\nx\r\n", "data", "tag:" + tag)
                self.assertTrue(after.startswith(line + b"X-Vantrel-Finding: "), after)
                self.assertTrue(after.endswith(b"\r\nTo: a\r\nContent-Type: text/plain\r\n\r\nx\r\n"), after)

    def test_tag_and_removal(self):
        message = b"Content-Type: application/evil\r\nSubject: h\r\n\r\nevil\r\n"
        parsed = email.message_from_bytes(self.act(message, "data", "tag:X-Spam: yes\n[S]", "remove:1"), policy=POLICY)
        self.assertEqual((parsed["X-Spam"], parsed["Subject"], parsed.get_content_type()), ("yes", "[S] h", "text/plain"))
        self.assertEqual(parsed.defects, [])

    def test_no_room(self):
        """A limit on the size of a file stands for a full disk."""
        message = multipart(TEXT, EXE, b"Content-Type: text/plain\r\n\r\n" + b"x" * 70000)
        def small():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (60000, 60000))
        limit = {"preexec_fn": small, "restore_signals": False}
        for words in (["remove:2"], ["tag:[x]"], ["quarantine:x"]):
            with self.subTest(words):
                self.assertEqual(self.act(message, "data", *words, code=1, **limit), message)
                left = os.listdir(self.home + "/home/quarantine") if os.path.isdir(self.home + "/home/quarantine") else []
                self.assertEqual([name for name in left if not name.startswith("index.db")], [])


if __name__ == "__main__":
    unittest.main()
