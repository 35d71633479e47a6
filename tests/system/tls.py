"""What the cases of TLS share: certificates made for the run, clients and servers that begin TLS, and the log."""

import copy
import os
import shutil
import socket
import ssl
import subprocess
import tempfile

from harness import NET, Client, MailServer, Proxy, ScanDaemon, wait_until
from system_test import System

NAME = "mail.test"
KEY = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes"]


class Authority:
    """Signs certificates, all in a directory that goes with close()."""

    def __init__(self):
        self.dir = tempfile.mkdtemp(prefix="vantrel-tls.")
        os.chmod(self.dir, 0o755)  # Postfix reads them too
        self.file = self.dir + "/ca.pem"
        self.openssl("req", "-x509", *KEY, "-keyout", "ca.key", "-out", "ca.pem", "-days", "30", "-subj", "/CN=authority")

    def openssl(self, *words):
        subprocess.run(["openssl", *words], cwd=self.dir, check=True, capture_output=True)

    def issue(self, file, name=NAME, days=30):
        """The path of a PEM file with key and certificate."""
        self.openssl("req", "-new", *KEY, "-keyout", "key", "-out", "request", "-subj", "/CN=" + name)
        with open(self.dir + "/extensions", "w", encoding="ascii") as out:
            out.write("subjectAltName=DNS:%s%s\n" % (name, ",IP:127.0.0.1" if name == NAME else ""))
        self.openssl("x509", "-req", "-in", "request", "-CA", "ca.pem", "-CAkey", "ca.key", "-CAcreateserial", "-days", str(days),
                     "-extfile", "extensions", "-out", "certificate")
        path = os.path.join(self.dir, file)
        with open(path + ".new", "wb") as out:
            for part in ("key", "certificate"):
                with open(os.path.join(self.dir, part), "rb") as f:
                    out.write(f.read())
        os.rename(path + ".new", path)
        return path

    def trusting(self, version=None):
        context = ssl.create_default_context(cafile=self.file)
        if version is not None:
            context.minimum_version = context.maximum_version = version
        return context

    def close(self):
        shutil.rmtree(self.dir, ignore_errors=True)


def serving(path):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(path)
    return context


class TlsClient(Client):
    """Speaks plainly until secure()."""

    def secure(self, context):
        self.stream.close()
        self.socket = context.wrap_socket(self.socket, server_hostname=NAME)
        self.stream = self.socket.makefile("rb")

    def start_tls(self, context):
        """From the greeting on, up to a new one."""
        assert self.reply().startswith(b"220")
        assert b"STARTTLS" in self.ask(b"EHLO me")
        assert self.ask(b"STARTTLS").startswith(b"220")
        self.secure(context)
        answer = self.ask(b"EHLO me")
        assert answer.startswith(b"250"), answer

    def send_message(self, body=b"Subject: x\r\n\r\nhello\r\n.\r\n"):
        self.mail()
        return self.data(body)


class TlsServer(MailServer):
    """Takes STARTTLS unless a rule says otherwise; `lines` is what came through TLS, `plain` what came before. `behind` are
    the rules that hold in TLS. `fault`, if set, gets the connection where the handshake would be."""

    def __init__(self, certificate, wrapped=False, **rules):
        self.context = serving(certificate)
        self.wrapped = wrapped
        self.plain = []
        self.behind = {"EHLO": b"250-real.example\r\n250-SIZE 77\r\n250-CHUNKING\r\n250 8BITMIME\r\n"}
        self.injected = b""
        self.fault = None
        self.handshakes = 0
        super().__init__(**rules)

    def _serve(self, client):
        upgrade = []
        with client:
            if not self.wrapped:
                outer = copy.copy(self)
                outer.rules = dict({"STARTTLS": lambda line: upgrade.append(line)}, **self.rules)
                outer.lines = self.plain
                MailServer._serve(outer, client.dup())
                if not upgrade:
                    return
            try:
                if not self.wrapped:
                    client.sendall(b"220 go\r\n" + self.injected)
                if self.fault is not None:
                    self.fault(client)
                    return
                secured = self.context.wrap_socket(client, server_side=True)
            except OSError:
                return
            self.handshakes += 1
            inner = copy.copy(self)
            inner.rules = dict(self.rules, **self.behind)
            if not self.wrapped:
                inner.rules["GREETING"] = b""
            MailServer._serve(inner, secured)


class Tls(System):
    """start() begins a proxy with a log, in front of self.server."""

    @classmethod
    def setUpClass(cls):
        cls.authority = Authority()
        cls.certificate = cls.authority.issue("mail.pem")
        cls.addClassCleanup(cls.authority.close)

    def setUp(self):
        self.server = MailServer()
        self.proxy = None

    def start(self, keys, answer=None):
        """keys: below the interface, and with TLS/Mode the certificate where none is named."""
        if self.proxy is not None:
            self.scan.close()
            self.proxy.stop()
        keys = dict({"TLS/Certificate": self.certificate} if "TLS/Mode" in keys else {}, **keys)
        self.proxy = Proxy(self.server.port, {NET + "/" + key: value for key, value in keys.items()}, start=False)
        self.proxy.logger()
        self.proxy.start()
        self.scan = ScanDaemon(self.proxy.home, **({"answer": answer} if answer else {}))

    def client(self):
        client = TlsClient(self.proxy.port)
        self.addCleanup(client.close)
        return client

    def secured(self, version=None):
        client = self.client()
        client.start_tls(self.authority.trusting(version))
        return client

    def log(self):
        return self.proxy.log()

    def assert_logged(self, text):
        self.assertTrue(wait_until(lambda: text in self.log()), text + "\n" + self.log())

    def assert_closed(self, client):
        self.assertEqual(client.reply(), b"")

    def assert_nothing_left(self, before, seconds=10):
        """before: of at_rest(). The ways to the daemons may become one more when two want them at a time; what stays of
        each fault shows, for there are many."""
        def rests():
            descriptors, threads = self.at_rest()
            return descriptors <= before[0] + 4 and threads <= before[1]
        self.assertTrue(wait_until(rests, seconds), "%s, before %s" % (self.at_rest(), before))

    def at_rest(self):
        return self.proxy.descriptors(), self.proxy.threads()


def run(*words, text="", seconds=60):
    """The exit code and all that the program has said."""
    done = subprocess.run(words, input=text.encode(), stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=seconds, check=False)
    return done.returncode, done.stdout.decode("utf-8", "replace")


def talk(port, data, seconds=10):
    """Sends that, and gives all that comes until the end."""
    out = b""
    with socket.create_connection(("127.0.0.1", port), seconds) as s:
        s.sendall(data)
        try:
            while got := s.recv(4096):
                out += got
        except ConnectionError:
            pass
    return out
