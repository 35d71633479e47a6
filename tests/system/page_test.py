"""The page of the statistics daemon as people see it, in a real browser, and the story of a message that it finds."""

import base64
import os
import struct
import threading
import unittest

from browser import CHROMIUM, Browser
from harness import wait_until
from statd_test import Statd

AXE = os.path.join(os.environ.get("VANTREL_TOOLS", "/var/cache/vantrel-tools"), "axe/axe.min.js")
WIDTHS = (360, 820, 1400)

LOG = """\
time=2026-11-25T10:00:00.000Z event=message session=s1 id=s1-1 peer=192.0.2.7 told_by="" helo=mx tls="" from=alice@example.org \
to=bob@example.net;carl@example.net size=100 via=data message_id=<one@example.org> verdict=forward section="" reason="" \
reply="250 ok" queue_id=4ABC reception_ms=1 scan_ms=2 relay_ms=3
time=2026-11-25T10:00:01.000Z event=session session=s1 peer=192.0.2.7 told_by="" helo=mx tls="" messages=1 ended=quit duration_ms=9
2026-11-25T10:00:02Z high Warning message="alice@example.org"
{"time":"2026-11-25T10:00:03.000Z","event":"message","session":"s2","id":"s2-1","peer":"192.0.2.8","told_by":"","helo":"<b>x</b>",\
"tls":"","from":"<script>alert(1)</script>@evil.example","to":"bob@example.net","size":5,"via":"bdat","message_id":"",\
"verdict":"reject","section":"antivirus","reason":"Eicar","reply":"550 Rejected by Vantrel. [s2-1]","queue_id":"",\
"reception_ms":1,"scan_ms":2,"relay_ms":0}
"""


class Logged(Statd):
    def setUp(self):
        super().setUp()
        os.makedirs(self.home + "/log", exist_ok=True)
        with open(self.home + "/log/vtlogd.log", "w", encoding="ascii") as log:
            log.write(LOG)

    def found(self, asked):
        status, headers, body = self.request("GET", "/find?q=" + asked)
        self.assertEqual((status, headers["content-type"]), (200, "text/html; charset=utf-8"))
        return body.decode()


class Find(Logged):
    def test_a_message_is_found_by_all_that_is_known_of_it(self):
        for asked, ids in (("s1-1", ["s1-1"]), ("s1", []), ("%5Bs2-1%5D", ["s2-1"]), ("ALICE@example.org", ["s1-1"]),
                           ("carl@", ["s1-1"]), ("bob@example.net", ["s2-1", "s1-1"]), ("one@example.org", ["s1-1"]),
                           ("4abc", ["s1-1"]), ("192.0.2.8", ["s2-1"]), ("192.0.2.7", ["s1", "s1-1"]), ("evil.example", ["s2-1"]),
                           ("nobody@example.com", []), ("", []), ("%00%ff", []), ("x" * 5000, [])):
            page = self.found(asked)
            shown = [part.split("</h2>")[0].split()[-1] for part in page.split("<section><h2>")[1:] if part.startswith(("Message", "Session"))]
            self.assertEqual(shown, ids, asked)
        page = self.found("s2-1")
        for text in ("reject", "antivirus", "Eicar", "550 Rejected by Vantrel. [s2-1]", "bdat", "&lt;script&gt;", "&lt;b&gt;"):
            self.assertIn(text, page)
        self.assertNotIn("<script", page)
        self.assertNotIn("<svg", self.found("%22%3E%3Csvg%20onload=x%3E"))

    def test_nobody_finds_anything_without_an_account_or_a_log(self):
        self.assertEqual(self.request("GET", "/find?q=s1-1", pair="joe:x")[0], 401)
        os.unlink(self.home + "/log/vtlogd.log")
        self.assertIn("can&#39;t be read".replace("&#39;", "'"), self.found("s1-1"))

    def test_searches_do_not_keep_the_others_waiting(self):
        with open(self.home + "/log/vtlogd.log", "a", encoding="ascii") as log:
            log.write((LOG.splitlines()[0] + "\n") * 100_000)
        answers = []

        def some_are_sent_away():
            searches = [threading.Thread(target=lambda: answers.append(self.request("GET", "/find?q=alice"))) for _ in range(12)]
            for each in searches:
                each.start()
            while any(each.is_alive() for each in searches):
                self.assertEqual(self.request("GET", "/live")[0], 200)
            return any(answer[0] == 503 for answer in answers)
        self.assertTrue(wait_until(some_are_sent_away, 60), "all of them were served at once, each time")
        self.assertEqual({answer[0] for answer in answers}, {200, 503})
        self.assertEqual({answer[1].get("retry-after") for answer in answers if answer[0] == 503}, {"2"})

    def test_many_are_cut_to_the_newest(self):
        line = LOG.splitlines()[0]
        with open(self.home + "/log/vtlogd.log", "w", encoding="ascii") as log:
            log.writelines(line.replace("s1-1", "s1-%d" % number) + "\n" for number in range(120))
        page = self.found("alice")
        self.assertIn("120 lines of the log, the newest 50 of them", page)
        self.assertIn("Message s1-119<", page)
        self.assertNotIn("Message s1-69<", page)


