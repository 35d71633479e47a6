"""A real Prometheus scrapes vtstatd: each query of the alert rules and of the dashboard is one that it understands, and
finds something."""

import json
import os
import re
import shutil
import subprocess
import tempfile
import unittest
import urllib.error
import urllib.parse
import urllib.request

from harness import free_port, verdict, wait_until
from metrics import Pages
from system_test import System

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
RULES = ROOT + "/packaging/prometheus/alerts.yml"
DASHBOARD = ROOT + "/packaging/grafana/vantrel.json"
# What a rule compares with its limit.
LIMIT = re.compile(r"(.*) (?:==|>|<|>=|<=) [\d.]+\Z")


class Prometheus(System):
    def setUp(self):
        super().setUp()
        self.pages = Pages(self.proxy)
        self.proxy.logger()
        self.directory = tempfile.mkdtemp(prefix="vantrel-prometheus.")
        self.addCleanup(shutil.rmtree, self.directory)
        with open(self.directory + "/prometheus.yml", "w", encoding="utf-8") as file:
            json.dump({"global": {"scrape_interval": "1s", "evaluation_interval": "1s"}, "rule_files": [RULES],
                       "scrape_configs": [{"job_name": "vantrel", "static_configs": [
                           {"targets": ["127.0.0.1:%d" % self.pages.port]}]}]}, file)  # JSON is YAML
        self.port = free_port()
        self.process = subprocess.Popen(
            ["prometheus", "--config.file=" + self.directory + "/prometheus.yml", "--storage.tsdb.path=" + self.directory + "/data",
             "--web.listen-address=127.0.0.1:%d" % self.port, "--log.level=error"],
            cwd=self.directory, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(self.process.wait, 30)
        self.addCleanup(self.process.terminate)

    def api(self, path, **words):
        url = "http://127.0.0.1:%d/api/v1/%s?%s" % (self.port, path, urllib.parse.urlencode(words))
        try:
            with urllib.request.urlopen(url, timeout=20) as answer:
                return json.load(answer)
        except urllib.error.HTTPError as error:
            return {"status": error.read().decode(), "data": {}}
        except OSError as error:
            return {"status": str(error), "data": {}}

    def ask(self, query):
        answer = self.api("query", query=query)
        self.assertEqual(answer["status"], "success", (query, answer))
        return answer["data"]["result"]

    def scraped(self, query):
        return wait_until(lambda: self.api("query", query=query).get("data", {}).get("result"), 30)

    def traffic(self):
        for answer, end in ((None, b"250"), (verdict(4), b"550"), (b"junk", b"451")):
            if answer is not None:
                self.scan.answer = lambda request, answer=answer: answer
            c = self.ready()
            self.assertTrue(c.data(b"hello\r\n.\r\n").startswith(end))
            c.close()

    def test_every_query_has_a_result(self):
        self.engine()
        self.assertTrue(self.scraped("vantrel_messages_total"))
        self.traffic()
        self.assertTrue(self.scraped('count_over_time(vantrel_messages_total{verdict="failed"}[1m]) > 3'))
        with open(DASHBOARD, encoding="utf-8") as file:
            panels = json.load(file)["panels"]
        queries = [target["expr"] for panel in panels for target in panel["targets"]]
        self.assertGreater(len(queries), 25)
        self.assertEqual(len({panel["title"] for panel in panels}), len(panels))
        for query in queries:
            with self.subTest(query):
                plain = query.replace("$__rate_interval", "1m").replace("$instance", ".*")
                self.assertNotIn("$", plain)
                self.assertTrue(self.ask(plain), "it finds nothing")
        rules = [rule for group in self.api("rules")["data"]["groups"] for rule in group["rules"]]
        with open(RULES, encoding="utf-8") as file:
            self.assertEqual(len(rules), file.read().count("- alert: "))
        for rule in rules:
            with self.subTest(rule["name"]):
                self.assertNotEqual(rule["health"], "err", rule)
                self.ask(rule["query"])
                found = LIMIT.match(rule["query"])
                if rule["name"] != "VantrelNotScraped":
                    self.assertTrue(self.ask(re.sub(r"\[\d+m\]", "[1m]", found[1])), "nothing is compared")
        self.assertEqual(self.ask('vantrel_messages_total{verdict="reject"}')[0]["value"][1], "1")

    def engine(self):
        """A scan daemon that has no engine: its series are there all the same."""
        self.scan.close()
        maild = self.proxy.daemon("vtmaild", "vtmaild")
        self.assertTrue(wait_until(lambda: "vantrel_engine_up" in self.pages.get("/metrics")[1]))
        maild.terminate()
        maild.wait(30)
        self.scan = type(self.scan)(self.proxy.home)

    def test_an_alert_comes_when_the_proxy_has_gone(self):
        self.assertTrue(self.scraped("vantrel_program_up"))

        def alerts():
            return {alert["labels"]["alertname"] for alert in self.api("alerts")["data"]["alerts"]}
        self.assertTrue(wait_until(lambda: "VantrelScanDaemonDown" in alerts(), 20), alerts())
        self.assertNotIn("VantrelProxyDown", alerts())
        self.proxy.process.kill()
        self.proxy.process.wait(10)
        self.assertTrue(wait_until(lambda: "VantrelProxyDown" in alerts(), 20), alerts())
        self.proxy.process.stdout.close()
        self.proxy.start()
        self.assertTrue(wait_until(lambda: "VantrelProxyDown" not in alerts(), 20), alerts())


class Rules(unittest.TestCase):
    def test_the_rules_are_whole(self):
        done = subprocess.run(["promtool", "check", "rules", RULES], text=True, capture_output=True)
        self.assertEqual(done.returncode, 0, done)


if __name__ == "__main__":
    unittest.main()
