"""Rules on attachments and on content, with the real daemon behind the proxy."""

import os
import subprocess

from harness import BIN, wait_until
from scanning import KEY, NOT_CHECKED, QUEUED, REJECTED, Scanning, archive, attached, body, encrypted_archive
from tricky import b64, signed

DROPPED = b"250 ok\r\n"
PROGRAM = b"MZ\x90\0\3\0\0\0" + bytes(200)


class SectionRules(Scanning):
    def rule(self, section, name, **fields):
        self.settings(**{"%s/Rules/%s/%s" % (section, name, field): value for field, value in fields.items()})

    def test_attachments(self):
        program = attached(archive(("letter.pdf.EXE ", b"x")))
        self.assertEqual(self.send(program), QUEUED, "without a rule")
        self.rule("Attachments", "programs", FileName="*.exe", Action="reject")
        count = len(self.server.messages)
        self.assertEqual(self.send(program), REJECTED)
        self.assertEqual(self.send_chunk(program), REJECTED)
        self.assertEqual(len(self.server.messages), count)
        self.assertEqual(self.send(attached(archive(("letter.pdf", b"x")))), QUEUED)
        self.assertTrue(self.logged("a message is refused by the rule programs on attachments: letter.pdf.EXE  in f.zip", 2))
        self.assertTrue(wait_until(lambda: (120, "programs: letter.pdf.EXE  in f.zip") in [row[:2] for row in self.events()]))
        # By what it is, and with the first rule first.
        self.rule("Attachments", "a", RealType="application/x-dosexec", Action="drop")
        self.assertEqual(self.send(attached(archive(("a.exe", PROGRAM)))), DROPPED)
        self.assertEqual(len(self.server.messages), count + 1)
        self.assertTrue(self.logged("is dropped by the rule a on attachments"))
        self.assertTrue(wait_until(lambda: 121 in [row[0] for row in self.events()]))
        self.settings(**{"Attachments/Rules/a/Action": "no such word"})
        self.assertEqual(self.send(attached(archive(("a.exe", PROGRAM)))), NOT_CHECKED)
        self.assertTrue(self.logged("the rule a on attachments has no such action, and puts off: no such word"))

    def test_every_form_of_a_message(self):
        """A server that takes a dot away behind a bare LF makes a boundary of a line that is none here."""
        self.rule("Attachments", "programs", FileName="*.exe")
        hidden = (b"Subject: x\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n\r\nx\n"
                  b".--b\nContent-Type: application/octet-stream; name=a.exe\n\nx\r\n--b--\r\n")
        self.assertEqual(self.send(hidden.replace(b"\n.", b"\n")), REJECTED)
        self.assertEqual(self.send(hidden), REJECTED)

    def test_within_a_signature(self):
        self.rule("Attachments", "programs", FileName="*.exe")
        self.rule("Content", "words", Where="text", Pattern="needle")
        for inner, reply in ((attached(archive(("a.exe", b"x"))), REJECTED), (body(b"a needle"), REJECTED),
                             (attached(archive(("a.txt", b"x"))), QUEUED)):
            self.assertEqual(self.send(b"Content-Type: application/pkcs7-mime; smime-type=signed-data; name=smime.p7m\r\n"
                                       b"Content-Transfer-Encoding: base64\r\n\r\n" + b64(signed(inner))), reply)

    def test_archives(self):
        nested = archive(("a.zip", archive(("b.zip", archive(("c", b"x"))))))
        self.settings(MaxArchiveDepth="2", TooComplex="refuse")
        self.assertEqual(self.send(attached(nested)), QUEUED, "without a rule nobody looks")
        self.rule("Attachments", "programs", FileName="*.exe")
        self.assertEqual(self.send(attached(nested)), REJECTED)
        self.assertTrue(self.logged("too complex is refused: archives deeper than MaxArchiveDepth"))
        self.settings(WhenEncrypted="refuse", MaxArchiveDepth="8")
        self.assertEqual(self.send(attached(nested)), QUEUED)
        self.assertEqual(self.send(attached(archive(("a.zip", encrypted_archive(self.proxy.home, b"x"))))), REJECTED)
        self.assertTrue(self.logged("an encrypted message is refused"))

    def test_content(self):
        self.rule("Content", "words", Where="subject;text", Pattern="(?i)cheap *pills", Action="reject")
        self.rule("Content", "people", Where="recipient", Pattern="^nobody@", Action="drop")
        self.assertEqual(self.send(body(b"CHEAP  PILLS")), REJECTED)
        self.assertTrue(self.logged("a message is refused by the rule words on content: found in text"))
        self.assertEqual(self.send(b"Subject: =?utf-8?b?Y2hlYXAgcGlsbHM=?=\r\n\r\nx\r\n"), REJECTED)
        self.assertEqual(self.send(b"Subject: x\r\nContent-Type: text/html\r\n\r\n<b>ch</b>eap<i>&nbsp;</i>pills\r\n"), REJECTED)
        self.assertEqual(self.send(body(b"dear pills")), QUEUED)
        count = len(self.server.messages)
        client = self.client()
        client.envelope(recipients=(b"nobody@example.org",))
        self.assertEqual(client.data(body(b"x") + b".\r\n"), DROPPED)
        client.close()
        self.assertEqual(len(self.server.messages), count)
        # Changed while it runs; a rule that is broken is left out, the others count.
        self.settings(**{"Content/Rules/people/Pattern": "(unclosed"})
        self.assertEqual(self.send(body(b"cheap pills")), REJECTED)
        self.assertEqual(self.send(body(b"x")), QUEUED)
        self.assertTrue(self.logged("the rule people on content is left out, for its pattern: missing closing parenthesis"))
        self.settings(**{"Content/Rules/words/Pattern": "(a+)+$"})
        self.assertEqual(self.send(body(b"a" * 50000 + b"b")), QUEUED)
        self.assertTrue(self.logged("the rule words on content takes more time or memory than it may"))

    def test_redirected(self):
        self.rule("Content", "words", Where="text", Pattern="needle", Action="redirect")
        self.assertEqual(self.send(body(b"needle")), REJECTED, "without an address")
        self.settings(RedirectAddress="post@example.org")
        self.assertEqual(self.send(body(b"needle")), QUEUED)
        self.assertTrue(wait_until(lambda: 122 in [row[0] for row in self.events()]))

    def test_from_the_shell(self):
        self.rule("Attachments", "programs", FileName="*.exe", Action="reject")
        self.rule("Content", "words", Where="text", Pattern="needle", Action="drop")
        path = os.path.join(self.proxy.home, "message")
        with open(path, "wb") as file:
            file.write(attached(archive(("a.exe", b"needle"))).replace(b"see the file", b"a needle"))
        done = subprocess.run([BIN + "/vtmaild", "test", path], env=self.proxy.env, text=True, capture_output=True, timeout=60)
        self.assertEqual(done.returncode, 1)
        self.assertEqual(done.stdout, path + ": reject\n  antivirus: nothing\n  attachments: reject, programs: a.exe in f.zip, part 2\n"
                         "  content: drop, words: found in text, part 1\n  antispam: nothing\n")


