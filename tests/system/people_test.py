"""What people meet: help, versions, usage, and the words of vtregistry that are for them."""

import json
import os
import re
import select
import shutil
import subprocess
import tempfile
import unittest

from harness import BIN
from waiting import wait_until

SERVICES = ("vtsmtpproxy", "vtmaild", "vtlogd", "vtstatd", "vtregistry")
OTHERS = ("vtlog", "vtquarantine", "vtreport", "vtservice")
ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")


class Person(unittest.TestCase):
    def setUp(self):
        self.parent = tempfile.mkdtemp(prefix="vantrel-people.")
        self.home = self.parent + "/home"
        self.env = {key: value for key, value in os.environ.items() if key != "NOTIFY_SOCKET"}
        self.env.update(VANTREL_HOME=self.home, HOME=self.parent)

    def tearDown(self):
        shutil.rmtree(self.parent)

    def run_it(self, program, *words, **more):
        done = subprocess.run([BIN + "/" + program, *words], env=dict(self.env, **more), text=True, capture_output=True,
                              stdin=subprocess.DEVNULL, timeout=20)
        return done.returncode, done.stdout, done.stderr


class Words(Person):
    def test_each_program_tells_what_it_is_and_touches_nothing(self):
        with open(ROOT + "/CMakeLists.txt", encoding="utf-8") as file:
            version = re.search(r"project\(vantrel VERSION (\S+)", file.read())[1]
        for program in SERVICES + OTHERS:
            for words in (["--help"], ["-h"], ["install", "--help"], ["get", "--help"], ["debug", "--help"]):
                if words[0] in ("--help", "-h") or program in SERVICES:
                    code, out, err = self.run_it(program, *words)
                    self.assertEqual((code, err), (0, ""), (program, words))
                    self.assertTrue(out.startswith("usage: " + program), (program, words))
                    self.assertLessEqual(max(map(len, out.splitlines())), 100)
            self.assertEqual(self.run_it(program, "--version"), (0, "%s %s\n" % (program, version), ""))
        for program in OTHERS + ("vtregistry",):
            for words in (["bogus"], ["--bogus"], ["Debug"], ["-install", "stopp"], ["Get", "--force"]):
                self.assert_unknown(program, words, 2)
        self.assertEqual(os.listdir(self.parent), [])

    def assert_unknown(self, program, words, expected):
        code, out, err = self.run_it(program, *words)
        self.assertEqual((code, out), (expected, ""), (program, words))
        self.assertRegex(err, r"\A%s: .*\nusage: %s" % (program, program), (program, words))

    def test_a_service_that_is_given_no_word_it_knows_tells_those_it_does(self):
        for program in ("vtsmtpproxy", "vtmaild", "vtlogd", "vtstatd"):
            for words in (["bogus"], ["Debug"], ["-install", "stopp"]):
                self.assert_unknown(program, words, 255)

    def test_help_that_cannot_be_written_is_a_failure(self):
        with open("/dev/full", "w", encoding="ascii") as full:
            for word in ("--help", "--version"):
                self.assertEqual(subprocess.run([BIN + "/vtmaild", word], stdout=full, env=self.env, check=False).returncode, 1)

    def watch(self, output):
        process = subprocess.Popen([BIN + "/vtregistry", "watch", "/"], stdout=output, stderr=subprocess.PIPE, env=self.env, text=True)
        for each in (process.stderr.close, process.wait, process.kill):
            self.addCleanup(each)
        return process

    def test_a_watch_ends_with_who_reads_it(self):
        def after_a_change(look):
            return wait_until(lambda: self.run_it("vtregistry", "set", "/a", "1")[0] == 0 and look())
        for changes in (True, False):
            watch = self.watch(subprocess.PIPE)
            if changes:
                self.assertTrue(after_a_change(lambda: select.select([watch.stdout], [], [], 0)[0]))
                self.assertEqual(watch.stdout.readline(), "/a\n")
            watch.stdout.close()
            self.assertEqual((watch.wait(10), watch.stderr.read()), (1, ""))
        with open("/dev/full", "w", encoding="ascii") as full:
            watch = self.watch(full)
        self.assertTrue(after_a_change(lambda: watch.poll() is not None))
        self.assertEqual((watch.returncode, watch.stderr.read()),
                         (1, "vtregistry: can't write the output: No space left on device\n"))

    def test_a_scan_of_what_is_no_file_says_why(self):
        with open(self.parent + "/empty", "w", encoding="ascii"):
            pass
        for words, said in ((["/nonexist"], "vtmaild: /nonexist: No such file or directory\n"),
                            (["/"], "vtmaild: /: not a plain file\n"),
                            ([self.parent + "/empty/a"], f"vtmaild: {self.parent}/empty/a: Not a directory\n"),
                            (["--chunk", "a"], "vtmaild test: unknown word: --chunk\n"),
                            ([], "vtmaild test: no file is given\n")):
            code, out, err = self.run_it("vtmaild", "test", *words)
            self.assertEqual((code, out), (2, ""), words)
            self.assertIn(said, err)  # besides what the logger would get of the engine
            self.assertEqual("usage: vtmaild test" in err, "vtmaild test: " in said, words)

    def test_output_that_cannot_be_written_is_a_failure(self):
        """A backup that is none has to be noticed; whoever closes a pipe has seen what he wanted."""
        self.run_it("vtregistry", "register")
        self.run_it("vtregistry", "set", "maild.scantimeout", "5")
        for words in (["dump"], ["show"], ["keys"], ["get", "maild.scantimeout"], ["list", "/"], ["history"]):
            with open("/dev/full", "w", encoding="ascii") as full:
                done = subprocess.run([BIN + "/vtregistry", *words], stdout=full, stderr=subprocess.PIPE, env=self.env, text=True)
            self.assertEqual((done.returncode, done.stderr),
                             (1, "vtregistry: can't write the output: No space left on device\n"), words)
        read, write = os.pipe()
        os.close(read)
        done = subprocess.run([BIN + "/vtregistry", "show"], stdout=write, stderr=subprocess.PIPE, env=self.env)
        os.close(write)
        self.assertEqual((done.returncode, done.stderr), (1, b""))

    def test_words_that_make_no_sense_together(self):
        for words in (["set", "a", "b", "c"], ["show", "--bogus"], ["keys", "--values"], ["undo", "1", "2"], ["history", "a", "b"]):
            code, out, err = self.run_it("vtregistry", *words)
            self.assertEqual((code, out), (2, ""), words)
            self.assertRegex(err, r"\Avtregistry: .*" + words[0] + " takes .*\n\Z")

    def test_a_service_manager_s_words_are_its_own_affair(self):
        for program in SERVICES[:-1]:
            code, out, err = self.run_it(program, "bogus", NOTIFY_SOCKET=self.parent + "/nobody")
            self.assertNotIn("usage", out + err, program)
            self.assertNotEqual(code, 2, program)

    def test_words_beside_an_option_are_skipped(self):
        self.assertEqual(self.run_it("vtlogd", "bogus", "register")[0], 0)
        self.assertIn("VTLOGD", self.run_it("vtregistry", "dump", "/VTWIN/Versions")[1])



