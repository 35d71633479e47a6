"""Strangers against the relay guard: addresses from a grammar, in front of servers that read them their own way and would
send anywhere for the proxy. What the proxy passes, they keep. Another seed or number: VANTREL_SEED, VANTREL_ADDRESSES."""

import collections
import os
import random
import re
import time
import unittest

import real_server
from harness import NET, Client, Proxy, ScanDaemon, wait_until
from system_test import System

REFUSED = b"550 Unable to relay\r\n"
COUNT = int(os.environ.get("VANTREL_ADDRESSES", "5000"))
DIRECT = 500  # enough to show that the servers do relay
PER_MESSAGE = 25  # recipients
ERRORS = 8  # of the server, in one session: above ten Postfix takes a second for each
ORDINARY = (b"<u@example.org>", b"<U.V+tag@EXAMPLE.Org> NOTIFY=NEVER", b" <u@example.org>", b"u@example.org", b"<postmaster>",
            b'<"u.v"@example.org>', b"<@example.org:u@example.org>")


AS = "/VTWIN/Filters/AS/SenderBlackList"


class Paths(System):
    """What a session makes of the paths, in front of a server that takes everything."""
    keys = {AS + "/Enabled": "Y", AS + "/EnabledSendDenyMessage": "Y", AS + "/DenyMessage": "550 not you",
            AS + "/WildcardsList/1": "*@spam.test"}

    def begun(self, sender=b"<s@example.org>"):
        c = self.client()
        self.assertTrue(c.reply().startswith(b"220"))
        self.assertEqual(c.ask(b"MAIL FROM:" + sender), b"250 ok\r\n")
        return c

    def test_recipients_of_strangers(self):
        c = self.begun()
        for recipient in (b"<victim@evil.test(x@example.org)>", b"<evil.test!victim>", b"<a@example.org@evil.test> ORCPT=rfc822;x:y",
                          b'<"victim@evil.test">', b"<@example.org:U@example.orgevil.net>", b"<u@example.org>NOTIFY=NEVER"):
            self.assertEqual(c.ask(b"RCPT TO:" + recipient), REFUSED, recipient)
        for line in (b"RCPT <victim@evil.test>", b"RCPT TO<victim@evil.test>", b"RCPT TO <victim@evil.test>"):
            self.assertEqual(c.ask(line), REFUSED, line)
        self.assertFalse([line for line in self.server.lines if line.startswith(b"RCPT")])
        for line in (b"RCPT TO <u@example.org>", b"RCPT u", b"RCPT TO:<u@example.org> ORCPT=rfc822;x@evil.test"):
            self.assertEqual(c.ask(line), b"250 ok\r\n", line)

    def test_a_relay_client_is_not_guarded_and_the_scan_sees_what_the_server_will(self):
        for name, value in (("IPAddress", "127.0.0.0"), ("Mask", "255.0.0.0")):
            self.proxy.tool("set", NET + "/RelayNetworks/l/" + name, value)

        def allowed():
            return self.opened(b"MAIL FROM:<s@example.org>").ask(b"RCPT TO:<u@elsewhere.test>").startswith(b"250")
        self.assertTrue(wait_until(allowed))
        c = self.begun(b"<\"Sender\"@ok.test (c@example.org)> SIZE=9 AUTH=<x@ok.test>")
        for recipient in (b"<one@evil.test(x@example.org)>", b"<evil.test!two>", b"<@example.org:three@example.org> ORCPT=rfc822;x:y"):
            self.assertEqual(c.ask(b"RCPT TO:" + recipient), b"250 ok\r\n", recipient)
        self.assertEqual(c.data(b"hello\r\n.\r\n"), b"250 queued\r\n")
        request = self.scan.requests[-1]
        self.assertIn(b"\0one@evil.test;two@evil.test;three@example.org\0", request)
        self.assertIn(b"\0Sender@ok.test\0", request)

    def test_no_disguise_hides_a_sender(self):
        c = self.opened()
        for sender in (b"<bad@spam.test>", b"<bad@spam.test(x@ok.test)>", b"<spam.test!bad>", b"<bad@spam.test> AUTH=<x@ok.test>"):
            self.assertEqual(c.ask(b"MAIL FROM:" + sender), b"550 not you\r\n", sender)
        for sender in (b"<x@ok.test> AUTH=<bad@spam.test>", b"<>"):
            self.assertEqual(c.ask(b"MAIL FROM:" + sender), b"250 ok\r\n", sender)


