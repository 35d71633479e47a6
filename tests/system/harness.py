"""Whole programs on loopback: an instance in a directory of its own, a mail server and a scan daemon whose faults a
test chooses, and a client that speaks raw bytes."""

import contextlib
import json
import os
import re
import shutil
import signal
import socket
import sqlite3
import struct
import subprocess
import tempfile
import threading

import sanitizers
from waiting import free_port, listens, serves, wait_until

BIN = os.environ["VANTREL_BIN"]
NET = "/VTWIN/Agents/VTSMTPProxy/NetworkInterfaces/net"
SEEN = "/VTWIN/Agents/VTSMTPProxy/NetworkInterfaces/seen"


class Listening:
    """Serves each connection of `listener` on a thread of its own; `clients` are all that came."""

    def listen(self):
        self.clients = []
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            self.clients.append(client)
            threading.Thread(target=self._serve, args=(client,), daemon=True).start()

    @property
    def connections(self):
        return len(self.clients)

    def close(self):
        with contextlib.suppress(OSError):  # who accepts shall not do so by this number, which the next one may get
            self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()


class MailServer(Listening):
    """Answers each command line with the rule for its verb: bytes, or a function of the line; None closes, RESET does so
    hard; as HELLO behind the greeting."""
    RESET = b"reset"

    def __init__(self, host="127.0.0.1", **rules):
        self.rules = {"GREETING": b"220 real.example ESMTP\r\n", "EHLO": b"250-real.example\r\n250-SIZE 1000000\r\n"
                      b"250-PIPELINING\r\n250-STARTTLS\r\n250-CHUNKING\r\n250 8BITMIME\r\n",
                      "DATA": b"354 go on\r\n", "QUIT": b"221 bye\r\n", "END": b"250 queued\r\n", "": b"250 ok\r\n"}
        self.rules.update(rules)
        self.lines = []
        self.messages = []
        family = socket.AF_INET6 if ":" in host else socket.AF_INET
        self.listener = socket.create_server((host, 0), family=family, backlog=200)
        self.port = self.listener.getsockname()[1]
        self.listen()

    def ends(self, client, reply):
        if reply == self.RESET:
            client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        return reply is None or reply == self.RESET

    def _serve(self, client):
        with client, client.makefile("rb") as stream:
            try:
                client.sendall(self.rules["GREETING"])
                if self.ends(client, self.rules.get("HELLO", b"")):
                    return
                for line in stream:
                    self.lines.append(line)
                    words = line.split() or [b""]
                    verb = words[0].decode("latin-1").upper()
                    rule = self.rules.get(verb, self.rules[""])
                    if verb == "BDAT":
                        self.messages.append(stream.read(int(words[1])))
                    reply = rule(line) if callable(rule) else rule
                    if self.ends(client, reply):
                        return
                    client.sendall(reply)
                    if verb == "DATA" and reply.startswith(b"354"):
                        body = bytearray()
                        for text in stream:
                            if text == b".\r\n":
                                break
                            body += text
                        else:
                            return
                        self.messages.append(bytes(body))
                        if self.rules["END"] is None:
                            return
                        client.sendall(self.rules["END"])
            except OSError:
                pass


def flat(attributes, children=()):
    """The nodes of a tagged message, without the leading length."""
    def node(attrs, kids, sibling):
        out = struct.pack("<III", len(kids), len(attrs), sibling)
        for tag, value in attrs:
            if tag & 0xFF == 1:
                out += struct.pack("<Ii", tag, value)
            else:
                text = value.encode() + b"\0"
                out += struct.pack("<II", tag, len(text)) + text
        for i, (kid_attrs, kid_kids) in enumerate(kids):
            out += node(kid_attrs, kid_kids, 1 if i + 1 < len(kids) else 0)
        return out
    body = node(attributes, children, 0)
    return struct.pack("<I", len(body) + 4) + body


def clean():
    return flat([(0x1401, 1)])


def verdict(mask, section="Antivirus", section_mask=0, recipients=None):
    attrs = [(0x3800, section), (0x1401, section_mask)]
    if recipients is not None:
        attrs.append((0x0F00, recipients))
    return flat([(0x1401, mask | 0x10)], [(attrs, [])])


class ScanDaemon(Listening):
    """Speaks the frames on the pipe vtmaild; answer gets the request and gives the reply, None closes."""

    def __init__(self, home, answer=lambda request: clean()):
        self.answer = answer
        self.requests = []
        self.path = os.path.join(home, "pipes", "vtmaild")
        if os.path.exists(self.path):
            os.unlink(self.path)
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(self.path)
        self.listener.listen(64)
        self.listen()

    def _serve(self, client):
        with client, client.makefile("rb") as stream:
            try:
                while header := stream.read(20):
                    assert header[:8] == b"VTIPC\0\0\0", header
                    length, remaining, reserved = struct.unpack("<III", header[8:])
                    assert length == remaining and reserved == 0
                    request = stream.read(length)
                    self.requests.append(request)
                    reply = clean() if request.find(b"engines") > 0 > request.find(b"/") else self.answer(request)  # it has none
                    if reply is None:
                        return
                    client.sendall(b"VTIPC\0\0\0" + struct.pack("<III", len(reply), len(reply), 0) + reply)
            except OSError:
                pass

    def close(self):
        super().close()
        if os.path.exists(self.path):
            os.unlink(self.path)
        for client in self.clients:
            with contextlib.suppress(OSError):
                client.shutdown(socket.SHUT_RDWR)