NET = "/VTWIN/Agents/VTSMTPProxy/NetworkInterfaces/net"
MAILD = "/VTWIN/Daemons/MailDaemon"
FILTERS = "/VTWIN/Filters/AS"


class Registry(Person):
    def vt(self, *words):
        return self.run_it("vtregistry", *words)

    def stored(self):
        return {key: value for key, value in json.loads(self.vt("dump")[1]).items() if value}

    def test_a_short_name_is_the_key_that_it_says(self):
        for typed, value, path, stored in (
                ("interface.net.server", "mx:25", NET + "/ServerToForward", "mx:25"),
                ("Interface.net.ServerToForward", "mx:26", NET + "/ServerToForward", "mx:26"),
                ("interface.net.port", "2525", NET + "/Port", "2525"),
                ("interface.mx.example.org.port", "26", NET[:-3] + "mx.example.org/Port", "26"),
                ("interface.net.tls.mode", "OFFER", NET + "/TLS/Mode", "offer"),
                ("interface.net.trust.lb.example.org", "::1", NET + "/Trust/lb.example.org", "::1"),
                ("interface.net.relaynetworks.a.address", "::1", NET + "/RelayNetworks/a/IPAddress", "::1"),
                ("interface.net.connectiontimeout", "10m", NET + "/ConnectionTimeout", "600"),
                ("interface.net.maxmessagesize", "25M", NET + "/MaxMessageSize", "25M"),
                ("interface.net.pipelining", "on", NET + "/Pipelining", "Y"),
                ("interface.net.pipelining", "False", NET + "/Pipelining", "N"),
                ("interface.net.port", "", NET + "/Port", ""),
                ("maild.scantimeout", "1h", MAILD + "/ScanTimeout", "3600"),
                ("maild.whenencrypted", "Put Off", MAILD + "/WhenEncrypted", "put off"),
                ("logd.maxlogsize", "20 MB", "/VTWIN/Daemons/LoggerDaemon/MaxLogSize", str(20 << 20)),
                ("logd.level.virus", "low", "/VTUX/LoggerDaemon/LogLevel/virus", "low"),
                ("statd.keepdays", "2w", "/VTWIN/Daemons/StatsDaemon/KeepDays", "14"),
                ("filters.addresses.addresses.x.ip", "::1", FILTERS + "/AllowDenyIPList/Addresses/x/IP", "::1")):
            code, out, err = self.vt("set", typed, value)
            self.assertEqual((code, out), (0, ""), (typed, err))
            for name in (path, typed):
                self.assertEqual(self.vt("get", name), (0, stored + "\n", ""), (typed, name))
        self.assertEqual(self.vt("list", "interface")[1], "mx.example.org\nnet\n")
        self.assertEqual(self.vt("list", "filters")[1], "AllowDenyIPList\n")
        self.assertEqual(self.vt("del", "interface.mx.example.org"), (0, "", ""))
        self.assertEqual(self.vt("list", "interface")[1], "net\n")

    def test_a_slip_is_refused_with_a_reason(self):
        for name, value, reason in (
                ("interface.net.prot", "25", r"interface\.net\.port meant"),
                ("interface.net.serverr", "mx", r"interface\.net\.server meant"),
                ("scantimeout", "5", r"maild\.scantimeout meant"),
                ("maild", "5", "no such key"),
                ("no.such.thing.at.all", "5", "`vtregistry show`"),
                ("", "5", "no such key"),
                ("interface.net.port", "70000", "from 1 to 65535"),
                ("interface.net.port", "25 ", "a number from 1"),
                ("interface.net.maxthreads", "51", "from 0 to 50"),
                ("interface.net.maxthreads", "10m", "from 0 to 50"),
                ("interface.net.connectiontimeout", "2h", "seconds.* from 1 to 3600"),
                ("statd.keepdays", "25h", "days.* from 0 to 100000"),
                ("maild.maxfilesize", "3G", "from 65536 to 2147483648"),
                ("maild.maxfilesize", "much", "K, M or G"),
                ("maild.virusaction", "bounce", "reject, drop, redirect"),
                ("interface.net.tls.mode", "offr", "off, offer, require, wrapped"),
                ("filters.senders.enabled", "perhaps", "Y or N"),
                ("interface.net.greeting", "x" * 64, "at most 63 bytes"),
                ("interface.net.greeting", "mx.example.org\n", "a host's name"),
                ("filters.senders.denymessage", "Go away", "550 5.7.1 Go away"),
                ("filters.recipients.denymessage", "550 a\r\n250 ok", "one line of a reply"),
                ("maild.redirectaddress", "the team", "a mailbox"),
                ("maild.maxfilesize", "25", "from 65536"),
                ("interface.net.maxmessagesize", "5", "of at least 65536, or 0"),
                *(("interface.net.maildomains.a", domain, "a domain such as") for domain in
                  ("@example.net", "foo bar", "*", "*.example.com", "example.edu.")),
                ("interface.net.relaynetworks.a.address", "1.2.3.4/33", "a network"),
                ("interface.net.relaynetworks.a.mask", "24", "a mask"),
                ("interface.net.trust.a", "balancer", "a network"),
                ("interface.net.server", "a b", "host:port"),
                ("interface.net.fallbackservers.a", "mx:", "host:port"),
                ("interface.net.address", "0.0.0.7", "address of this host"),
                ("statd.httpaddress", "300.1.1.1", "IPv4 address"),
                ("interface.net.maildomains.*", "a.example", "a name of your choice"),
                ("maild.path", "/x", "left to the program")):
            code, out, err = self.vt("set", name, value)
            self.assertEqual((code, out), (1, ""), name)
            self.assertRegex(err, reason)
            self.assertEqual(self.stored(), {}, name)
        self.assertEqual(self.vt("set", "--force", "interface.net.maxthreads", "51")[0], 0)
        self.assertEqual(self.vt("set", "--force", "interface.net.prot", "51")[0], 1)
        self.assertEqual(self.stored(), {NET + "/MaxThreads": "51"})

    def test_a_path_is_stored_as_it_is_and_a_slip_told(self):
        for path, value, told in (
                (NET + "/Port", "2525", ""), (NET + "/Port", "", ""), (NET + "/MaxThreads", "99", "from 0 to 50"),
                (NET + "/ConnectionTimeout", "10m", "a number of seconds"), (NET + "/Prot", "1", NET + "/Port meant"),
                (NET + "/port", "1", NET + "/Port meant"), (NET + "/TLS/Mode", "x", "one of: off"),
                ("/a/b", "c", ""), ("/VTWIN/a", "c", "no program reads /VTWIN/a"),
                ("/VTWINN/Daemons/MailDaemon/Threads", "1", MAILD + "/Threads meant"), (NET, "", ""), ("/VTWIN", "x", ""),
                (FILTERS + "/SenderBlackList/UsersList/a", "b@x.example", ""),
                (FILTERS + "/SenderBlackList/UsersList/a", "*@x.example", "wildcards' list")):
            code, out, err = self.vt("set", path, value)
            self.assertEqual((code, out, self.vt("get", path)[1]), (0, "", value + "\n"), path)
            self.assertEqual(err != "", told != "", (path, err))
            self.assertIn(told, err)
            self.assertEqual(self.vt("set", "--force", path, value), (0, "", ""), path)
        for path in ("/", "/a//b", "/a/", "/" + "x" * 512):
            self.assertEqual(self.vt("set", path, "x")[0], 1, path)

    def test_a_new_interface_is_told(self):
        self.assertIn("interface.nett is new", self.vt("set", "interface.nett.port", "25")[2])
        self.assertEqual(self.vt("set", "interface.nett.server", "mx")[2], "")

    def test_what_is_not_set_says_its_default(self):
        code, out, err = self.vt("get", "interface.net.port")
        self.assertEqual((code, out), (1, ""))
        self.assertIn("default: 25", err)
        self.assertEqual(self.vt("get", "/no/such")[:2], (1, ""))

    def file(self, values):
        with open(self.parent + "/file.json", "w", encoding="ascii") as file:
            json.dump(values, file)
        return file.name

    def test_a_file_is_looked_at_before_it_is_loaded(self):
        for values, said in (({}, ""), ({NET + "/Port": "25", NET: "", MAILD + "/Path": "/x", FILTERS: ""}, ""),
                             ({NET + "/MaxThreads": "99"}, NET + '/MaxThreads: "99" should be a number from 0 to 50\n'),
                             ({NET + "/Prot": "1"}, NET + "/Prot: no program reads it. Is " + NET + "/Port meant?\n"),
                             ({"/a": "\x1b"}, "/a: no program reads it.\n")):
            self.assertEqual(self.vt("load", "--check", self.file(values)), (1 if said else 0, said, ""), values)
            self.assertEqual(self.stored(), {})
        for content in ("[]", "{", '{"/a": 1}'):
            with open(self.parent + "/bad.json", "w", encoding="ascii") as file:
                file.write(content)
            for words, code in ((("load", "--check"), 1), (("load",), 1), (("diff",), 2)):
                self.assertEqual(self.vt(*words, file.name)[:2], (code, ""), (words, content))
        self.assertEqual(self.vt("load", "--check", self.parent)[0], 1)
        self.assertEqual(self.vt("load", "--check", self.parent + "/none")[0], 1)

    def test_diff(self):
        here = {NET + "/Port": "25", NET + "/ServerToForward": "a", "/a": "1", "/ab": "1"}
        there = {NET + "/Port": "26", NET + "/ServerToForward": "a", "/a": "1", "/c": "\n", MAILD + "/Path": "/x"}
        self.assertEqual(self.vt("load", self.file(here))[0], 0)
        self.assertEqual(self.vt("diff", self.file(here)), (0, "", ""))
        port = '- %s/Port "25"\n+ %s/Port "26"\n' % (NET, NET)
        self.assertEqual(self.vt("diff", self.file(there)), (1, port + '- /ab "1"\n+ /c "?"\n', ""))
        for key, said in (("interface.net", port), (NET + "/Port", port), ("/a", ""), ("maild", ""), ("/nowhere", "")):
            self.assertEqual(self.vt("diff", self.file(there), key), (1 if said else 0, said, ""), key)
        self.assertEqual(self.vt("diff", self.file(there), "maill")[:2], (2, ""))

    def shown(self, *words):
        """Name to (value, state) of each key."""
        code, out, err = self.vt("show", *words)
        self.assertEqual((code, err), (0, ""), words)
        self.assertLessEqual(max(map(len, out.splitlines()), default=0), 100)
        rows = re.findall(r"^(\S+) +(\S.*?) +(default|registered|set|wrong|unknown)(?: .*)?$", out, re.M)
        return {name: (value, state) for name, value, state in rows}

    def test_show(self):
        self.assertEqual(self.shown("maild.scantimeout"), {"maild.scantimeout": ("120", "default")})
        for program in SERVICES:
            self.assertEqual(self.run_it(program, "register")[0], 0)
        self.assertEqual(self.shown("--changed"), {})
        fresh = self.shown()
        self.assertEqual(fresh["interface.net.maxthreads"], ("50", "registered"))
        self.assertEqual(fresh["filters.senders.enabled"], ("Y", "registered"))
        self.assertEqual(fresh["maild.passwhendown"], ("N", "default"))
        self.assertEqual(fresh["logd.level.Virus"], ("high", "default"))
        known = self.vt("keys", "--short")[1].split()
        self.assertGreater(len(known), 80)
        # What programs write is shown where they have written it.
        self.assertEqual(set(known) - set(fresh), {"proxy.activeconnections", "maild.rtp.maxfilesize"})
        for key, value in ((MAILD + "/ScanTimeout", "9999"), (NET + "/Prot", "1"), (NET + "/Port", "26"),
                           (NET + "/Trust/lb", "a\x1b[2J\n")):
            self.vt("set", key, value)
        changed = {"maild.scantimeout": ("9999", "wrong"), "interface.net.port": ("26", "set"),
                   "interface.net.trust.lb": ("a?[2J?", "wrong")}
        found = self.shown("--changed")
        self.assertEqual({name: found.get(name) for name in changed}, changed)
        self.assertIn("unknown", self.vt("show", "--changed")[1])
        self.assertEqual(self.shown("--changed", "maild"), {"maild.scantimeout": ("9999", "wrong")})
        self.assertEqual(self.shown("--changed", MAILD), {"maild.scantimeout": ("9999", "wrong")})
        self.assertEqual(list(self.shown("interface.net.ServerToForward")), ["interface.net.server"])
        self.assertEqual([name for name in self.shown("interface.net") if not name.startswith(("interface.net.", NET))], [])
        self.assertEqual(self.vt("show", "mailt")[:2], (1, ""))
        self.assertEqual(self.vt("show", "maild", "logd")[:2], (2, ""))

    def test_a_narrow_terminal_has_narrow_lines(self):
        self.vt("set", NET + "/Greeting" + "x" * 90, "x" * 300)
        for width in (48, 79, 200):
            out = subprocess.run(["script", "-qc", "stty cols %d; %s/vtregistry show" % (width, BIN), "/dev/null"], env=self.env,
                                 stdin=subprocess.DEVNULL, capture_output=True, text=True, check=True).stdout
            self.assertGreater(len(out), 5000)
            self.assertLessEqual(max(map(len, out.splitlines())), min(width, 100))

    def completed(self, line):
        words = line.split(" ")
        script = 'compopt() { :; }; . "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _$1; printf "%s\\n" "${COMPREPLY[@]}"'
        return subprocess.run(["bash", "-c", script, ROOT + "/packaging/completion/" + words[0], *words], text=True, check=True,
                              env=dict(self.env, PATH=BIN + ":" + os.environ["PATH"]), capture_output=True).stdout.split()

    def test_completion(self):
        self.vt("set", NET + "/Port", "26")
        for line, expected in (("vtregistry s", ["show", "set", "start", "stop"]), ("vtregistry set maild.sc", ["maild.scantimeout"]),
                               ("vtregistry get inter", ["interface."]), ("vtregistry get interface.", ["interface.net."]),
                               ("vtregistry set --force interface.net.tr", ["interface.net.trust."]),
                               ("vtregistry set interface.net.trust.", []),
                               ("vtregistry set content.Pills.p", ["content.Pills.pattern"]), ("vtregistry show --c", ["--changed"]),
                               ("vtregistry get /VTWIN/Ag", ["/VTWIN/Agents/"]), ("vtregistry set maild.scantimeout 1", ["120"]),
                               ("vtregistry set --force maild.virusaction d", ["drop"]), ("vtregistry undo --", ["--force"]),
                               ("vtregistry set interface.net.pipelining o", ["on", "off"]), ("vtregistry set no.such o", []),
                               ("vtregistry set maild.whenencrypted pu", ["put\\", "off"]), ("vtlog f", ["find", "follow"]),
                               ("vtlog find --verdict r", ["reject"]), ("vtlog find --s", ["--since"]), ("vtlog find --id f", []),
                               ("vtquarantine r", ["release"]), ("vtquarantine find --sec", ["--section"]), ("vtquarantine find --section a",
                               ["antivirus", "attachments", "antispam"]), ("vtquarantine delete --", []), ("vtquarantine show --r", ["--raw"])):
            self.assertEqual(self.completed(line), expected, line)


if __name__ == "__main__":
    unittest.main()
