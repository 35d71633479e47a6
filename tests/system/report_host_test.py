"""Reports from another host: its store tells the port, where it lets others read it."""

import os
import shutil
import subprocess
import tempfile
import unittest

from harness import BIN, free_port, wait_until
from waiting import serves

STATS = "/VTWIN/Daemons/StatsDaemon/"
STORE = "/VTWIN/Daemons/StoreDaemon/"


class OtherHost(unittest.TestCase):
    def instance(self, values):
        home = tempfile.mkdtemp(prefix="vantrel-host.")
        self.addCleanup(shutil.rmtree, home, True)
        env = dict(os.environ, VANTREL_HOME=home)
        for key, value in values.items():
            subprocess.run([BIN + "/vtregistry", "set", key, value], env=env, check=True)
        return home, env

    def spawn(self, env, *words):
        process = subprocess.Popen(words, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(process.wait, 20)
        self.addCleanup(process.terminate)
        return process

    def test_port_comes_from_the_other_store(self):
        store, page = str(free_port()), str(free_port())
        home, there = self.instance({STATS + "HTTPAddress": "127.0.0.2", STATS + "HTTPPort": page, STORE + "Address": "127.0.0.2",
                                     STORE + "Port": store})
        self.spawn(there, BIN + "/vtstatd", "debug")
        self.spawn(there, BIN + "/vtregistry", "debug")
        subprocess.run([BIN + "/vtstatd", "passwd", "ann"], input="secret\n", text=True, env=there, check=True)
        _, here = self.instance({STORE + "Port": store, STATS + "HTTPPort": "1"})
        here.update(VANTREL_REPORT_USER="ann", VANTREL_REPORT_PASSWORD="secret")

        def report():
            return subprocess.run([BIN + "/vtreport", "--host", "127.0.0.2"], env=here, text=True, capture_output=True)
        self.assertTrue(wait_until(lambda: serves(home + "/pipes/VTSTATD"), 20))
        self.assertEqual(report().returncode, 1, "the other store is closed")
        subprocess.run([BIN + "/vtregistry", "set", STORE + "RemoteReads", "Y"], env=there, check=True)
        self.assertTrue(wait_until(lambda: report().returncode == 0), report())
        self.assertIn("By event\n\nnothing in this period", report().stdout)
        here["VANTREL_REPORT_PASSWORD"] = "wrong"
        self.assertEqual(report().returncode, 1)
