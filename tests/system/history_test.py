"""What people have changed, and how they take it back; the configuration in an editor."""

import contextlib
import grp
import json
import os
import pty
import pwd
import re
import signal
import sqlite3
import subprocess

from harness import BIN
from people_test import MAILD, NET, Person


class Kept(Person):
    def vt(self, *words, **more):
        return self.run_it("vtregistry", *words, **more)

    def stored(self):
        return json.loads(self.vt("dump")[1])

    def history(self, *key):
        acts = {}
        for line in self.vt("history", "--json", *key)[1].splitlines():
            one = json.loads(line)
            acts.setdefault(one["act"], []).append((one["how"], one["key"], one["old"], one["new"]))
        return acts


class History(Kept):
    def test_each_change_of_a_person_is_kept(self):
        self.vt("set", "interface.net.port", "25")
        self.vt("set", "interface.net.port", "25")
        self.vt("set", NET + "/Port", "26")
        with open(self.parent + "/file.json", "w", encoding="ascii") as file:
            json.dump({NET + "/Port": "26", NET + "/MaxThreads": "5", "/a": {"hex": "ff"}}, file)
        self.vt("load", file.name)
        self.vt("del", "interface.net")
        self.vt("set", "/VTWIN/Daemons/StatsDaemon/Accounts/joe", "$6$salt$hash")
        port, threads = NET + "/Port", NET + "/MaxThreads"
        self.assertEqual(self.history(), {
            1: [("set", port, None, "25")], 2: [("set", port, "25", "26")],
            3: [("load", threads, None, "5"), ("load", "/a", None, {"hex": "ff"})],
            4: [("del", threads, "5", None), ("del", port, "26", None)],
            5: [("set", "/VTWIN/Daemons/StatsDaemon/Accounts/joe", None, "(hidden)")]})
        self.assertEqual(list(self.history("interface.net.maxthreads")), [3, 4])
        people = self.vt("history")
        self.assertRegex(people[1], r'1  20\d\d-\d\d-\d\dT\S+Z  \S+  set +interface\.net\.port: not set -> "25"')
        self.assertNotIn("$6$", people[1])
        self.assertEqual(self.vt("history", "interfac")[0], 1)

    def test_what_a_program_registers_is_one_act(self):
        self.vt("set", "interface.net.server", "mx")
        self.vt("set", "filters.addresses.wanted", "192.0.2.0/24")
        before = self.stored()
        for program in ("vtsmtpproxy", "vtmaild", "vtlogd", "vtstatd", "vtregistry"):
            count = len(self.history())
            self.assertEqual(self.run_it(program, "register")[0], 0)
            registered = self.stored()
            self.assertEqual(self.run_it(program, "register")[0], 0)  # nothing is another one by that
            self.assertEqual(self.run_it(program, "unregister")[0], 0)
            acts = list(self.history().values())[count:]
            self.assertEqual([{how for how, *_ in act} for act in acts],
                             [{"register " + program}, {"unregister " + program}])
            self.assertEqual(self.vt("undo")[0], 0)
            self.assertEqual(self.stored(), registered)
            self.assertEqual(self.vt("undo")[0], 0)
            self.assertEqual(self.stored(), before, program)

    def test_whose_it_is(self):
        """Root is somebody, though it becomes the instance's owner."""
        if os.geteuid() != 0:
            self.skipTest("nobody else to be")
        os.mkdir(self.home, 0o700)
        os.chown(self.home, pwd.getpwnam("nobody").pw_uid, grp.getgrnam("nogroup").gr_gid)
        os.chmod(self.parent, 0o755)
        self.run_it("vtregistry", "set", "maild.threads", "7", SUDO_USER="ann")
        self.run_it("vtregistry", "set", "maild.threads", "8", SUDO_USER="")
        self.run_it("vtsmtpproxy", "setup", "--server", "127.0.0.1:9", "--domain", "example.org", SUDO_USER="joe")
        self.run_it("vtsmtpproxy", "unregister", SUDO_USER="eve")
        told = [json.loads(line) for line in self.vt("history", "--json")[1].splitlines()]
        self.assertEqual({(each["act"], each["who"], each["how"]) for each in told},
                         {(1, "ann", "set"), (2, "root", "set"), (3, "joe", "setup"), (4, "eve", "unregister vtsmtpproxy")})

    def test_what_is_undone_is_as_it_was(self):
        self.vt("set", "maild.threads", "7")
        before = self.stored()
        self.vt("set", "interface.net.port", "2525")
        self.vt("set", "interface.net.server", "mx")
        self.vt("set", "interface.net.port", "2526")
        for said in ('interface.net.port: "2526" -> "2525"', 'interface.net.server: "mx" -> not set',
                     'interface.net.port: "2525" -> not set'):
            self.assertEqual(self.vt("undo"), (0, said + "\n", ""))
        # An interface without keys would be one all the same.
        self.assertEqual(self.stored(), before)
        self.assertEqual(self.vt("list", "interface")[0], 1)
        self.assertEqual(self.vt("undo")[0], 0)
        self.assertEqual(self.vt("undo")[:2], (1, ""))
        # One that has undone can be undone.
        self.assertEqual(self.vt("undo", "8")[1], 'maild.threads: not set -> "7"\n')
        self.assertEqual(self.stored(), before)
        self.assertEqual(self.vt("undo")[0], 0)

    def test_a_deleted_part_comes_back_whole(self):
        for key, value in (("port", "25"), ("server", "mx"), ("greeting", ""), ("trust.a", "::1")):
            self.vt("set", "interface.net." + key, value)
        before = self.stored()
        self.vt("del", "interface")
        self.assertEqual(self.vt("undo")[0], 0)
        self.assertEqual(self.stored(), before)

    def test_no_empty_interface_stays_behind_its_last_key(self):
        self.vt("set", "interface.one.trust.a", "")
        self.vt("set", "interface.two.port", "2998")
        self.vt("set", "interface.two.server", "mx")
        for key, left in (("interface.two.port", "one\ntwo\n"), ("interface.two.server", "one\n"),
                          ("interface.one.trust.b", "one\n"), ("interface.one.trust", "")):
            self.assertEqual(self.vt("del", key), (0, "", ""), key)
            self.assertEqual(self.vt("list", "interface")[1], left, key)
        self.assertEqual(self.vt("list", "/")[1], "")
        self.vt("undo")
        self.assertEqual(self.vt("list", "interface")[1], "one\n")

    def test_what_has_been_changed_since_stays(self):
        self.vt("set", "interface.net.port", "25")
        self.vt("set", "interface.net.port", "26")
        for words, code, port in ((["1"], 1, "26"), (["99"], 1, "26"), (["x"], 1, "26"), (["--force", "1"], 0, None)):
            self.assertEqual(self.vt("undo", *words)[0], code, words)
            self.assertEqual(self.stored().get(NET + "/Port"), port, words)
        self.assertIn("undone already", self.vt("undo", "1")[2])


