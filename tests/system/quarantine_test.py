"""The quarantine: what comes into it, what stays there whatever dies, and how it gets out: once."""

import json
import os
import re
import signal
import subprocess
import threading
import time
import unittest

from harness import BIN, Client, MailServer, wait_until
from scanning import EICAR, NOT_CHECKED, QUEUED, REJECTED, Scanning, archive, attached, body


class Quarantined(Scanning):
    def setUp(self):
        self.folder = self.proxy.home + "/quarantine/"
        self.settings(**{"Antivirus/Action": "quarantine"})
        self.server.rules.update(END=QUEUED, RCPT=b"250 ok\r\n")
        self.tool("expire", "--days", "0")
        self.seen = len(self.server.messages)

    def tool(self, *words):
        return subprocess.run([BIN + "/vtquarantine", *words], env=self.proxy.env, capture_output=True, text=True, timeout=60)

    def entries(self, *words):
        done = self.tool(*(words or ("list",)), "--json")
        self.assertEqual(done.stderr, "")
        return [json.loads(line) for line in done.stdout.splitlines()]

    def hold(self, message=body(EICAR), send=None):
        """Sends it, and gives its entry."""
        self.assertTrue((send or self.send)(message).startswith(b"250"))
        return self.entries()[0]

    def state(self, entry):
        return self.entries("show", entry["id"])[0]["state"]

    def released(self):
        return self.server.messages[self.seen:]


