"""A headless Chromium, told what to do by its own protocol over a pair of pipes."""

import base64
import json
import os
import shutil
import subprocess
import tempfile

CHROMIUM = shutil.which("chromium")


class Browser:
    def __init__(self, authorization):
        self.profile = tempfile.mkdtemp(prefix="vantrel-browser.")
        ours_in, theirs_out = os.pipe()
        theirs_in, ours_out = os.pipe()

        def arrange():  # it reads from descriptor 3 and writes to 4
            low, high = os.dup(theirs_in), os.dup(theirs_out)
            os.dup2(low, 3)
            os.dup2(high, 4)

        self.process = subprocess.Popen(
            [CHROMIUM, "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
             "--disable-background-networking", "--disable-component-update", "--remote-debugging-pipe",
             "--user-data-dir=" + self.profile, "about:blank"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, close_fds=False, preexec_fn=arrange,
            env=dict(os.environ, HOME=self.profile))
        os.close(theirs_in)
        os.close(theirs_out)
        self.reader, self.writer = os.fdopen(ours_in, "rb"), os.fdopen(ours_out, "wb")
        self.number, self.session, self.requested = 0, None, []
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        for domain in ("Page", "Network", "Runtime"):
            self.call(domain + ".enable")
        self.call("Network.setExtraHTTPHeaders", headers={"Authorization": authorization})

    def close(self):
        self.process.kill()
        self.process.wait()
        self.reader.close()
        self.writer.close()
        shutil.rmtree(self.profile, ignore_errors=True)

    def read(self):
        text = bytearray()
        while (byte := self.reader.read(1)) not in (b"\0", b""):
            text += byte
        message = json.loads(text)
        if message.get("method") == "Network.requestWillBeSent":
            self.requested.append(message["params"]["request"]["url"])
        return message

    def call(self, method, **parameters):
        self.number += 1
        message = {"id": self.number, "method": method, "params": parameters}
        if self.session:
            message["sessionId"] = self.session
        self.writer.write(json.dumps(message).encode() + b"\0")
        self.writer.flush()
        while (reply := self.read()).get("id") != self.number:
            pass
        if "error" in reply:
            raise RuntimeError(reply["error"])
        return reply["result"]

    def open(self, url, width, dark=False):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=900, deviceScaleFactor=1, mobile=width < 600)
        self.call("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": "dark" if dark else "light"}])
        self.call("Page.navigate", url=url)
        while self.read().get("method") != "Page.loadEventFired":
            pass

    def evaluate(self, script):
        result = self.call("Runtime.evaluate", expression=script, awaitPromise=True, returnByValue=True)
        if "exceptionDetails" in result:
            raise RuntimeError(result["exceptionDetails"])
        return result["result"].get("value")

    def key(self, key, text=""):
        for kind in ("keyDown", "keyUp"):
            self.call("Input.dispatchKeyEvent", type=kind, key=key, text=text if kind == "keyDown" else "")

    def picture(self):
        return base64.b64decode(self.call("Page.captureScreenshot", format="png", captureBeyondViewport=True)["data"])
