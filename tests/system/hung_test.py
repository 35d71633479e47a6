"""Daemons that hang, and more scans at once than there are connections: mail goes on, and what was lost is told."""

import re
import signal
import threading
import time
import unittest

from harness import NET, Client, MailServer, Proxy, ScanDaemon, clean, verdict, wait_until

MAILD = "/VTWIN/Daemons/MailDaemon/"


class Instance(unittest.TestCase):
    """A proxy and real daemons, each of which can be stopped in its tracks."""

    def setUp(self):
        self.server = MailServer()
        self.addCleanup(self.server.close)
        self.proxy = Proxy(self.server.port, {
            NET + "/MaxThreads": "0", NET + "/ConnectionTimeout": "60", MAILD + "PassWhenDown": "Y",
            MAILD + "ClamdSocket": "/nowhere"}, start=False)
        self.addCleanup(self.proxy.stop)

    def stop_in_time(self, process, seconds):
        start = time.monotonic()
        process.terminate()
        process.wait(60)
        self.assertLess(time.monotonic() - start, seconds)

    def send(self, count):
        """Messages through one session; the seconds that they took."""
        start = time.monotonic()
        client = Client(self.proxy.port, 40)
        client.envelope()
        for number in range(count):
            if number > 0:
                client.mail()
            self.assertEqual(client.data(b"Subject: x\r\n\r\nx\r\n.\r\n"), b"250 queued\r\n")
        client.close()
        return time.monotonic() - start


class HungDaemons(Instance):
    def test_scans_go_on_and_all_stop(self):
        logger = self.proxy.logger()
        statistics = self.proxy.statistics()
        scanner = self.proxy.daemon("vtmaild", "vtmaild")
        self.proxy.start()
        healthy = self.send(50)
        self.assertTrue(wait_until(lambda: self.proxy.log().count("passes unscanned") == 50), self.proxy.log())
        logger.send_signal(signal.SIGSTOP)
        statistics.send_signal(signal.SIGSTOP)
        # Each message is an event and a record of the scanner's.
        self.assertLess(self.send(50), 3 * healthy + 2)
        self.assertNotIn("posted=", self.proxy.log())
        time.sleep(2.5)
        logger.send_signal(signal.SIGCONT)
        self.assertTrue(wait_until(lambda: self.proxy.log().count("passes unscanned") >= 100))
        self.assertIn('posted="20', self.proxy.log(), "a late event says when it was")
        logger.send_signal(signal.SIGSTOP)
        self.send(5)
        self.stop_in_time(scanner, 20)
        start = time.monotonic()
        self.proxy.process.terminate()
        self.proxy.process.wait(60)
        self.assertLess(time.monotonic() - start, 25)
        statistics.send_signal(signal.SIGCONT)
        self.stop_in_time(statistics, 20)

    def test_lost_events_are_told(self):
        self.server.rules["RCPT"] = lambda line: b"550 no\r\n" if line == b"RCPT TO: r@x\r\n" else b"250 ok\r\n"
        answer = verdict(2, section_mask=1, recipients=";".join(["r@x"] * 120))
        logger = self.proxy.logger()
        daemon = ScanDaemon(self.proxy.home, lambda request: answer)
        self.addCleanup(daemon.close)
        self.proxy.start()
        logger.send_signal(signal.SIGSTOP)
        # Each redirect address that the server refuses is an event of the session's.
        for _ in range(95):
            client = Client(self.proxy.port, 60)
            client.envelope()
            self.assertNotEqual(client.data(b"Subject: x\r\n\r\nx\r\n.\r\n"), b"")
            client.close()
        posted = self.server.lines.count(b"RCPT TO: r@x\r\n")
        self.assertGreater(posted, 10500, "more than what waits for the logger")
        logger.send_signal(signal.SIGCONT)
        self.assertTrue(wait_until(lambda: "events lost" in self.proxy.log(), 30))

        def accounted():
            log = self.proxy.log()
            lost = sum(int(number) for number in re.findall(r'"(\d+) events lost"', log))
            return log.count("not accepted!") + log.count(" event=") + lost
        # A line for each message, and one for each session and the look whether the proxy listens.
        posted += 95 + 96
        self.assertTrue(wait_until(lambda: accounted() >= posted), (accounted(), posted))
        self.assertEqual(accounted(), posted)


class ScanBurst(Instance):
    CLIENTS = 320

    def test_more_scans_than_connections(self):
        going = threading.Event()

        def answer(request):
            going.wait(60)
            return clean()
        daemon = ScanDaemon(self.proxy.home, answer)
        self.addCleanup(daemon.close)
        self.addCleanup(going.set)
        self.proxy.start()
        descriptors = self.proxy.descriptors()
        clients = [Client(self.proxy.port, 60) for _ in range(self.CLIENTS)]
        for client in clients:
            client.envelope()
            self.assertTrue(client.ask(b"DATA").startswith(b"354"))
        for client in clients:
            client.send(b"Subject: x\r\n\r\nx\r\n.\r\n")
        self.assertTrue(wait_until(lambda: len(daemon.requests) == 257, 30), len(daemon.requests))
        # Some go, most of them while they wait for a connection; the last ones came last.
        gone, clients = clients[-20:], clients[:-20]
        for client in gone:
            client.reset()
        self.assertTrue(wait_until(lambda: len(self.proxy.spool()) == len(clients), 15), len(self.proxy.spool()))
        # Those who wait for a connection keep the server's alive, as those who wait for an answer.
        self.assertTrue(wait_until(lambda: sum(line == b"NOOP\r\n" for line in list(self.server.lines)) > self.CLIENTS, 30))
        going.set()
        for client in clients:
            self.assertEqual(client.reply(), b"250 queued\r\n")
            client.close()
        # The pipes and the files that stay for the next messages, and a few of the waits'.
        self.assertTrue(wait_until(lambda: self.proxy.spool() == [] and self.proxy.descriptors() <= descriptors + 60, 15),
                        self.proxy.descriptors() - descriptors)