class Holding(Quarantined):
    def test_infected_mail_is_held_and_let_out_once(self):
        message = b"Subject: =?utf-8?q?h=C3=BC?=\r\n\r\n.dot\r\n" + EICAR + b"\r\n"
        for send, name in ((lambda m: self.send(m.replace(b"\r\n.", b"\r\n..")), "data"), (self.send_chunk, "chunks")):
            with self.subTest(name):
                self.seen = len(self.server.messages)
                entry = self.hold(message, send)
                self.assertEqual(self.released(), [])
                self.assertEqual({key: entry[key] for key in ("state", "from", "to", "subject", "peer", "verdict", "section", "size")},
                                 {"state": "held", "from": "s@example.org", "to": "r@example.org", "subject": "h\u00fc", "peer": "127.0.0.1",
                                  "verdict": "quarantine", "section": "antivirus", "size": len(message)})
                self.assertIn("Eicar", entry["reason"])
                self.assertEqual(self.tool("show", entry["id"], "--raw").stdout.encode(), message.replace(b"\r\n", b"\n"))
                lines = len(self.server.lines)
                done = self.tool("release", entry["id"])
                self.assertEqual((done.returncode, done.stderr), (0, ""))
                self.assertIn("250 queued", done.stdout)
                self.assertEqual(self.released(), [b"X-Vantrel-Released: " + entry["id"].encode() + b"\r\n" + message.replace(b"\r\n.", b"\r\n..")])
                self.assertIn(b"MAIL FROM:<s@example.org> BODY=8BITMIME\r\n", self.server.lines[lines:])
                self.assertIn(b"RCPT TO:<r@example.org>\r\n", self.server.lines[lines:])
                self.assertEqual(self.state(entry), "released")
                done = self.tool("release", entry["id"])
                self.assertEqual((done.returncode, done.stdout), (1, ""))
                self.assertIn("released", done.stderr)
                self.assertEqual(self.tool("release", entry["id"], "--again", "--to", "admin@example.org").returncode, 0)
                self.assertEqual(len(self.released()), 2)
                self.assertIn(b"RCPT TO:<admin@example.org>\r\n", self.server.lines)
        self.assertTrue(self.logged("in the quarantine as " + entry["id"]))
        self.assertIn('quarantined', self.log())

    def story(self, log_id):
        """What the log has of a message: the words of its lines, sorted, and the ids in the quarantine."""
        done = subprocess.run([BIN + "/vtlog", "find", "--id", log_id, "--json"], env=self.proxy.env, capture_output=True, text=True)
        lines = [json.loads(line) for line in done.stdout.splitlines()]
        return sorted(each.get("act", each["event"]) for each in lines), {each["id"] for each in lines if "act" in each}

    def test_what_is_done_is_told_of_the_message_that_came(self):
        entry = self.hold()
        self.assertEqual(self.tool("release", entry["id"]).returncode, 0)
        self.assertTrue(self.logged("event=quarantine id=" + entry["id"]))
        log_id = re.search("event=quarantine id=%s log_id=(\\S+) " % entry["id"], self.log())[1]
        self.assertTrue(wait_until(lambda: self.story(log_id) == (["message", "release"], {entry["id"]})), self.log())
        with open(self.folder + entry["id"] + ".meta", encoding="ascii") as form:
            self.assertIn("\nlog-id: %s\n" % log_id, form.read(), "also where the index is made anew")

    def test_release_that_the_server_refuses(self):
        entry = self.hold()
        for rules, word in (({"RCPT": b"550 5.1.1 nobody\r\n"}, "550 5.1.1 nobody"), ({"END": b"451 later\r\n"}, "451 later"),
                            ({"DATA": b"554 no\r\n"}, "554 no"), ({"MAIL": b"550 not you\x1b[2J\r\n"}, "550 not you?[2J")):
            with self.subTest(word):
                before = dict(self.server.rules)
                self.server.rules.update(rules)
                try:
                    done = self.tool("release", entry["id"])
                finally:
                    self.server.rules = before
                self.assertEqual((done.returncode, done.stdout), (1, ""))
                self.assertIn(word, done.stderr)
                self.assertEqual(self.state(entry), "held")
        self.assertEqual(self.tool("release", entry["id"]).returncode, 0)

    def test_envelopes_of_every_kind(self):
        for sender, recipients, paths in ((b"", [b"r@example.org"], [b"<>", b"<r@example.org>"]),
                                          (b"s@example.org", [b"postmaster", b"r@example.org"],
                                           [b"<s@example.org>", b"<postmaster>", b"<r@example.org>"])):
            with self.subTest(sender=sender):
                client = Client(self.proxy.port)
                self.addCleanup(client.close)
                client.envelope(sender, recipients)
                self.assertTrue(client.data(body(EICAR) + b".\r\n").startswith(b"250"))
                entry = self.entries()[0]
                self.assertEqual(entry["from"].encode(), sender or b"<>")
                lines = len(self.server.lines)
                self.assertEqual(self.tool("release", entry["id"]).returncode, 0)
                self.assertEqual([re.search(rb":(<.*?>)[ \r]", line)[1] for line in self.server.lines[lines:] if b":" in line], paths)

    def test_released_lines_end_in_one_way(self):
        entry = self.hold(b"Subject: x\r\n\r\na\r.\r\nMAIL FROM:<>\n.\nb\r\r\n" + EICAR + b"\r", self.send_chunk)
        self.assertEqual(self.tool("release", entry["id"]).returncode, 0)
        self.assertEqual(self.released()[-1].split(b"\r\n", 1)[1],
                         b"Subject: x\r\n\r\na\r\n..\r\nMAIL FROM:<>\r\n..\r\nb\r\n\r\n" + EICAR + b"\r\n")

    def test_release_with_an_answer_that_is_none(self):
        for answer in (b"hello\r\n", b"354 go on\r\n", None):
            with self.subTest(answer):
                entry = self.hold()
                self.server.rules["END"] = answer
                done = self.tool("release", entry["id"])
                self.server.rules["END"] = QUEUED
                self.assertEqual((done.returncode, self.state(entry)), (1, "releasing"), "the server may have it")
                self.assertIn("--again", done.stderr)

    def test_release_to_a_server_that_must_speak_tls(self):
        entry = self.hold()
        plain = MailServer(EHLO=b"250-real.example\r\n250 8BITMIME\r\n")
        self.addCleanup(plain.close)
        key = "/VTWIN/Agents/VTSMTPProxy/NetworkInterfaces/other/"
        self.proxy.load({key + "ServerToForward": "127.0.0.1:%d" % plain.port, key + "ServerTLS/Mode": "require", key + "Port": "0"})
        self.addCleanup(self.proxy.tool, "del", key[:-1])
        done = self.tool("release", entry["id"], "--interface", "other")
        self.assertEqual(done.returncode, 1)
        self.assertIn("offers no STARTTLS", done.stderr)
        self.assertEqual((self.state(entry), plain.messages), ("held", []))
        self.assertIn("no interface nowhere", self.tool("release", entry["id"], "--interface", "nowhere").stderr)

    def test_several_at_once_release_once(self):
        entry = self.hold()
        processes = [subprocess.Popen([BIN + "/vtquarantine", "release", entry["id"]], env=self.proxy.env, stdout=subprocess.DEVNULL,
                                      stderr=subprocess.DEVNULL) for _ in range(8)]
        self.assertEqual(sorted(process.wait(60) for process in processes), [0] + [1] * 7)
        self.assertEqual(len(self.released()), 1)

    def test_release_that_is_killed(self):
        entry = self.hold()
        self.server.rules["END"] = b""  # it has the message, and says nothing
        process = subprocess.Popen([BIN + "/vtquarantine", "release", entry["id"]], env=self.proxy.env, stderr=subprocess.DEVNULL)
        self.assertTrue(wait_until(lambda: self.released()))
        done = self.tool("release", entry["id"], "--again")
        self.assertEqual(done.returncode, 1, "the other one is still at it")
        process.kill()
        process.wait()
        self.server.rules["END"] = QUEUED
        self.assertEqual(self.state(entry), "releasing")
        self.assertEqual(self.tool("release", entry["id"]).returncode, 1)
        self.assertEqual(len(self.released()), 1)
        self.assertEqual(self.tool("release", entry["id"], "--again").returncode, 0)
        self.assertEqual((len(self.released()), self.state(entry)), (2, "released"))

    def test_what_people_see(self):
        hostile = (b"Subject: a\x1b[2Jb\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n"
                   b"Content-Type: text/plain; charset=iso-8859-1\r\n\r\nh\xe9llo \x1b]0;x\x07\r\n--b\r\nContent-Type: text/plain; name=v\r\n"
                   b"Content-Disposition: attachment\r\n\r\n" + EICAR + b"\r\n--b--\r\n")
        entry = self.hold(hostile)
        for words in (("list",), ("show", entry["id"]), ("find", "--id", entry["id"])):
            out = self.tool(*words).stdout
            self.assertIn("a?[2Jb", out)
            self.assertFalse(set(map(ord, out)) & {*range(10), *range(11, 32), 127}, words)
        self.assertIn("h\u00e9llo ?]0;x?", self.tool("show", entry["id"]).stdout)
        self.assertEqual(self.tool("show", entry["id"], "--part", "2").stdout.encode(), EICAR)
        self.assertEqual(self.tool("show", entry["id"], "--part", "3").returncode, 1)
        out = subprocess.run(["script", "-qc", "%s/vtquarantine show %s --raw" % (BIN, entry["id"]), "/dev/null"], env=self.proxy.env,
                             stdin=subprocess.DEVNULL, capture_output=True, check=True).stdout
        self.assertNotIn(b"\x1b", out)
        self.assertEqual([len(self.entries("find", *words)) for words in
                          (["--from", "S@"], ["--to", "nobody"], ["--subject", "2J"], ["--section", "content"], ["--since", "1h"], ["--until", "1h"])],
                         [1, 0, 1, 0, 1, 0])
        self.assertEqual(self.tool("find", "--to", "nobody").returncode, 1)
        for words in (["list", "--until", "1h"], ["show"], ["show", "a", "b"], ["release"], ["expire", "--days", "x"], ["list", "--limit", "0"],
                      ["show", entry["id"], "--raw", "--json"], ["release", entry["id"], "--to", ""], ["find", "--section", "other"], ["delete"], ["list", "x"]):
            self.assertEqual(self.tool(*words).returncode, 2, words)
        for words in (["show", "nothing"], ["release", "../" + entry["id"]], ["delete", "nothing"]):
            self.assertEqual(self.tool(*words).returncode, 1, words)
        done = self.tool("expire", "--days", "1")
        self.assertEqual((done.returncode, done.stdout), (0, "0 deleted\n"))
        self.assertEqual(self.tool("delete", entry["id"]).returncode, 0)
        self.assertEqual(self.tool("list").returncode, 1)
        self.assertEqual([name for name in os.listdir(self.folder) if not name.startswith("index.db")], [])

    def test_what_antivirus_action_says(self):
        zipped = attached(archive(("eicar.com", EICAR)))
        for word, reply, kept in (("reject", REJECTED, 0), ("drop", b"250", 0), ("put off", NOT_CHECKED, 0), ("remove", b"250", 1),
                                  ("redirect", REJECTED, 1), ("nonsense", REJECTED, 1), ("Quarantine", b"250", 2)):
            with self.subTest(word):
                self.settings(**{"Antivirus/Action": word})
                self.assertTrue(self.send(zipped).startswith(reply))
                self.assertEqual((len(self.entries()), self.released()), (kept, []))
        self.settings(**{"Antivirus/Action": "tag"})
        self.assertEqual(self.send(zipped), QUEUED)
        self.assertEqual(self.released(), [b"X-Vantrel-Finding: antivirus; VirusAction; Eicar-Test-Signature.UNOFFICIAL\r\n" + zipped + b"\r\n"])
        self.seen += 1
        self.assertEqual(self.send_chunk(zipped), b"250 ok\r\n")
        self.assertTrue(self.released()[0].endswith(b"\r\n" + zipped), "in chunks")
        self.settings(**{"Antivirus/Action": "", "VirusAction": "drop"})
        self.assertTrue(self.send(zipped).startswith(b"250"))
        self.assertEqual(len(self.entries()), 2)