class Editor(Kept):
    def edit(self, key, script, **more):
        with open(self.parent + "/editor", "w", encoding="ascii") as file:
            file.write("#!/bin/sh\n" + script)
        os.chmod(file.name, 0o700)
        return self.vt("edit", key, VISUAL="", EDITOR=file.name, **more)

    def setUp(self):
        super().setUp()
        for key, value in (("server", "mx:25"), ("port", "25"), ("greeting", "hello"), ("name", " hello "), ("maxmessagesize", "25M")):
            self.vt("set", "interface.net." + key, value)
        self.vt("set", "maild.threads", "7")

    def test_what_is_saved_counts_as_one_change(self):
        before = self.stored()
        self.assertEqual(self.edit("interface", "exit 0"), (0, "nothing was changed\n", ""))
        self.assertEqual(self.edit("/", "cp $1 $1.new && mv $1.new $1")[:2], (0, "nothing was changed\n"))
        self.assertEqual(self.stored(), before)
        self.assertEqual(self.edit("interface.net", """sed -i '/^interface.net.port/d
            s/^interface.net.server = .*/interface.net.server=[::1]:26/
            s/^# interface.net.connectiontimeout .*/  interface.net.ConnectionTimeout = 10m  /' "$1"
            stat -c %a "$1" >$VANTREL_HOME/mode; echo "$1" >$VANTREL_HOME/name""")[0::2], (0, ""))
        after = dict(before)
        del after[NET + "/Port"]
        after.update({NET + "/ServerToForward": "[::1]:26", NET + "/ConnectionTimeout": "600"})
        self.assertEqual(self.stored(), after)
        with open(self.home + "/mode", encoding="ascii") as mode, open(self.home + "/name", encoding="ascii") as name:
            self.assertEqual(mode.read(), "600\n")
            self.assertFalse(os.path.exists(name.read().strip()))
        self.assertEqual(len(list(self.history().values())[-1]), 3)
        self.vt("undo")
        self.assertEqual(self.stored(), before)

    def test_a_new_interface_can_be_written(self):
        self.assertEqual(self.edit("interface.new", "sed -i 's/^# \\(interface.new.port\\) = .*/\\1 = 26/' $1")[0], 0)
        self.assertEqual(self.vt("get", "interface.new.port")[1], "26\n")

    def test_a_file_that_could_not_be_saved_changes_nothing(self):
        before = self.stored()
        for script in (": >$1", "printf ' \\n\\n' >$1", "rm $1; mkfifo $1", "rm $1"):
            code, _, said = self.edit("/", script)
            self.assertEqual((code, said.count("nothing was changed")), (1, 1), (script, said))
            self.assertEqual(self.stored(), before, script)

    def test_a_slip_changes_nothing(self):
        before = self.stored()
        for key, script, said in (
                ("interface.net", "echo 'interface.net.prot = 1' >>$1", "meant: interface.net.port"),
                ("interface.net", "echo 'interface.net.port = 1' >>$1", "stands there twice"),
                ("interface.net", "echo 'maild.threads = 1' >>$1", "not a part of what is edited"),
                ("interface.net", "echo 'rubbish' >>$1", "KEY = VALUE is wanted"),
                ("interface.net", "sed -i 's/port = 25/port = 70000/' $1", "from 1 to 65535"),
                ("interface.net", "sed -i 's/server = .*/server = \"x/' $1", "quotes"),
                ("interface", "echo 'interface.*.port = 26' >>$1", "name of your choice"),
                ("interface.net", "sed -i 's/port = 25/port = 26/' $1; exit 1", "not ended well"),
                ("interface.net", "rm $1", "can't read"),
                ("interface.net", "%s/vtregistry set interface.net.port 27; sed -i 's/port = 25/port = 26/' $1" % BIN,
                 "somebody else"),
                ("interfac", "exit 0", "no such key")):
            code, _, err = self.edit(key, script)
            self.assertEqual(code, 1, script)
            self.assertIn(said, err)
            self.vt("set", "interface.net.port", "25")
            self.assertEqual(self.stored(), before, script)

    def kept(self, said):
        """What stands in the file that is told, which goes."""
        names = re.findall("what you wrote is in (.*)\n", said)
        self.assertEqual(len(names), 1, said)
        with open(names[0], encoding="ascii") as file:
            self.assertEqual(os.stat(names[0]).st_mode & 0o777, 0o600)
            os.unlink(names[0])
            return file.read()

    def test_what_was_written_is_not_lost(self):
        change = "sed -i 's/port = 25/port = 26/' $1"
        for script in (change + "; exit 1", change + "; kill -9 $$", change + "; echo rubbish >>$1",
                       change + "; %s/vtregistry set interface.net.port 27" % BIN):
            code, out, err = self.edit("interface.net", script)
            self.assertEqual((code, out), (1, ""), script)
            self.assertIn("interface.net.port = 26\n", self.kept(err), script)
        with contextlib.closing(sqlite3.connect(self.home + "/store.db")) as store, store:
            store.execute("CREATE TRIGGER full BEFORE INSERT ON history BEGIN SELECT RAISE(ABORT, 'full'); END")
        code, _, err = self.edit("interface.net", change.replace("25", "27"))
        self.assertIn("can't store it", err)
        self.assertIn("interface.net.port = 26\n", self.kept(err))
        for script in ("exit 0", "exit 1", ": >$1; exit 1", "echo '# no key' >>$1"):
            self.assertNotIn("what you wrote", self.edit("interface.net", script)[2], script)
        self.assertEqual([name for name in os.listdir(self.home + "/tmp") if name.startswith("vtregistry")], [])

    def test_who_interrupts_the_question_is_told_before(self):
        with open(self.parent + "/editor", "w", encoding="ascii") as file:
            file.write("#!/bin/sh\necho rubbish >>$1")
        os.chmod(file.name, 0o700)
        terminal, inner = pty.openpty()
        with subprocess.Popen([BIN + "/vtregistry", "edit", "interface.net"], env=dict(self.env, VISUAL=file.name), stdin=inner,
                              stderr=subprocess.PIPE) as process:
            said = b""
            while b"Go on" not in said:
                said += os.read(process.stderr.fileno(), 4096)
            process.send_signal(signal.SIGINT)
            self.assertEqual(process.wait(20), -signal.SIGINT)
        os.close(terminal)
        os.close(inner)
        self.assertIn("rubbish\n", self.kept(said.decode()))

    def test_who_made_a_slip_is_asked(self):
        script = "test -e $VANTREL_HOME/2 && sed -i 's/70000/26/' $1 && exit; >$VANTREL_HOME/2; sed -i 's/port = 25/port = 70000/' $1"
        with open(self.parent + "/editor", "w", encoding="ascii") as file:
            file.write("#!/bin/sh\n" + script)
        os.chmod(file.name, 0o700)
        terminal, inner = pty.openpty()
        with subprocess.Popen([BIN + "/vtregistry", "edit", "interface.net"], env=dict(self.env, VISUAL=file.name), stdin=inner,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as process:
            os.write(terminal, b"y\n")
            out, err = process.communicate(timeout=20)
        os.close(terminal)
        os.close(inner)
        self.assertEqual((process.returncode, out), (0, 'interface.net.port: "25" -> "26"\n'), err)
        self.assertIn("line ", err)

    def test_what_is_no_text_stays(self):
        with open(self.parent + "/file.json", "w", encoding="ascii") as file:
            json.dump({NET + "/MailDomains/a": {"hex": "ff"}, MAILD + "/Other": 'a "b"\n', "/x": "1"}, file)
        self.vt("load", file.name)
        before = self.stored()
        self.assertEqual(self.edit("/", "sed -i 's/port = 25/port = 26/' $1")[0], 0)
        self.assertEqual(self.stored(), dict(before, **{NET + "/Port": "26"}))