class Client:
    """Replies come without the id at the end of the proxy's own refusals; `ids` has those."""
    ids = []
    ID = re.compile(rb" \[([0-9a-z]{14}(?:-[0-9]+)?)\]\r\n\Z")

    def __init__(self, port, timeout=15, host="127.0.0.1"):
        self.socket = socket.create_connection((host, port), timeout)
        self.stream = self.socket.makefile("rb")

    def send(self, data):
        self.socket.sendall(data)

    def reply(self):
        reply = self.whole_reply()
        self.ids = self.ids + [each.decode() for each in self.ID.findall(reply)]
        return self.ID.sub(b"\r\n", reply)

    def whole_reply(self):
        """One whole reply; empty when the connection is closed."""
        out = b""
        while True:
            try:
                line = self.stream.readline()
            except ConnectionError:
                return out
            out += line
            if not line or line[3:4] != b"-":
                return out

    def ask(self, line):
        self.send(line + b"\r\n")
        return self.reply()

    def mail(self, sender=b"s@example.org", recipients=(b"r@example.org",), parameters=b""):
        for line in (b"MAIL FROM:<" + sender + b">" + parameters, *(b"RCPT TO:<" + each + b">" for each in recipients)):
            answer = self.ask(line)
            assert answer.startswith(b"250"), (line, answer)

    def envelope(self, *args, **options):
        assert self.reply().startswith(b"220"), "greeting"
        assert self.ask(b"EHLO me").startswith(b"250")
        self.mail(*args, **options)

    def data(self, body):
        assert self.ask(b"DATA").startswith(b"354")
        self.send(body)
        return self.reply()

    def reset(self):
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.stream.close()
        self.socket.close()

    def close(self):
        self.stream.close()
        self.socket.close()

class Proxy:
    """vtsmtpproxy in its own instance."""

    def __init__(self, server_port, keys=None, start=True):
        self.home = tempfile.mkdtemp(prefix="vantrel-system.")
        self.env = dict(os.environ, VANTREL_HOME=self.home)
        sanitizers.report_to(self.home, self.env)
        self.port = free_port()
        values = {NET + "/Port": str(self.port), NET + "/IPAddress": "127.0.0.1",
                  NET + "/ServerToForward": "127.0.0.1:%d" % server_port, NET + "/GreetingDomainName": "proxy.example",
                  NET + "/MailDomains/a": "example.org", NET + "/TimeoutBetweenNOOPs": "1", NET + "/ConnectionTimeout": "5"}
        values.update(keys or {})
        self.load(values)
        self.host = "::1" if ":" in values[NET + "/IPAddress"] else "127.0.0.1"  # where it listens
        self.command = [BIN + "/vtsmtpproxy", "debug"]
        self.process = None
        self.daemons = []
        if start:
            self.start()

    def load(self, values):
        subprocess.run([BIN + "/vtregistry", "load"], input=json.dumps(values), text=True, env=self.env, check=True)

    def change(self, values):
        """Loads them, and waits until the interfaces have been read anew: the one that comes with them listens."""
        port = free_port()
        self.load({**values, SEEN + "/Port": str(port), SEEN + "/IPAddress": "127.0.0.1"})
        assert wait_until(lambda: listens(port)), "the change is not seen"

    def tool(self, *words):
        return subprocess.run([BIN + "/vtregistry", *words], env=self.env, text=True, capture_output=True)

    def start(self):
        self.process = subprocess.Popen(self.command, env=self.env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        assert wait_until(self.listening, 20), "the proxy does not listen"

    def daemon(self, name, pipe, *before):
        """A program of the instance, once it serves its pipe."""
        process = subprocess.Popen([*before, BIN + "/" + name, "debug"], env=self.env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.daemons.append(process)
        assert wait_until(lambda: serves(self.home + "/pipes/" + pipe), 20), name
        return process

    def logger(self):
        return self.daemon("vtlogd", "vtlogd")

    def statistics(self):
        self.tool("set", "/VTWIN/Daemons/StatsDaemon/HTTPPort", str(free_port()))
        return self.daemon("vtstatd", "VTSTATD")

    def log(self):
        try:
            with open(self.home + "/log/vtlogd.log", encoding="utf-8") as file:
                return file.read()
        except FileNotFoundError:
            return ""

    def records(self, columns, where="1"):
        """Of the statistics."""
        with contextlib.closing(sqlite3.connect("file:%s/stats.db?mode=ro" % self.home, uri=True)) as database:
            database.text_factory = lambda text: text.decode(errors="replace")
            return database.execute("SELECT %s FROM records WHERE %s ORDER BY id" % (columns, where)).fetchall()

    def listening(self):
        try:
            socket.create_connection((self.host, self.port), 1).close()
            return True
        except OSError:
            return False

    def alive(self):
        return self.process.poll() is None
    def spool(self):
        folder = os.path.join(self.home, "tmp", "VTNP")
        return os.listdir(folder) if os.path.isdir(folder) else []

    def descriptors(self):
        return len(os.listdir("/proc/%d/fd" % self.process.pid))
    def sockets(self):
        """Those of the sessions, and a few besides."""
        directory, count = "/proc/%d/fd/" % self.process.pid, 0
        for name in os.listdir(directory):
            with contextlib.suppress(OSError):  # closed meanwhile
                count += os.readlink(directory + name).startswith("socket:")
        return count

    def threads(self):
        return len(os.listdir("/proc/%d/task" % self.process.pid))

    def stop(self):
        if self.process is not None and self.alive():
            self.process.send_signal(signal.SIGTERM)
            self.process.wait(30)
        code = self.process.returncode if self.process is not None else None
        output = self.process.stdout.read() if self.process is not None else b""
        if self.process is not None:
            self.process.stdout.close()
        for each in reversed(self.daemons):
            each.send_signal(signal.SIGCONT)
            each.terminate()
            each.wait(30)
        reports = sanitizers.reports(self.home)
        shutil.rmtree(self.home, ignore_errors=True)
        assert not reports, reports
        return code, output