class ByRules(Quarantined):
    def rule(self, action, text=""):
        self.settings(**{"Attachments/Rules/programs/FileName": "*.exe", "Attachments/Rules/programs/Action": action,
                         "Attachments/Rules/programs/Text": text})

    def test_rules_on_attachments(self):
        front = (b"Subject: a file\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n"
                 b"Content-Type: text/plain\r\n\r\nsee\r\n..dot\r\n--b\r\n")
        message = front + b"Content-Type: application/octet-stream; name=evil.exe\r\n\r\nMZ not so\r\n--b--\r\n"
        self.rule("remove")
        self.assertEqual(self.send(message), QUEUED)
        found = self.released()[-1]
        self.assertTrue(found.startswith(front) and b"MZ not so" not in found, found)
        entry = self.entries()[0]
        self.assertIn(entry["id"].encode(), found.replace(b"=\r\n", b""))
        self.assertEqual((entry["state"], entry["section"], entry["verdict"]), ("original", "attachments", "remove"))
        self.assertTrue(self.logged("loses a part by the rule programs"))
        self.rule("tag", "X-Program: yes\n[exe]")
        self.assertEqual(self.send(message), QUEUED)
        self.assertIn(b"X-Program: yes\r\nSubject: [exe] a file\r\n", self.released()[-1])
        self.assertTrue(self.released()[-1].startswith(b"X-Vantrel-Finding: attachments; programs; evil.exe"))
        count = len(self.released())
        self.rule("quarantine")
        self.assertTrue(self.send(message).startswith(b"250"))
        self.rule("remove")
        self.assertTrue(self.send(message.replace(b"multipart/mixed", b"multipart/signed")).startswith(b"250"))
        self.assertEqual(len(self.released()), count)
        self.assertEqual([entry["state"] for entry in self.entries()], ["held", "held", "original"])
        self.rule("reject", "no programs here")
        self.assertEqual(self.send(message), REJECTED)
        self.assertTrue(self.logged('reason="no programs here"'))


