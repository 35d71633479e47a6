"""Reads what vtstatd shows to machines."""

import base64
import http.client
import re
import subprocess

from harness import BIN, free_port, wait_until

STATS = "/VTWIN/Daemons/StatsDaemon"
SAMPLE = re.compile(r'(\w+)(?:\{((?:\w+="(?:[^"\\]|\\.)*",?)*)\})? (\S+)\Z')


def parse(text):
    """name{labels} to value."""
    samples = {}
    for line in text.splitlines():
        if not line.startswith("#"):
            name, labels, value = SAMPLE.match(line).groups()
            key = name + ("{%s}" % labels if labels else "")
            assert key not in samples, key
            samples[key] = float(value)
    return samples


class Pages:
    """Those of the vtstatd of a proxy's instance, which is started."""

    def __init__(self, proxy):
        self.proxy = proxy
        self.port = free_port()
        proxy.load({STATS + "/HTTPPort": str(self.port)})
        proxy.daemon("vtstatd", "VTSTATD")
        assert wait_until(lambda: self.answers(), 20), "vtstatd does not come up"

    def answers(self):
        try:
            return self.get("/healthz")[0] != 0
        except OSError:
            return False

    def get(self, path, account=None, method="GET", source="127.0.0.1", host="127.0.0.1"):
        connection = http.client.HTTPConnection(host, self.port, timeout=20, source_address=(source, 0))
        headers = {"Authorization": "Basic " + base64.b64encode(account.encode()).decode()} if account else {}
        connection.request(method, path, headers=headers)
        response = connection.getresponse()
        body = response.read().decode()
        connection.close()
        return response.status, body, response.headers

    def numbers(self):
        status, body, _ = self.get("/metrics")
        assert status == 200, (status, body)
        return parse(body)

    def account(self, name, password):
        subprocess.run([BIN + "/vtstatd", "passwd", name], input=password + "\n", text=True, env=self.proxy.env, check=True,
                       stdout=subprocess.DEVNULL)
