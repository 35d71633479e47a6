"""`vtsmtpproxy check`: what it finds in a configuration that is right but for one thing, and that it leaves all as it was."""

import grp
import json
import os
import pwd
import subprocess
import unittest

from harness import BIN, NET, MailServer, Proxy, ScanDaemon, clean, listens, verdict
from scanning import EICAR
from tls import Authority, TlsServer

MAIL = "/VTWIN/Daemons/MailDaemon"
TRUST = NET + "/Trust/a"
AS = "/VTWIN/Filters/AS"
DENY = AS + "/AllowDenyIPList/Addresses/"
STATS = "/VTWIN/Daemons/StatsDaemon"
CLOSED = "127.0.0.1:9"


def judge(request):
    """As an engine does: by what is in the file."""
    path = request[request.index(b"/"):].split(b"\0")[0]
    with open(path, "rb") as file:
        return verdict(4, section_mask=4) if EICAR in file.read() else clean()


class Checking(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.authority = Authority()
        cls.addClassCleanup(cls.authority.close)
        cls.good = cls.authority.issue("good.pem", days=90)
        cls.soon = cls.authority.issue("soon.pem", days=5)
        cls.foreign = cls.authority.dir + "/foreign.pem"
        with open(cls.foreign, "w", encoding="ascii") as out, open(cls.soon, encoding="ascii") as file:
            out.write(file.read().split("-----BEGIN CERTIFICATE")[0])
        cls.expired = cls.authority.issue("expired.pem", days=-1)
        for file in (cls.good, cls.soon, cls.foreign, cls.expired):
            os.chmod(file, 0o640)

    def setUp(self):
        self.server = MailServer()
        self.proxy = Proxy(self.server.port, start=False)
        self.scan = ScanDaemon(self.proxy.home, judge)

    def tearDown(self):
        self.proxy.stop()
        self.scan.close()
        self.server.close()

    def run_check(self, *words):
        done = subprocess.run([BIN + "/vtsmtpproxy", "check", *words], env=self.proxy.env, capture_output=True, text=True,
                              timeout=60)
        self.assertEqual(done.stderr, "")
        return done.returncode, done.stdout

    def findings(self):
        code, out = self.run_check("--json")
        found = json.loads(out)
        self.assertEqual(code, 2 if any(each["severity"] == "error" for each in found) else 1 if found else 0)
        return found

    def assert_fine(self):
        self.assertEqual(self.run_check(), (0, "nothing to complain of\n"))
        self.assertEqual(self.run_check("--json"), (0, "[]\n"))

    def one_at_a_time(self, cases):
        before = json.loads(self.proxy.tool("dump").stdout)
        for keys, severity, key, word in cases:
            with self.subTest(keys=keys):
                self.proxy.load(keys)
                found = self.findings()
                for each in keys:
                    self.proxy.tool("del", each)
                self.proxy.load(before)
                expected = key or next(iter(keys))
                self.assertEqual([(each["severity"], each["key"]) for each in found], [(severity, expected)], found)
                self.assertIn(word, found[0]["remedy"])
        self.assert_fine()  # each case has been taken back

    def one(self, key, word, severity="error"):
        found = self.findings()
        self.assertEqual([(each["severity"], each["key"]) for each in found], [(severity, key)], found)
        self.assertIn(word, found[0]["problem"] + found[0]["remedy"])


class Right(Checking):
    def test_nothing_to_complain_of(self):
        self.assert_fine()
        self.assertEqual(os.listdir(self.proxy.home + "/tmp"), [])
        self.assertEqual([b"EHLO localhost\r\n", b"QUIT\r\n"], self.server.lines[:2])

    def test_nor_while_the_proxy_runs(self):
        self.proxy.start()
        self.assert_fine()
        self.assertTrue(self.proxy.alive())

    def test_nor_for_a_user_with_fewer_powers_than_the_proxy(self):
        """Only root may look into a process that may serve low ports."""
        other = ["setpriv", "--reuid", "nobody", "--regid", "nogroup", "--clear-groups", BIN + "/vtsmtpproxy"]
        if os.geteuid() != 0 or subprocess.run([*other, "check", "--no"], capture_output=True).returncode != 2:
            self.skipTest("nobody else to be")
        port = next(each for each in range(600, 1024) if not listens(each))
        self.proxy.load({NET + "/Port": str(port)})
        self.proxy.port = port
        for folder, folders, files in os.walk(self.proxy.home):
            for name in (".", *folders, *files):
                os.chown(os.path.join(folder, name), pwd.getpwnam("nobody").pw_uid, grp.getgrnam("nogroup").gr_gid)
        self.proxy.start()
        done = subprocess.run([*other, "check"], env=self.proxy.env, capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "nothing to complain of\n", ""))
        self.assert_fine()
        self.proxy.process.terminate()
        self.proxy.process.wait(30)
        done = subprocess.run([*other, "check"], env=self.proxy.env, capture_output=True, text=True)
        self.assertEqual(done.returncode, 1)
        self.assertIn("run the check as root", done.stdout)
        self.assert_fine()

    def test_nor_with_everything_set(self):
        server = TlsServer(self.good)
        self.addCleanup(server.close)
        self.proxy.load({NET + "/ServerToForward": "localhost:%d" % server.port, NET + "/TLS/Mode": "offer",
                         NET + "/TLS/Certificate": self.good, NET + "/AuthOnlyOverTLS": "Y", TRUST: "192.0.2.0/24",
                         NET + "/ProxyProtocol": "Y", NET + "/FallbackServers/a": "127.0.0.1:%d" % self.server.port,
                         NET + "/ServerTLS/Mode": "try", NET + "/RelayNetworks/a/IPAddress": "192.0.2.0",
                         NET + "/RelayNetworks/a/Mask": "255.255.255.0", NET + "/RelayNetworks/b/IPAddress": "2001:db8::/32",
                         NET + "/RelayNetworks/c/IPAddress": "10.0.0.0/8", DENY + "a/IP": "0.0.0.0/0", DENY + "a/Action": "2",
                         DENY + "b/IP": "192.0.2.0/24", DENY + "b/Action": "1", AS + "/AllowDenyIPList/Enabled": "Y",
                         AS + "/SenderBlackList/WildcardsList/a": "*@*.example", AS + "/SenderBlackList/Enabled": "Y",
                         STATS + "/QuarantineAccounts/a": "ann", STATS + "/Accounts/ann": "hash"})
        self.assert_fine()
        self.assertEqual(server.handshakes, 2)  # one a run

    def test_nor_of_what_the_programs_register(self):
        for program in ("vtregistry", "vtmaild", "vtlogd", "vtstatd"):
            subprocess.run([BIN + "/" + program, "register"], env=self.proxy.env, check=True)
        self.assert_fine()

    def test_the_store_stays_as_it_was(self):
        before = self.proxy.tool("dump").stdout
        self.findings()
        self.assertEqual(self.proxy.tool("dump").stdout, before)