class Addresses:
    """An endless supply, the same for the same seed."""

    OURS = (b"example.org",) * 6 + (b"EXAMPLE.org", b"Example.Org")
    OTHERS = (b"evil.test", b"example.org.evil.test", b"example.orgevil.test", b"evilexample.org", b"sub.example.org",
              b"[192.0.2.1]", b"[example.org]", b"EVIL.test", b"evil")
    LOCALS = (b"u", b"victim", b"a.b", b"U+tag", b"a-b_c", b"x..y", b".x", b"x.", b"#$&'*/?^`{|}~", b"j\xc3\xbcrgen", b"\xe7\x94\xa8",
              b"j\xfcrgen", b"victim\xef\xbc\xa0evil.test", b"\\u", b"victim\\@evil.test", b"evil.test\\!victim", b"")
    ATOM = b"abcdefghijklmnopqrstuvwxyzABCXYZ0123456789" * 2 + b"....--__++=#$&'*/?^`{|}~" + b"!%:;,@ "
    QUOTED = (b"u", b"a b", b"victim@evil.test", b"evil.test!victim", b"victim%evil.test", b"u\\@v", b"u\\\"v", b"u>", b"<victim@evil.test>",
              b"@evil.test:victim", b"", b"u\tv", b"u,v", b"u..v")
    COMMENTS = (b"(x)", b"(x@example.org)", b"(victim@evil.test)", b"(a(b)c)", b"(\\))", b"(", b")", b"\t(@example.org)", b" (x)", b"()")
    PIECES = (b"@", b"!", b"%", b":", b",", b";", b".", b"<", b">", b"(", b")", b"[", b"]", b'"', b"\\", b" ", b"\t", b"\x01", b"\x0b", b"\x0c",
              b"\x7f", b"\x80", b"\xa0", b"@example.org", b"@evil.test", b"evil.test!", b"%evil.test", b"victim@evil.test", b"(x)", b"=", b"/")
    PARAMETERS = (b"", b"", b"", b" NOTIFY=NEVER", b" ORCPT=rfc822;x:y", b" ORCPT=rfc822;x@example.org", b" ORCPT=rfc822;victim@evil.test",
                  b"\tNOTIFY=NEVER", b"NOTIFY=NEVER", b" victim@evil.test", b" <victim@evil.test>", b" @example.org", b"x", b"@evil.test", b" ",
                  b" NOTIFY=NEVER ORCPT=rfc822;u:v@example.org")
    NAMES = (b"", b"", b"", b"", b" ", b"\t", b"Some One ", b"x", b'"victim@evil.test" ', b"victim@evil.test ", b"evil.test!victim ", b"(x)", b":",
             b"<victim@evil.test> ", b"@evil.test:", b"victim,")

    def __init__(self, seed):
        self.random = random.Random(seed)

    def often(self, share):
        return self.random.random() < share

    def domain(self):
        domain = self.random.choice(self.OURS if self.often(0.7) else self.OTHERS)
        if self.often(0.08):
            domain += self.random.choice((b".", b"..", b" ", b"\t", b",", b":25", b"\xc2\xa0"))
        return domain

    def word(self):
        return bytes(self.random.choices(self.ATOM, k=self.random.randint(1, 9)))

    def local(self):
        if self.often(0.3):
            return self.word() if self.often(0.8) else b'"' + self.word() + b'"'
        if self.often(0.7):
            return self.random.choice(self.LOCALS[:5] if self.often(0.6) else self.LOCALS)
        return b'"' + self.random.choice(self.QUOTED) + b'"'

    def mailbox(self):
        shape = self.random.random()
        if shape < 0.55:
            return self.local() + b"@" + self.domain()
        if shape < 0.63:
            return self.domain() + b"!" + self.local() + (b"@" + self.domain() if self.often(0.5) else b"")
        if shape < 0.71:
            return self.local() + b"%" + self.domain() + (b"@" + self.domain() if self.often(0.7) else b"")
        if shape < 0.79:
            return self.local() + b"@" + self.domain() + b"@" + self.domain()
        if shape < 0.84:
            return b'"' + self.local().replace(b'"', b"") + b"@" + self.domain() + b'"' + (b"@" + self.domain() if self.often(0.5) else b"")
        if shape < 0.89:
            return self.local()
        return self.local() + b"@" + self.domain() + self.random.choice(self.COMMENTS)

    def route(self):
        hops = b",".join(b"@" + self.domain() for _ in range(self.random.randint(1, 3)))
        return hops + self.random.choice((b":", b":", b":", b"", b",", b"::"))

    def mutated(self, text):
        at = self.random.randint(0, len(text))
        return text[:at] + self.random.choice(self.PIECES) + text[at + (self.often(0.2)):]

    def next(self):
        path = (self.route() if self.often(0.15) else b"") + self.mailbox()
        if self.often(0.15):
            at = self.random.randint(0, len(path))
            path = path[:at] + self.random.choice(self.COMMENTS) + path[at:]
        while self.often(0.2):
            path = self.mutated(path)
        form = self.random.random()
        text = (b"<%s>" if form < 0.8 else b"%s" if form < 0.94 else b"<<%s>>" if form < 0.96 else b"<%s" if form < 0.98 else b"%s>") % path
        if self.often(0.3):
            text = self.random.choice(self.NAMES) + text
        if self.often(0.3):
            text += self.random.choice(self.PARAMETERS)
        return self.mutated(text) if self.often(0.05) else text