@unittest.skipUnless(CHROMIUM, "no browser")
class Page(Logged):
    def setUp(self):
        super().setUp()
        pipe = self.pipe()
        for event in (100, 100, 101, 80):
            pipe.record(event, sender="alice@example.org", recipients="bob@example.net", label="Eicar" if event == 101 else "")
        self.settled()
        self.browser = Browser("Basic " + base64.b64encode(self.pair().encode()).decode())
        self.addCleanup(self.browser.close)
        self.url = "http://127.0.0.1:%d/" % self.port

    def test_it_fits_each_width_and_asks_nobody_else(self):
        for width in WIDTHS:
            for dark in (False, True):
                self.browser.open(self.url, width, dark)
                self.assertLessEqual(self.browser.evaluate("document.documentElement.scrollWidth"), width)
                picture = self.browser.picture()
                self.assertEqual(picture[:8], b"\x89PNG\r\n\x1a\n")
                self.assertLessEqual(struct.unpack(">I", picture[16:20])[0], width)
                ground = self.browser.evaluate("getComputedStyle(document.body).backgroundColor")
                self.assertEqual(int(ground[4:].split(",")[0]) < 128, dark, ground)
        self.assertTrue(all(url.startswith(self.url) for url in self.browser.requested), self.browser.requested)

    def test_a_glance_says_what_is_wrong(self):
        self.browser.open(self.url, 820)
        self.assertEqual(self.browser.evaluate("document.querySelector('.state').innerText").split("\n")[0], "Mail is not flowing")
        self.assertIn("the proxy does not run", self.browser.evaluate("document.querySelector('.state').innerText"))
        # Each bar says its numbers, and the table behind the plot has them too.
        self.assertIn("Clean 2", self.browser.evaluate("document.querySelector('svg.plot g title').textContent"))
        cells = "[...document.querySelectorAll('figure details')].map(d => d.querySelectorAll('tbody tr').length)"
        self.assertEqual(self.browser.evaluate(cells)[:3], [24, 7, 30])
        self.assertIn("Eicar", self.browser.evaluate("document.body.innerText"))

    def test_a_message_is_found_with_the_keyboard_alone(self):
        self.browser.open(self.url, 820)
        for _ in range(10):
            self.browser.key("Tab")
            if self.browser.evaluate("document.activeElement.name") == "q":
                break
        for letter in "s2-1":
            self.browser.key(letter, letter)
        self.browser.key("Enter", "\r")
        self.assertTrue(wait_until(lambda: self.browser.evaluate("document.title + document.readyState") ==
                                   "Vantrel: find a messagecomplete"))
        self.assertIn("Message s2-1", self.browser.evaluate("document.body.innerText"))

    @unittest.skipUnless(os.path.exists(AXE), "no axe-core")
    def test_nothing_is_in_the_way_of_those_who_do_not_see(self):
        with open(AXE, encoding="utf-8") as file:
            rules = file.read() + ";0"
        for path in ("", "find?q=bob@example.net"):
            for width, dark in ((360, False), (1400, False), (1400, True)):
                self.browser.open(self.url + path, width, dark)
                self.browser.evaluate("document.querySelectorAll('details').forEach(d => d.open = true)")
                self.browser.evaluate(rules)
                self.assertEqual(self.browser.evaluate(
                    "axe.run().then(r => r.violations.map(v => v.id + ': ' + v.nodes[0].html + ' ' + v.nodes[0].failureSummary))"),
                    [], (path, width, dark))
