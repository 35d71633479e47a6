"""The programs as services: the manager of our own, systemd's notification socket, installed defaults."""

import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import unittest

from harness import BIN, NET, Client, MailServer, free_port, wait_until
from waiting import serves

DEPENDENCIES = ("vtregistry", "vtmaild")
DISPLAY = {"vtregistry": "Vantrel Configuration Store", "vtmaild": "Vantrel Mail Scanner", "vtsmtpproxy": "Vantrel SMTP Proxy"}


class Instance(unittest.TestCase):
    def setUp(self):
        self.home = tempfile.mkdtemp(prefix="vantrel-service.")
        self.env = dict(os.environ, VANTREL_HOME=self.home)
        for name in ("NOTIFY_SOCKET", "VANTREL_SERVICE_SOCKET"):
            self.env.pop(name, None)
        self.port = free_port()

    def tearDown(self):
        for name in ("VTSMTPPROXY", "VTMAILD", "VTREGISTRY"):
            supervisor = self.supervisor(name)
            if supervisor:
                os.kill(supervisor, signal.SIGTERM)
                self.assertTrue(wait_until(lambda: not self.supervisor(name), 30), name)
        shutil.rmtree(self.home, ignore_errors=True)

    def run_program(self, program, *words):
        done = subprocess.run([os.path.join(BIN, program), *words], env=self.env, text=True, capture_output=True, timeout=100)
        return done.returncode, done.stdout

    def status(self, name):
        try:
            with open("%s/services/%s.status" % (self.home, name)) as file:
                return dict(line.rstrip("\n").split(" ", 1) for line in file)
        except OSError:
            return {}

    def process(self, name):
        return int(self.status(name).get("process", 0))

    def supervisor(self, name):
        """Of this instance: found by its words and its environment."""
        for entry in os.listdir("/proc"):
            try:
                if not entry.isdigit():
                    continue
                with open("/proc/%s/cmdline" % entry, "rb") as file:
                    words = file.read().split(b"\0")
                with open("/proc/%s/environ" % entry, "rb") as file:
                    if words[1:2] == [name.encode()] and b"VANTREL_HOME=" + self.home.encode() in file.read().split(b"\0"):
                        return int(entry)
            except OSError:
                pass
        return 0

    def configure(self, forward):
        values = {NET + "/Port": str(self.port), NET + "/IPAddress": "127.0.0.1", NET + "/MailDomains/a": "example.org",
                  NET + "/ServerToForward": "127.0.0.1:%d" % forward}
        subprocess.run([BIN + "/vtregistry", "load"], input=json.dumps(values), text=True, env=self.env, check=True)

    def install(self):
        for program in (*DEPENDENCIES, "vtsmtpproxy"):
            self.assertEqual(self.run_program(program, "install"), (0, ""))

    def answers(self):
        try:
            client = Client(self.port, 2)
        except OSError:
            return False
        reply = client.reply()
        client.close()
        return reply.startswith(b"220")