class Sender:
    """Gives recipients to whatever listens on the port, several in a message. A session that ends takes its message with
    it; its recipients come again."""

    def __init__(self, port):
        self.port = port
        self.client = None
        self.pending = []
        self.errors = 0
        self.sessions = 0
        self.refused = []  # by the proxy
        self.rejected = []  # by the server
        self.messages = {}  # the server's identifier: the recipients

    def open(self):
        self.close()
        self.client = Client(self.port)
        self.sessions += 1
        self.errors = 0
        return self.client.reply().startswith(b"220") and self.client.ask(b"EHLO me").startswith(b"250") and self.begin()

    def worn(self):
        return self.errors >= ERRORS

    def begin(self):
        return self.client.ask(b"MAIL FROM:<sender@example.org>").startswith(b"250")  # so bounces stay inside, too

    def close(self):
        if self.client:
            self.client.close()
            self.client = None

    def commit(self):
        """False if the message is lost."""
        if not self.client.ask(b"DATA").startswith(b"354"):
            return False
        self.client.send(b"Subject: x\r\n\r\nx\r\n.\r\n")
        reply = self.client.reply()
        found = re.search(rb"(?:queued as |id=)(\S+)", reply)
        if not reply.startswith(b"250") or not found:
            return False
        self.messages[found.group(1).decode()] = self.pending
        self.pending = []
        return True

    def offer(self, recipient):
        """The reply, or nothing if the session has ended."""
        try:
            reply = self.client.ask(b"RCPT TO:" + recipient)
        except OSError:
            return b""
        return b"" if reply.startswith(b"421") else reply

    def run(self, recipients):
        waiting = collections.deque(recipients)
        lost = collections.Counter()
        while waiting or self.pending:
            if self.client is None and not self.open():
                raise AssertionError("no session")
            if not waiting or len(self.pending) >= PER_MESSAGE or (self.worn() and self.pending):
                if not self.commit():
                    self.again(waiting)
                elif self.worn() or not self.begin():
                    self.close()
                continue
            if self.worn():
                self.close()
                continue
            recipient = waiting.popleft()
            reply = self.offer(recipient)
            if not reply:
                lost[recipient] += 1
                if lost[recipient] < 3:
                    waiting.appendleft(recipient)
                else:
                    self.rejected.append(recipient)
                self.again(waiting)
            elif reply.startswith(b"250"):
                self.pending.append(recipient)
            elif reply == REFUSED:
                self.refused.append(recipient)
            else:
                self.rejected.append(recipient)
                self.errors += 1
        self.close()

    def again(self, waiting):
        waiting.extendleft(reversed(self.pending))
        self.pending = []
        self.close()