class Wrong(Checking):
    def test_one_thing_at_a_time(self):
        """Keys; severity, key (where it isn't the first one that is set) and a word of the remedy."""
        cases = (
            ({NET + "/ServerToFoward": "127.0.0.1:25"}, "warning", None, "ServerToForward"),
            ({"/VTWIN/Colour": "red"}, "warning", None, "delete"),
            ({"/VTWIN/Filters/AS/AllowDenyIPList/Addresses/a/Action": "3",
              "/VTWIN/Filters/AS/AllowDenyIPList/Addresses/a/IP": "192.0.2.1"}, "error", None, "1 to 2"),
            ({NET + "/ConnectionTimeout": "ten"}, "error", None, "1 to 3600"),
            ({NET + "/ConnectTimeout": "4000"}, "error", None, "1 to 3600"),
            ({NET + "/Pipelining": "true"}, "error", None, "Y or N"),
            ({NET + "/BareNewline": "fix"}, "error", None, "normalize"),
            ({MAIL + "/VirusAction": "delete"}, "error", None, "reject"),
            ({MAIL + "/VirusAction": "redirect"}, "warning", None, "RedirectAddress"),
            ({NET + "/MaxMessageSize": "1G"}, "warning", None, "MaxFileSize"),
            ({NET + "/Port": "70000"}, "error", None, "65535"),
            ({NET + "/IPAddress": "mx.example.org"}, "error", None, "address of this host"),
            ({NET + "/IPAddress": "192.0.2.77"}, "error", None, "address of this host"),
            ({NET + "/ServerToForward": CLOSED}, "error", None, "start the server"),
            ({NET + "/ServerToForward": "no-such-host.invalid:25"}, "error", None, "resolver"),
            ({NET + "/FallbackServers/a": CLOSED}, "error", None, "start the server"),
            ({NET + "/ServerToForward": "127.0.0.1:%d" % self.proxy.port}, "error", None, "behind"),
            ({NET + "/RelayNetworks/a/IPAddress": "0.0.0.0/0"}, "error", None, "your own clients"),
            ({NET + "/RelayNetworks/a/IPAddress": "::/0"}, "error", None, "your own clients"),
            ({NET + "/RelayNetworks/a/Mask": "0.0.0.0", NET + "/RelayNetworks/a/IPAddress": "0.0.0.0"}, "error", None,
             "your own clients"),
            ({NET + "/RelayNetworks/a/IPAddress": "192.0.2.1", NET + "/RelayNetworks/a/Mask": "255.255.255.0"}, "error", None,
             "first address"),
            ({NET + "/RelayNetworks/a/IPAddress": "1.2.3.4/33"}, "error", None, "192.0.2.0/24"),
            ({NET + "/MailDomains/b": "@example.net"}, "error", None, "example.org"),
            ({NET + "/MaxMessageSize": "5"}, "error", None, "65536"),
            ({MAIL + "/MaxFileSize": "25"}, "error", None, "65536"),
            ({NET + "/ServerToForward": "a b"}, "error", None, "host:port"),
            ({NET + "/GreetingDomainName": "mx.example.org\n"}, "error", None, "host's name"),
            ({"/VTWIN/Filters/AS/SenderBlackList/DenyMessage": "Go away"}, "error", None, "550"),
            ({NET + "/RelayNetworks/a/IPAddress": "16.0.0.0/7"}, "warning", None, "your own clients"),
            ({NET + "/RelayNetworks/a/IPAddress": "2000::/3"}, "warning", None, "your own clients"),
            ({NET + "/RelayNetworks/a/IPAddress": "128.0.0.0", NET + "/RelayNetworks/a/Mask": "192.0.0.0"}, "warning", None,
             "your own clients"),
            ({NET + "/RelayNetworks/a/IPAddress": "0.0.0.0/1", NET + "/RelayNetworks/b/IPAddress": "128.0.0.0",
              NET + "/RelayNetworks/b/Mask": "128.0.0.0"}, "error", NET + "/RelayNetworks", "your own clients"),
            ({TRUST: "0.0.0.0/0"}, "error", None, "balancers"),
            ({TRUST: "balancer"}, "error", None, "192.0.2.0/24"),
            ({NET + "/ProxyProtocol": "Y"}, "warning", None, "/Trust"),
            ({NET + "/TLS/Mode": "require"}, "error", None, "TLS/Certificate"),
            ({NET + "/TLS/Certificate": "/nowhere.pem"}, "error", None, "read"),
            ({NET + "/TLS/Certificate": self.good, NET + "/TLS/Key": self.foreign}, "error", NET + "/TLS/Key", "certificate's key"),
            ({NET + "/TLS/Certificate": self.good, NET + "/TLS/Ciphers": "STRONG"}, "error", NET + "/TLS/Ciphers", "openssl"),
            ({NET + "/TLS/Certificate": self.soon}, "warning", None, "renew"),
            ({NET + "/TLS/Certificate": self.expired}, "error", None, "renew"),
            ({NET + "/AuthOnlyOverTLS": "Y"}, "warning", None, "TLS/Mode"),
            ({NET + "/ServerTLS/Mode": "require"}, "error", None, "try"),
            ({NET + "/ServerTLS/Name": "mail.test"}, "warning", None, "verify"),
            ({NET + "/TellServerRequired": "Y"}, "warning", None, "TellServer"),
            ({NET + "/TellServerRequired": "Y", NET + "/TellServer": "xclient"}, "error", None, "N"),
            ({"/VTWIN/Daemons/StatsDaemon/HTTPAddress": "localhost"}, "error", None, "127.0.0.1"),
            ({"/VTUX/LoggerDaemon/LogLevel/Virus": "loud"}, "error", None, "medium"),
            ({"/VTWIN/Filters/AS/AllowDenyIPList/Addresses/a/IP": "192.0.2.1"}, "error",
             "/VTWIN/Filters/AS/AllowDenyIPList/Addresses/a/Action", "deny"),
            ({DENY + "a/IP": "0.0.0.0/0", DENY + "a/Action": "2", AS + "/AllowDenyIPList/Enabled": "Y"}, "warning", None, "allow"),
            ({DENY + "a/IP": "0.0.0.0", DENY + "a/Mask": "0.0.0.0", DENY + "a/Action": "2", AS + "/AllowDenyIPList/Enabled": "Y"},
             "warning", None, "allow"),
            ({AS + "/SenderBlackList/WildcardsList/a": "*@*", AS + "/SenderBlackList/Enabled": "Y"}, "warning", None, "*@example"),
            ({STATS + "/HTTPAddress": "192.0.2.1"}, "warning", None, "TLS"),
            ({STATS + "/HTTPPort": str(self.proxy.port)}, "warning", None, "another port"),
            ({STATS + "/QuarantineAccounts/a": "ann"}, "warning", None, "vtstatd passwd"),
            ({MAIL + "/PassWhenDown": "Y"}, "warning", None, "put off"),
            ({MAIL + "/PassWhenTooBig": "Y"}, "warning", None, "put off"),
            ({MAIL + "/TooComplex": "pass"}, "warning", None, "put off"),
            ({MAIL + "/RedirectAddress": "the team"}, "error", None, "virus@example.org"),
        )
        self.one_at_a_time(cases)

    def test_a_port_that_somebody_else_has(self):
        self.proxy.load({NET + "/Port": str(self.server.port), NET + "/ServerToForward": "localhost:%d" % self.start_other()})
        self.one(NET + "/Port", "another port")

    def test_a_port_that_somebody_else_has_while_the_proxy_runs(self):
        self.proxy.start()
        self.proxy.load({NET[:-3] + "other/Port": str(self.start_other()), NET[:-3] + "other/IPAddress": "127.0.0.1",
                         NET[:-3] + "other/MailDomains/a": "example.org",
                         NET[:-3] + "other/ServerToForward": "127.0.0.1:%d" % self.server.port})
        self.one(NET[:-3] + "other/Port", "another port")

    def start_other(self):
        other = MailServer()
        self.addCleanup(other.close)
        return other.port

    def test_two_interfaces_at_one_place(self):
        self.proxy.load({NET[:-3] + "other/Port": str(self.proxy.port), NET[:-3] + "other/IPAddress": "127.0.0.1",
                         NET[:-3] + "other/MailDomains/a": "example.org",
                         NET[:-3] + "other/ServerToForward": "127.0.0.1:%d" % self.server.port})
        self.one(NET[:-3] + "other/Port", "interface net")

    def test_servers_that_do_not_serve(self):
        for rules, word in (({"GREETING": b"554 go away\r\n"}, "554 go away"), ({"EHLO": b"550 not you\r\n"}, "550 not you"),
                            ({"GREETING": b"220 hello\r\n", "HELLO": None}, "EHLO"), ({"GREETING": b""}, "5 s")):
            with self.subTest(word):
                self.server.rules = dict(self.server.rules, **rules)
                self.one(NET + "/ServerToForward", word)
                self.server.rules = MailServer().rules

    def test_scan_daemons_that_do_not_scan(self):
        for answer, key, word in ((lambda request: clean(), MAIL, "freshclam"), (lambda request: verdict(4), MAIL, "clean text"),
                                  (lambda request: None, MAIL + "/ClamdSocket", "clamd")):
            with self.subTest(word):
                self.scan.answer = answer
                self.one(key, word)
        self.proxy.load({MAIL + "/PassWhenDown": "Y"})
        self.scan.answer = lambda request: clean()
        found = [each for each in self.findings() if each["severity"] == "error"]
        self.assertEqual([each["key"] for each in found], [MAIL + "/PassWhenDown"])
        self.assertIn("set this to N", found[0]["remedy"])
        self.proxy.load({MAIL + "/PassWhenDown": "N"})
        self.scan.close()
        self.one(MAIL, "start vtmaild")
        self.assertEqual(os.listdir(self.proxy.home + "/tmp"), [])

    def test_a_server_that_can_not_be_judged(self):
        server = TlsServer(self.good)
        self.addCleanup(server.close)
        self.proxy.load({NET + "/ServerToForward": "127.0.0.1:%d" % server.port, NET + "/ServerTLS/Mode": "verify",
                         NET + "/ServerTLS/CAFile": self.authority.file, NET + "/ServerTLS/Name": "mail.test"})
        self.assert_fine()
        self.proxy.load({NET + "/ServerTLS/Name": "other.test"})
        self.one(NET + "/ServerTLS/Mode", "put off")
        self.proxy.load({NET + "/ServerTLS/CAFile": "/nowhere.pem"})
        self.assertEqual([each["key"] for each in self.findings()], [NET + "/ServerTLS/CAFile", NET + "/ServerTLS/Mode"])

    def test_an_interface_that_takes_no_mail(self):
        self.proxy.tool("del", NET + "/MailDomains")
        self.one(NET + "/MailDomains", "no mail is taken", "warning")
        self.proxy.load({NET + "/RelayNetworks/a/IPAddress": "192.0.2.0/24"})
        self.one(NET + "/MailDomains", "strangers", "warning")

    def test_no_interface_and_no_configuration(self):
        self.proxy.tool("del", NET)
        self.one(NET[:-4], "vtsmtpproxy setup")
        self.proxy.env["VANTREL_HOME"] = self.proxy.home + "/none"
        self.one(self.proxy.home + "/none", "vtsmtpproxy setup")
        self.assertFalse(os.path.exists(self.proxy.home + "/none"))
        self.proxy.env["VANTREL_HOME"] = self.proxy.home
        for name in os.listdir(self.proxy.home):
            if name.startswith("store."):
                os.unlink(os.path.join(self.proxy.home, name))
        self.one(self.proxy.home + "/store.db", "vtsmtpproxy setup")
        self.assertFalse(os.path.exists(self.proxy.home + "/store.db"))

    def test_lines_and_counts(self):
        self.proxy.load({NET + "/TellServerRequired": "Y", NET + "/Pipelining": 'a"\x1b'})
        code, text = self.run_check()
        self.assertEqual(code, 2)
        lines = text.splitlines()
        self.assertEqual(lines[0], 'error: %s/Pipelining: "a"?" can\'t be used as it is; it should be Y or N' % NET)
        self.assertTrue(lines[1].startswith("warning: " + NET + "/TellServerRequired: "), text)
        self.assertEqual(lines[2:], ["1 error, 1 warning"])
        self.assertIn('"a"?"', self.findings()[0]["problem"])

    def test_words_that_it_does_not_know(self):
        done = subprocess.run([BIN + "/vtsmtpproxy", "check", "--xml"], env=self.proxy.env, capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stdout), (2, ""))
        self.assertIn("usage: vtsmtpproxy check", done.stderr)

    def test_help_touches_nothing(self):
        for word in ("check", "setup"):
            env = dict(self.proxy.env, VANTREL_HOME=self.proxy.home + "/none")
            done = subprocess.run([BIN + "/vtsmtpproxy", word, "--help"], env=env, capture_output=True, text=True)
            self.assertEqual((done.returncode, done.stderr), (0, ""))
            self.assertIn("usage: vtsmtpproxy " + word, done.stdout)
            self.assertFalse(os.path.exists(self.proxy.home + "/none"))