class Services(Instance):
    def test_life_of_a_service(self):
        server = MailServer()
        self.assertEqual(self.run_program("vtsmtpproxy", "register"), (0, ""))
        self.configure(server.port)
        self.install()
        self.assertEqual(self.run_program("vtsmtpproxy", "install"),
                         (255, "CreateService failed - The specified service already exists.\n"))
        self.assertEqual(self.run_program("vtsmtpproxy", "stop"), (255, ""), "not running")
        self.assertEqual(self.run_program("vtsmtpproxy", "start"), (0, "Starting up Vantrel SMTP Proxy."))
        self.assertEqual([self.status(name).get("state") for name in ("VTREGISTRY", "VTMAILD", "VTSMTPPROXY")], ["running"] * 3)
        self.assertTrue(self.answers())
        self.assertEqual(self.run_program("vtsmtpproxy", "start"), (255, "Starting up Vantrel SMTP Proxy.\nVantrel SMTP Proxy "
                         "failed to start: An instance of the service is already running.\n"))

        died = self.process("VTSMTPPROXY")
        with open(self.home + "/services/VTSMTPPROXY.out", "a") as file:
            file.write("its last words\n")
        os.kill(died, signal.SIGKILL)
        self.assertTrue(wait_until(lambda: self.status("VTSMTPPROXY").get("state") == "running" and
                                   self.process("VTSMTPPROXY") not in (0, died), 15))
        self.assertTrue(self.answers())
        with open(self.home + "/services/VTSMTPPROXY.out") as file:
            self.assertIn("its last words", file.read())

        self.assertEqual(self.run_program("vtsmtpproxy", "stop"), (0, "Stopping Vantrel SMTP Proxy.\nVantrel SMTP Proxy stopped.\n"))
        self.assertEqual(self.status("VTSMTPPROXY")["state"], "stopped")
        self.assertEqual(self.run_program("vtsmtpproxy", "uninstall"), (0, "Vantrel SMTP Proxy removed.\n"))
        self.assertEqual(self.run_program("vtmaild", "uninstall"), (0, "Stopping Vantrel Mail Scanner.\nVantrel Mail Scanner "
                         "stopped.\nVantrel Mail Scanner removed.\n"))
        self.assertEqual(self.run_program("vtmaild", "uninstall"),
                         (255, "OpenService failed - The specified service does not exist as an installed service.\n"))
        self.assertTrue(wait_until(lambda: not [f for f in os.listdir(self.home + "/services") if f.startswith("VTMAILD.")
                                                and not f.endswith(".lock")]))
        server.close()

    def test_a_restart_that_fails_is_tried_again(self):
        """What is in the way of one that died may go away later."""
        self.run_program("vtmaild", "register")
        self.install()
        self.assertEqual(self.run_program("vtmaild", "start")[0], 0)
        died = self.process("VTMAILD")
        os.rename(self.home + "/store.db", self.home + "/kept")
        os.mkdir(self.home + "/store.db")
        os.kill(died, signal.SIGKILL)
        output = self.home + "/services/VTMAILD.out"

        def failures():
            with open(output) as file:
                return file.read().count("can't open the store")
        self.assertTrue(wait_until(lambda: failures() > 1, 15), failures())
        os.rmdir(self.home + "/store.db")
        os.rename(self.home + "/kept", self.home + "/store.db")
        self.assertTrue(wait_until(lambda: self.status("VTMAILD").get("state") == "running", 15), self.status("VTMAILD"))
        self.assertEqual(self.run_program("vtmaild", "stop")[0], 0)

    def test_a_service_that_keeps_failing_can_be_stopped(self):
        self.run_program("vtmaild", "register")
        self.install()
        self.assertEqual(self.run_program("vtmaild", "start")[0], 0)
        os.rename(self.home + "/store.db", self.home + "/kept")
        os.mkdir(self.home + "/store.db")
        os.kill(self.process("VTMAILD"), signal.SIGKILL)
        self.assertTrue(wait_until(lambda: self.run_program("vtmaild", "stop")[0] == 0, 15))
        self.assertTrue(wait_until(lambda: not self.supervisor("VTMAILD"), 15))
        self.assertEqual(self.status("VTMAILD")["state"], "stopped")

    def test_dependencies_come_first_or_nothing_does(self):
        self.run_program("vtsmtpproxy", "install")
        code, text = self.run_program("vtsmtpproxy", "start")
        self.assertEqual(code, 255)
        self.assertIn("failed to start: The dependency service does not exist", text)
        self.run_program("vtregistry", "install")
        self.run_program("vtmaild", "install")
        held = subprocess.Popen([BIN + "/vtmaild", "debug"], env=self.env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.assertTrue(wait_until(lambda: serves(self.home + "/pipes/vtmaild")))
        code, text = self.run_program("vtsmtpproxy", "start")
        self.assertEqual((code, "The dependency service or group failed to start." in text), (255, True), text)
        self.assertTrue(wait_until(lambda: self.status("VTREGISTRY").get("state") == "stopped"), "started for this alone")
        held.terminate()
        held.wait(10)

    def test_two_starts_at_once_start_one(self):
        self.install()
        results = []
        threads = [threading.Thread(target=lambda: results.append(self.run_program("vtsmtpproxy", "start"))) for _ in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(sorted(code for code, _ in results), [0, 255, 255, 255], results)
        self.assertEqual(self.status("VTSMTPPROXY")["state"], "running")

    def test_host_shut_down_ends_in_good_order(self):
        self.install()
        self.run_program("vtsmtpproxy", "start")
        os.kill(self.supervisor("VTSMTPPROXY"), signal.SIGTERM)
        self.assertTrue(wait_until(lambda: not self.supervisor("VTSMTPPROXY")))
        self.assertEqual((self.status("VTSMTPPROXY")["state"], self.status("VTSMTPPROXY")["exit-code"]), ("stopped", "0"))
        self.assertEqual(self.run_program("vtsmtpproxy", "start")[0], 0)
        # Without its supervisor a service doesn't stay behind where nobody could stop it.
        process = self.process("VTSMTPPROXY")
        os.kill(self.supervisor("VTSMTPPROXY"), signal.SIGKILL)
        self.assertTrue(wait_until(lambda: not os.path.exists("/proc/%d/exe" % process)))
        self.assertEqual(self.run_program("vtsmtpproxy", "start")[0], 0)

    def test_started_by_hand(self):
        done = subprocess.run([BIN + "/vtsmtpproxy", "-install", "Start"], env=self.env, text=True, capture_output=True)
        self.assertEqual((done.returncode, done.stdout), (255, ""))
        self.assertRegex(done.stderr, r"\Avtsmtpproxy: unknown word: -install\nusage: vtsmtpproxy WORD\n(.*\n)+.* debug\b.*\n\Z")
        with open(self.home + "/events.log") as file:
            lines = file.readlines()
        self.assertEqual(len(lines), 1)
        self.assertIn(" VTSMTPPROXY error 0xC0000002 ", lines[0])


class Systemd(Instance):
    def test_sequence_of_states(self):
        path = self.home + "-notify"
        notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        notify.bind(path)
        notify.settimeout(10)
        self.env["NOTIFY_SOCKET"] = path
        self.configure(1)
        service = subprocess.Popen([BIN + "/vtsmtpproxy"], env=self.env)
        try:
            start = "STATUS=Starting\nEXTEND_TIMEOUT_USEC=3000000\n"
            self.assertEqual([notify.recv(1000).decode() for _ in range(3)], [start, start, "READY=1\nSTATUS=Running\n"])
            service.send_signal(signal.SIGTERM)
            self.assertEqual([notify.recv(1000).decode() for _ in range(2)],
                             ["STOPPING=1\nSTATUS=Stopping\nEXTEND_TIMEOUT_USEC=10000000\n", "STATUS=Stopped\n"])
            self.assertEqual(service.wait(10), 0)
        finally:
            service.kill()
            notify.close()
            os.unlink(path)


class Defaults(Instance):
    def dump(self):
        code, text = self.run_program("vtregistry", "dump")
        return json.loads(text) if code == 0 else {}

    def test_register_in_a_refused_directory_says_so(self):
        os.chmod(self.home, 0o777)
        for program in ("vtsmtpproxy", "vtmaild", "vtlogd"):
            done = subprocess.run([os.path.join(BIN, program), "register"], env=self.env, text=True, capture_output=True, timeout=20)
            self.assertNotEqual(done.returncode, 0)
            self.assertIn(self.home, done.stderr)
        os.chmod(self.home, 0o700)

    def test_dump_and_load_carry_every_byte(self):
        values = {b"/a/text": "gr\u00fc\u00dfe \"\n".encode(), b"/a/odd": bytes(range(1, 256)), b"/a/key\xff\xfe": b"x", b"/a/empty": b""}
        for key, value in values.items():
            subprocess.run([(BIN + "/vtregistry").encode(), b"set", key, value], env=self.env, check=True)
        dump = subprocess.run([BIN + "/vtregistry", "dump"], env=self.env, capture_output=True, check=True).stdout
        json.loads(dump.decode())
        subprocess.run([BIN + "/vtregistry", "del", "/a"], env=self.env, check=True)
        subprocess.run([BIN + "/vtregistry", "load"], input=dump, env=self.env, check=True)
        for key, value in values.items():
            got = subprocess.run([(BIN + "/vtregistry").encode(), b"get", key], env=self.env, capture_output=True, check=True).stdout
            self.assertEqual(got, value + b"\n", key)

    def test_register_and_unregister(self):
        self.assertEqual(self.run_program("vtsmtpproxy", "unregister"), (0, ""), "harmless on an empty tree")
        self.assertEqual(self.run_program("vtsmtpproxy", "register"), (0, ""))
        tree = self.dump()
        deny = "550 5.7.1 Message Rejected"
        filters = "/VTWIN/Filters/AS/"
        self.assertEqual(tree.pop("/VTWIN/Agents/VTSMTPProxy/Path"), os.path.realpath(BIN + "/vtsmtpproxy"))
        self.assertEqual(tree, {
            filters + "AllowDenyIPList/Enabled": "Y", filters + "AllowDenyIPList/Addresses": "",
            filters + "SenderBlackList/Enabled": "Y", filters + "SenderBlackList/WildcardsList": "",
            filters + "SenderBlackList/UsersList": "", filters + "SenderBlackList/EnabledSendDenyMessage": "Y",
            filters + "SenderBlackList/EnabledDropConnection": "Y", filters + "SenderBlackList/DenyMessage": deny,
            filters + "DirectoryHarvesting/Enabled": "Y", filters + "DirectoryHarvesting/EnabledSendDenyMessage": "Y",
            filters + "DirectoryHarvesting/DenyMessage": deny, filters + "DirectoryHarvesting/ResponseTimeout": "45",
            "/VTWIN/Versions/VTSMTPProxy/Name": "Vantrel SMTP Proxy", "/VTWIN/Versions/VTSMTPProxy/Version": "2, 0, 67, 0",
            "/VTWIN/Agents/VTSMTPProxy/RTP/Active": "Y", NET + "/Name": "Default Interface",
            NET + "/GreetingDomainName": "127.0.0.1", NET + "/MaxThreads": "50", NET + "/TimeoutBetweenNOOPs": "180",
            NET + "/ConnectionTimeout": "600", NET + "/ServerToForward": "127.0.0.1:10025", NET + "/Port": "25",
            NET + "/RelayNetworks": "", NET + "/MailDomains": ""})
        self.run_program("vtregistry", "set", NET + "/Port", "2525")
        self.run_program("vtregistry", "set", NET + "/MailDomains/a", "example.org")
        self.run_program("vtsmtpproxy", "register")
        self.assertEqual((self.dump()[NET + "/Port"], self.dump()[NET + "/MailDomains/a"]), ("25", "example.org"))
        for program in ("vtmaild", "vtlogd", "vtregistry"):
            self.assertEqual(self.run_program(program, "register"), (0, ""))
        self.assertEqual(self.dump()["/VTWIN/Daemons/MailDaemon/VirusAction"], "reject")
        for program in ("vtsmtpproxy", "vtmaild", "vtlogd", "vtregistry"):
            self.assertEqual(self.run_program(program, "unregister"), (0, ""))
        self.assertEqual(self.dump(), {})


class CrashHandler(Instance):
    def test_library_is_taken_from_beside_the_tool_alone(self):
        output = self.home + "/called"
        self.env["VTCH_OUTPUT"] = output
        library = os.path.join(BIN, "crash", "vtch.dll")
        cases = ((os.path.dirname(library) + "/tool", True), (self.home + "/tool", False), ("tool", False))
        for path, attached in cases:
            with self.subTest(path):
                self.run_program("vtregistry", "set", "/VTWIN/VTSUBMIT/AppPath", path)
                # A library that only a search would find is never loaded.
                done = subprocess.run([BIN + "/vtsmtpproxy", "unregister"], env=dict(self.env, LD_LIBRARY_PATH=os.path.dirname(library)),
                                      cwd=os.path.dirname(library))
                self.assertEqual(done.returncode, 0)
                self.assertEqual(os.path.exists(output), attached)
                if attached:
                    with open(output) as file:
                        self.assertEqual(file.read(), os.path.dirname(library) + "/ VTSTATD 2 0 0 0")
                    os.unlink(output)
