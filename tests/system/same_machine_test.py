"""docs/postfix-same-machine.md with the packaged Postfix: its lines, on ports of the test."""

import re
import smtplib
import unittest

import real_server
from docs_test import blocks, read
from harness import NET, Proxy, ScanDaemon, clean, free_port, verdict, wait_until

OUT = NET.replace("/net", "/out")
INFECTED = b"this one is infected"


def judge(request):
    path = next(word for word in request.split(b"\0") if b"/tmp/VTNP/" in word)
    with open(path[path.index(b"/"):].decode(), "rb") as file:
        return verdict(4, section_mask=4) if INFECTED in file.read() else clean()


@unittest.skipUnless(real_server.available(), "needs root and Postfix")
class SameMachine(unittest.TestCase):
    def setUp(self):
        ports = {name: free_port() for name in ("10025", "10026", "10027", "submission")}
        lines = "".join(block for block in blocks(read("docs", "postfix-same-machine.md")) if " smtpd\n" in block)
        # Users are known by their password there, by their address here; and nothing is in a chroot.
        lines = re.sub(r"(?m)^  -o smtpd_(tls|sasl)_.*\n", "", lines).replace("permit_sasl_authenticated", "permit_mynetworks")
        lines = re.sub(r"(?m)^(\S+ +\S+ n -) y", r"\1 n", lines).replace("submission inet", "127.0.0.1:%d inet" % ports["submission"])
        for name, port in ports.items():
            lines = lines.replace(":" + name, ":%d" % port)
        self.server = real_server.Postfix(settings={"smtpd_peername_lookup": "no"}, services=lines + "smtp unix - - n - - smtp\n")
        self.addCleanup(self.server.close)
        self.submission = ports["submission"]
        self.proxy = Proxy(ports["10025"], {
            NET + "/TellServer": "xclient", NET + "/TellServerRequired": "Y", OUT + "/IPAddress": "127.0.0.1",
            OUT + "/Port": str(ports["10026"]), OUT + "/ServerToForward": "127.0.0.1:%d" % ports["10027"],
            OUT + "/RelayNetworks/local/IPAddress": "127.0.0.0/8"})
        self.addCleanup(self.proxy.stop)
        self.scan = ScanDaemon(self.proxy.home, judge)
        self.addCleanup(self.scan.close)

    def send(self, port, text, sender="s@example.org", source="127.0.0.1"):
        with smtplib.SMTP("127.0.0.1", port, source_address=(source, 0)) as client:
            client.sendmail(sender, ["r@example.org"], "Subject: x\n\n" + text)

    def mailbox(self, count):
        self.assertTrue(wait_until(lambda: len(self.server.delivered()) == count, 20), self.server.logged())
        return [open_file(path) for path in self.server.delivered()]

    def test_mail_that_comes_has_its_own_client(self):
        self.send(self.proxy.port, "hello", source="127.0.0.9")
        self.mailbox(1)
        self.assertRegex(self.server.logged(), r"postfix/behind/smtpd\[\d+\]: \w+: client=unknown\[127\.0\.0\.9\]")

    def test_mail_that_goes_is_scanned_once_and_its_sender_hears_of_a_refusal(self):
        self.send(self.submission, "hello")
        self.assertIn("hello", self.mailbox(1)[0])
        self.assertEqual(len(self.scan.requests), 1)
        self.assertRegex(self.server.logged(), r"postfix/checked/smtpd\[\d+\]: \w+: client=")
        self.send(self.submission, INFECTED.decode())
        bounced = [text for text in self.mailbox(2) if "Return-Path: <>" in text]
        self.assertEqual(len(bounced), 1)
        self.assertIn("550 Rejected by Vantrel.", bounced[0])

    def test_mail_that_can_not_be_scanned_waits_at_postfix(self):
        self.scan.close()
        self.send(self.submission, "hello")
        self.assertTrue(wait_until(lambda: "status=deferred" in self.server.logged(), 20), self.server.logged())
        self.assertIn("451 4.3.0 Message could not be checked", self.server.logged())
        self.assertEqual(self.server.delivered(), [])


def open_file(path):
    with open(path, encoding="utf-8") as file:
        return file.read()