class RulesWithoutEngine(Scanning):
    LATE = True

    def test_messages_within_a_part_are_looked_into(self):
        self.settings(PassWhenDown="Y", **{"Attachments/Rules/programs/FileName": "*.exe"})
        for name, reply in (("a.exe", REJECTED), ("a.txt", QUEUED)):
            inner = attached(archive((name, b"x")))
            self.assertEqual(self.send(inner), reply)
            self.assertEqual(self.send(b"Content-Type: application/octet-stream; name=m.eml\r\n"
                                       b"Content-Transfer-Encoding: base64\r\n\r\n" + b64(inner)), reply)


class NewInstallation(Scanning):
    def test_programs_are_kept_away(self):
        maild = [BIN + "/vtmaild", "register"]
        subprocess.run(maild, env=self.proxy.env, check=True)
        for attachment in archive(("a.js", b"x")), archive(("a.txt", PROGRAM)), PROGRAM:
            self.assertTrue(self.send(attached(attachment)).startswith(b"250"))
        self.assertEqual(self.server.messages, [])
        held = subprocess.run([BIN + "/vtquarantine", "find", "--section", "attachments", "--json"], env=self.proxy.env, check=True,
                              capture_output=True, text=True).stdout
        self.assertEqual(held.count('"state":"held"'), 3, held)
        self.assertEqual(self.send(attached(archive(("a.txt", b"x")))), QUEUED)
        # One who has taken a rule away doesn't get it back.
        for rule in "executable-names", "executable-types":
            self.proxy.tool("del", KEY + "Attachments/Rules/" + rule)
        subprocess.run(maild, env=self.proxy.env, check=True)
        self.assertEqual(self.send(attached(archive(("a.js", b"x")))), QUEUED)
