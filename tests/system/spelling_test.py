"""The address that the proxy reads in MAIL and RCPT beside what Postfix and Exim read in the same bytes: some thousand
spellings, the same in each run."""

import random
import re
import socket
import unittest

from harness import NET, Client, Listening, Proxy
from real_server import Exim, Postfix, available, exim_available

LIST = "/VTWIN/Filters/AS/SenderBlackList/"
BAD = b"bad@evil.example"
PIECES = [b"@", b"<", b">", b'"', b"\\", b"(", b")", b" ", b"\t", b"%", b"!", b":", b",", b";", b".", b"[", b"]", b"\v", b"\xc3\xa9", b"=", b"<>",
          b"(c d)", b"<a b>", b'"a b"', b"group:", b";", b" SIZE=100", b" PRDR", b"@x.example:", b"@ok.example:", b"@example.org", b"@evil.example",
          b"bad", BAD, b" <r@example.org>", b"AUTH=<>", b"\x7f", b"\xef\xbc\xa0"]
SENDERS = [b"<bad@evil.example>", b" bad@evil.example", b"<@x.example:bad@evil.example>", b'<"bad"@evil.example>', b" (c) <bad@evil.example> SIZE=100",
           b"<x@y.example> <bad@evil.example>", b"<bad@evil.example.>", b"<b\\ad@(c)evil.example>", b"<a b@y.example>group:bad@evil.example;",
           b"(c d) bad@evil.example", b"bad (c) @evil.example", b"<x@y.example>bad@evil.example", b'"a b" <bad@evil.example>']
RECIPIENTS = [b"<bad@evil.example>", b"<r@example.org>", b" r@example.org", b"<@example.org:bad@evil.example>", b"<bad%evil.example@example.org>",
              b"<evil.example!bad@example.org>", b'<"bad@evil.example"@example.org>', b"<r@example.org> <bad@evil.example>",
              b"<r@example.org> NOTIFY=NEVER", b"<r@example.org>group:bad@evil.example;"]


class Policy(Listening):
    """Postfix tells it of each recipient; (sender, recipient) as it has read them are in `seen`."""

    def __init__(self):
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.service = "check_policy_service inet:127.0.0.1:%d" % self.listener.getsockname()[1]
        self.seen = []
        self.listen()

    def _serve(self, client):
        fields = {}
        with client, client.makefile("rb") as stream:
            for line in stream:
                name, _, value = line.rstrip(b"\n").partition(b"=")
                fields[name] = value
                if line == b"\n":
                    self.seen.append((fields[b"sender"], fields[b"recipient"]))
                    client.sendall(b"action=DUNNO\n\n")


class Spelling(unittest.TestCase):
    COUNT = 4000

    def setUp(self):
        self.random = random.Random(20)

    def spelled(self, bases):
        text = self.random.choice(bases)
        for _ in range(self.random.choice((0, 1, 1, 2, 3))):
            at = self.random.randint(0, len(text))
            cut = at + self.random.choice((0, 0, 0, 1))
            text = text[:at] + self.random.choice((*PIECES, b"")) + text[cut:]
        return text

    def put(self, port, reads):
        keys = {NET + "/TimeoutBetweenNOOPs": "60", LIST + "Enabled": "Y", LIST + "UsersList/a": BAD.decode()}
        proxy = Proxy(port, keys)
        self.addCleanup(proxy.stop)
        passed, client = 0, None
        for count in range(self.COUNT):
            sender, recipient = b"<s%d@ok.example>" % count, b"<r@example.org>"
            if count % 2:
                sender = self.spelled(SENDERS)
            else:
                recipient = self.spelled(RECIPIENTS)
            if client is None:
                client = Client(proxy.port)
                client.reply()
                client.ask(b"EHLO me")
            client.send(b"MAIL FROM:" + sender + b"\r\nRCPT TO:" + recipient + b"\r\nRSET\r\n")
            answers = [client.reply() for _ in range(3)]
            if answers[1].startswith(b"250"):
                passed += 1
                seen_sender, seen_recipient = (re.sub(rb'["\\]', b"", each.lower()) for each in reads(answers[1]))
                self.assertNotEqual(seen_sender.rstrip(b"."), BAD, sender)
                self.assertRegex(seen_recipient, rb"^[^@%!]*(@example\.org|@real\.example)?$", recipient)
            if not answers[2].startswith(b"250"):  # a line that ends the session
                client.close()
                client = None
        if client is not None:
            client.close()
        self.assertGreater(passed, 100)

    @unittest.skipUnless(available(), "needs Postfix and root")
    def test_postfix(self):
        policy = Policy()
        self.addCleanup(policy.close)
        settings = {"smtpd_recipient_restrictions": policy.service + ", permit", "smtpd_relay_restrictions": "permit_mynetworks, reject",
                    "smtpd_error_sleep_time": "0", "smtpd_soft_error_limit": "99999", "smtpd_hard_error_limit": "99999",
                    "smtpd_junk_command_limit": "99999", "in_flow_delay": "0"}
        server = Postfix(settings=settings)
        self.addCleanup(server.close)
        self.put(server.port, lambda reply: policy.seen[-1])

    @unittest.skipUnless(exim_available(), "needs Exim and root")
    def test_exim(self):
        server = Exim(settings="smtp_max_synprot_errors = 99999\nsmtp_max_unknown_commands = 99999\nsmtp_accept_max_nonmail = 99999\n"
                      "smtp_accept_max_per_connection = 99999\n", accepted="S=<$sender_address> R=<$local_part@$domain>")
        self.addCleanup(server.close)
        self.put(server.port, lambda reply: re.search(rb"S=<(.*?)> R=<(.*)>", reply, re.DOTALL).groups())


if __name__ == "__main__":
    unittest.main()