class NothingLost(Quarantined):
    def fill(self, left):
        """All of the quarantine's disk but for so many bytes."""
        with open(self.folder + "fill", "ab", 0) as file:
            with self.assertRaises(OSError):
                while True:
                    file.write(b"x" * 4096)
            file.truncate(file.tell() - left)

    def test_no_room(self):
        os.makedirs(self.folder, 0o700, exist_ok=True)
        if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=2m,mode=700", "none", self.folder], capture_output=True).returncode != 0:
            self.skipTest("can't mount")
        self.addCleanup(subprocess.run, ["umount", "-l", self.folder], check=True)
        self.hold()
        whole = sorted(os.listdir(self.folder))
        # Nothing more, no more than the files of a message, and those and a part of the index's journal.
        for left in (0, 4096, 8192, 12288, 16384):
            with self.subTest(left=left):
                self.fill(left)
                reply = self.send(body(EICAR))
                os.unlink(self.folder + "fill")
                if reply == NOT_CHECKED:
                    self.assertEqual(sorted(os.listdir(self.folder)), whole)
                else:
                    self.assertTrue(reply.startswith(b"250") and left > 8192, reply)
                self.assertTrue(wait_until(lambda: not self.proxy.spool()))
                self.tool("expire", "--days", "0")
                self.hold()
                whole = sorted(os.listdir(self.folder))
        self.assertTrue(self.logged("can't keep the message", 2))
        self.settings(**{"Quarantine/MaxSize": "1000"})
        self.assertEqual(self.send(body(b"x" * 2000 + b"\r\n" + EICAR)), NOT_CHECKED, "it would never have room")
        self.hold()

    def test_killed_at_any_point(self):
        """Whatever was accepted is there afterwards: in the quarantine once at least, and whole."""
        accepted, stop = [], threading.Event()

        def sender(number):
            count = 0
            while not stop.is_set():
                count += 1
                subject = b"n%dx%d" % (number, count)
                message = b"Subject: " + subject + b"\r\n\r\n" + EICAR + b"\r\n" + b"filler\r\n" * 2000
                try:
                    if self.send(message).startswith(b"250"):
                        accepted.append((subject.decode(), len(message)))
                except OSError:
                    pass
        threads = [threading.Thread(target=sender, args=(number,)) for number in range(3)]
        for thread in threads:
            thread.start()
        kills = 0
        begin = time.monotonic()
        while time.monotonic() - begin < 60 and (kills < 5 or len(accepted) < 20):
            before = len(accepted)
            wait_until(lambda: len(accepted) > before + 2, 3)
            time.sleep(0.003 * (kills % 7))
            self.maild.send_signal(signal.SIGKILL)
            self.maild.wait()
            kills += 1
            self.start_scanner()
        stop.set()
        for thread in threads:
            thread.join()
        self.assertGreaterEqual(kills, 5)
        self.assertGreaterEqual(len(accepted), 20)
        held = {entry["subject"]: entry for entry in self.entries()}
        for subject, size in accepted:
            self.assertIn(subject, held)
            self.assertEqual(held[subject]["size"], size)
            self.assertEqual(os.path.getsize(self.folder + held[subject]["id"] + ".eml"), size)
        self.assertEqual(self.released(), [])


if __name__ == "__main__":
    unittest.main()