class Relay:
    """A case gives: make() the server, DONE what it logs when it is done with a message, ELSEWHERE and OURS what it logs for
    a recipient that goes there, the message's identifier first."""

    def setUp(self):
        self.seed = int(os.environ.get("VANTREL_SEED") or time.time_ns() % 10**9)
        print("seed %d" % self.seed, flush=True)
        self.server = self.make()
        self.addCleanup(self.server.close)
        self.proxy = Proxy(self.server.port, {NET + "/TimeoutBetweenNOOPs": "60", NET + "/ConnectionTimeout": "60"})
        self.addCleanup(self.proxy.stop)
        self.scan = ScanDaemon(self.proxy.home)
        self.addCleanup(self.scan.close)

    def send(self, port, recipients):
        """Sends them, and waits until the server is done with all messages."""
        sender = Sender(port)
        sender.run(recipients)

        def done():
            return set(sender.messages) <= set(re.findall(self.DONE, self.server.logged()))
        self.assertTrue(wait_until(done, 60), "the server isn't done with its messages")
        return sender

    def gone(self, sender, pattern):
        return [(match, sender.messages[match[0]]) for match in re.findall(pattern, self.server.logged()) if match[0] in sender.messages]

    def test_no_stranger_gets_out(self):
        addresses = Addresses(self.seed)
        supply = [addresses.next() for _ in range(COUNT)]
        supply = [each for each in supply if b"\r" not in each and b"\n" not in each]

        direct = self.send(self.server.port, supply[:DIRECT])
        leaked = self.gone(direct, self.ELSEWHERE)
        self.assertGreater(len(leaked), DIRECT // 50, "without the guard addresses do get out, or this test proves nothing")

        sender = self.send(self.proxy.port, supply + list(ORDINARY))
        passed = [each for recipients in sender.messages.values() for each in recipients]
        ours = self.gone(sender, self.OURS)
        print("%d addresses, %d refused, %d passed, %d of them rejected by the server, %d delivered here; %d of %d got out directly"
              % (len(supply), len(sender.refused), len(passed) + len(sender.rejected), len(sender.rejected), len(ours), len(leaked),
                 DIRECT), flush=True)
        out = self.gone(sender, self.ELSEWHERE)
        self.assertEqual(out, [], "seed %d: got out" % self.seed)
        self.assertEqual([each for each in ORDINARY if each in sender.refused], [], "ordinary addresses pass")
        self.assertGreater(len(set(passed)), COUNT // 50, "a guard that passes nothing proves nothing")
        self.assertGreater(len(ours), COUNT // 100)
        self.assertEqual(len(sender.refused) + len(passed) + len(sender.rejected), len(supply) + len(ORDINARY))


@unittest.skipUnless(real_server.available(), "needs root and Postfix")
class PostfixRelay(Relay, unittest.TestCase):
    """With example.org as its own domain, where Postfix looks for further addresses in the local part."""
    DONE = r" (\w+): removed"
    ELSEWHERE = r" (\w+): to=<(.*?)>,.* status=(?!sent \(ours\)|bounced)(.*)"
    OURS = r" (\w+): to=<(.*?)>,.* status=sent \(ours\)"

    def make(self):
        return real_server.Postfix(settings={
            "mydestination": "example.org", "myorigin": "example.org", "virtual_mailbox_domains": "", "local_recipient_maps": "",
            "local_transport": "discard:ours", "default_transport": "discard:elsewhere", "relay_transport": "discard:elsewhere",
            "smtpd_junk_command_limit": "100"})


@unittest.skipUnless(real_server.exim_available(), "needs root and Exim")
class EximRelay(Relay, unittest.TestCase):
    DONE = r" (\S+) Completed"
    ELSEWHERE = r" (\S+) [=-]> (.*) R=elsewhere"
    OURS = r" (\S+) [=-]> (.*) R=ours"

    def make(self):
        return real_server.Exim()
