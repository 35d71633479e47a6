"""The packaged HAProxy in front: it tells whom it speaks for, and looks whether we are there."""

import os
import shutil
import socket
import subprocess
import tempfile
import time
import unittest

from harness import NET, free_port, wait_until
from waiting import serves
from trust import BALANCER, RELAY, STRANGER, TRUST, From, Trust

HAPROXY = shutil.which("haproxy", path="/usr/sbin:/usr/bin")
CONFIGURATION = """global
  maxconn 200
  stats socket {dir}/admin mode 600
defaults
  mode tcp
  timeout connect 5s
  timeout client 60s
  timeout server 60s
  timeout check 3s
listen smtp
  bind 127.0.0.1:{port}
  source {balancer}
  {options}
  server proxy 127.0.0.1:{server} {server_options}
"""


@unittest.skipUnless(HAPROXY, "needs HAProxy")
class Balanced(Trust):
    """The packaged HAProxy in front."""
    keys = dict(TRUST, **RELAY, **{NET + "/ProxyProtocol": "Y"})

    def balancer(self, server_options, options=""):
        directory = tempfile.mkdtemp(prefix="vantrel-haproxy.")
        self.addCleanup(shutil.rmtree, directory, ignore_errors=True)
        self.front = free_port()
        self.admin = directory + "/admin"
        with open(directory + "/cfg", "w") as file:
            file.write(CONFIGURATION.format(dir=directory, port=self.front, balancer=BALANCER, options=options,
                                                    server=self.proxy.port, server_options=server_options))
        process = subprocess.Popen([HAPROXY, "-f", directory + "/cfg", "-db"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(process.wait)
        self.addCleanup(process.terminate)
        self.assertTrue(wait_until(lambda: serves(self.admin)))

    def column(self, *names):
        """Of the server's line in HAProxy's statistics."""
        with socket.socket(socket.AF_UNIX) as s:
            s.connect(self.admin)
            s.sendall(b"show stat\n")
            lines = s.makefile().read().lstrip("# ").splitlines()
        row = next(dict(zip(lines[0].split(","), line.split(","))) for line in lines if line.startswith("smtp,proxy,"))
        return [row[name] for name in names]

    def through(self, source):
        c = From(self.front, source)
        self.addCleanup(c.close)
        return c

    def test_both_versions_tell_the_client(self):
        self.proxy.change({NET + "/RelayNetworks/client/IPAddress": "127.0.0.8", NET + "/RelayNetworks/client/Mask": "255.255.255.255"})
        for version in ("send-proxy", "send-proxy-v2", "send-proxy-v2 proxy-v2-options crc32c,unique-id"):
            self.balancer(version)
            for source, relays in ((STRANGER, False), ("127.0.0.8", True)):
                c = self.through(source)
                self.begun(c)
                self.sends(c)
                self.assert_scanned_as(source)
                c.ask(b"MAIL FROM:<s@example.org>")
                self.assertEqual(c.ask(b"RCPT TO:<u@elsewhere.test>")[:3], b"250" if relays else b"550", version + source)
        self.assertFalse(self.said(b"PROXY"))

    def test_checks_cost_no_server_and_no_word(self):
        log = self.proxy.home + "/events.log"
        for version in ("send-proxy", "send-proxy-v2"):
            for options in ("", "option smtpchk EHLO balancer.example", "option smtpchk"):
                before = self.server.connections
                size = os.path.getsize(log) if os.path.exists(log) else 0
                self.balancer(version + " check inter 100ms", options)
                # At least ten of them, and none that failed.
                time.sleep(1.5)
                self.assertEqual(self.column("status", "chkfail"), ["UP", "0"], options + str(self.column("last_chk", "check_status")))
                self.assertIn(self.column("check_status")[0].lstrip("* "), ("L4OK", "L7OK", "L6OK"))
                self.assertEqual(self.server.connections, before)
                self.assertEqual(os.path.getsize(log) if os.path.exists(log) else 0, size)
                c = self.through(STRANGER)
                self.begun(c)
                c.ask(b"QUIT")
