"""Commands of real servers behind which the bytes are no dialogue any more, or the replies are more than one: they are neither
offered nor taken, and a server that goes that way all the same ends the session."""

import unittest

import real_server
from harness import NET, Client, Proxy, ScanDaemon, wait_until
from system_test import System

UNKNOWN = b"501 Unknown command\r\n"
UNKNOWN_PARAMETER = b"555 5.5.4 PRDR is not known here\r\n"
OUT_OF_STEP = b"421 4.3.0 Server out of step, closing transmission channel\r\n"


class OtherChannels(System):
    OFFERS = (b"XEXCH50", b"X-LINK2STATE", b"TURN", b"ATRN", b"VERB", b"COMPRESS DEFLATE", b"XPROXY", b"XPROXYFROM", b"XPROXYTO",
              b"XSHADOW", b"XSHADOWREQUEST", b"XMESSAGECONTEXT ADRC", b"PRDR")
    VERBS = (b"XEXCH50 1024 2", b"xexch50 5", b"X-LINK2STATE LAST CHUNK={x}", b"TURN", b"atrn example.org", b"LHLO me", b"VERB ON",
             b"COMPRESS DEFLATE", b"XPROXY SID=1", b"XPROXYFROM SID=1", b"XPROXYTO SID=1", b"XSHADOW x", b"XSHADOWREQUEST SERVER=x",
             b"\tXEXCH50 5")

    def test_neither_offered_nor_taken(self):
        self.server.rules["EHLO"] = b"250-real\r\n" + b"".join(b"250-" + each + b"\r\n" for each in self.OFFERS) + b"250 HELP\r\n"
        c = self.opened()
        self.assertEqual(c.ask(b"EHLO me"), b"250-proxy.example\r\n250 HELP\r\n")
        self.server.lines.clear()
        for line in self.VERBS:
            self.assertEqual(c.ask(line), UNKNOWN, line)
        self.assertEqual(set(self.server.lines), {b"NOOP\r\n"})

    def test_all_of_the_way_encrypted_is_not_offered_in_the_clear(self):
        self.server.rules["EHLO"] = b"250-real\r\n250-REQUIRETLS\r\n250 HELP\r\n"
        self.assertEqual(self.opened().ask(b"EHLO me"), b"250-proxy.example\r\n250 HELP\r\n")

    def test_a_reply_for_each_recipient_is_not_asked_for(self):
        c = self.opened()
        self.server.lines.clear()
        for parameters in (b" PRDR", b" prdr", b" SIZE=5 PRDR BODY=7BIT", b"\tPRDR", b" BODY=7BIT\vPRDR", b" PRDR=", b" prdr=1"):
            self.assertEqual(c.ask(b"MAIL FROM:<s@example.org>" + parameters), UNKNOWN_PARAMETER, parameters)
        self.assertEqual(set(self.server.lines), {b"NOOP\r\n"})
        self.assertEqual(c.ask(b"MAIL FROM:<prdr@prdr.example> BODY=8BITMIME XPRDR")[:3], b"250")

    def test_a_server_that_waits_for_bytes_ends_the_session(self):
        for code in (b"300", b"350", b"352", b"353", b"354", b"355", b"399"):
            self.server.rules["STRANGE"] = code + b" send them\r\n"
            c = self.opened()
            self.assertEqual(c.ask(b"STRANGE 5"), OUT_OF_STEP, code)
            self.assertEqual(c.reply(), b"")

    def test_a_message_that_is_answered_in_another_way_ends_the_session(self):
        self.server.rules["END"] = b"353 analysis begins\r\n250 r\r\n250 queued\r\n"
        c = self.ready()
        self.assertEqual(c.data(b"hello\r\n.\r\n"), OUT_OF_STEP)
        self.assertEqual(c.reply(), b"")

    def test_a_handshake_behind_an_unknown_verb_goes_nowhere(self):
        self.server.rules["X-SECURE"] = b"220 go ahead\r\n"
        c = self.opened()
        self.assertEqual(c.ask(b"X-SECURE")[:3], b"220")
        count = len(self.server.lines)
        c.send(b"\x16\x03\x01 hello\r\nMAIL FROM:<hidden@example.org>\r\n")
        self.assertEqual(c.reply(), b"")
        self.assertEqual(self.server.lines[count:], [])


@unittest.skipUnless(real_server.exim_available(), "needs root and Exim")
class EximOffers(unittest.TestCase):
    def test_two_messages_in_step(self):
        exim = real_server.Exim(settings="prdr_enable = true\nacl_smtp_data_prdr = accept\n")
        self.addCleanup(exim.close)
        proxy = Proxy(exim.port, {NET + "/TimeoutBetweenNOOPs": "5"}, start=False)
        self.addCleanup(proxy.stop)
        scan = ScanDaemon(proxy.home)
        self.addCleanup(scan.close)
        proxy.start()
        bare = Client(exim.port)
        self.addCleanup(bare.close)
        bare.reply()
        self.assertIn(b"PRDR", bare.ask(b"EHLO me"), "what this is about")
        c = Client(proxy.port)
        self.addCleanup(c.close)
        c.reply()
        offers = c.ask(b"EHLO me")
        self.assertNotIn(b"PRDR", offers)
        self.assertEqual(c.ask(b"MAIL FROM:<s@example.org> PRDR")[:3], b"555")
        for _ in range(2):
            c.mail(recipients=(b"r@example.org", b"t@example.org"))
            self.assertRegex(c.data(b"Subject: x\r\n\r\nhello\r\n.\r\n"), rb"\A250 OK id=")
        self.assertEqual(c.ask(b"NOOP")[:3], b"250")
        self.assertTrue(wait_until(lambda: exim.logged().count("Completed") == 2), exim.logged())
