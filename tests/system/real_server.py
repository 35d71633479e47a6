"""The packaged Postfix and Exim as private instances on loopback: own configuration, queue, log and mailbox in a directory
of their own, which goes with them. Each trusts its clients on loopback, takes example.org for its own and delivers that
into a Maildir. Needs root; no other instance, and nothing below /etc or /var, is touched."""

import os
import pwd
import re
import shutil
import socket
import subprocess
import tempfile

from harness import free_port, wait_until

EXIM = os.environ.get("VANTREL_TOOLS", "/var/cache/vantrel-tools") + "/exim/usr/sbin/exim4"
EXIM_USER = "Debian-exim"
MASTER = "/usr/lib/postfix/sbin/master"
MAIN = """compatibility_level = 3.6
queue_directory = {dir}/queue
data_directory = {dir}/data
command_directory = /usr/sbin
daemon_directory = /usr/lib/postfix/sbin
mail_owner = postfix
setgid_group = postdrop
maillog_file = {dir}/log
maillog_file_prefixes = {dir}
inet_interfaces = 127.0.0.1
inet_protocols = ipv4
mynetworks = 127.0.0.0/8
myhostname = real.example
mydestination =
alias_maps =
local_header_rewrite_clients =
virtual_mailbox_domains = example.org
virtual_mailbox_base = {dir}/mail
virtual_mailbox_maps = static:r/
virtual_uid_maps = static:{uid}
virtual_gid_maps = static:{gid}
message_size_limit = {limit}
virtual_mailbox_limit = 0
mailbox_size_limit = 0
"""
SERVICES = """127.0.0.1:{port} inet n - n - - smtpd
cleanup unix n - n - 0 cleanup
qmgr unix n - n 300 1 qmgr
rewrite unix - - n - - trivial-rewrite
bounce unix - - n - 0 bounce
defer unix - - n - 0 bounce
trace unix - - n - 0 bounce
proxymap unix - n n - - proxymap
anvil unix - - n - 1 anvil
virtual unix - n n - - virtual
error unix - - n - - error
discard unix - - n - - discard
retry unix - - n - - error
postlog unix-dgram n - n - 1 postlogd
"""

# Everything that isn't said here is Exim's default, its limits among them. A recipient elsewhere is logged as routed by
# "elsewhere" and thrown away: nothing leaves the machine.
EXIM_CONFIGURATION = """primary_hostname = real.example
qualify_domain = example.org
domainlist ours = example.org
hostlist relay_from_hosts = 127.0.0.1
local_interfaces = 127.0.0.1
daemon_smtp_ports = {port}
spool_directory = {dir}/queue
log_file_path = {dir}/log-%s
pid_file_path = {dir}/pid
keep_environment =
deliver_drop_privilege = true
tls_advertise_hosts =
message_size_limit = {limit}
acl_smtp_rcpt = recipient
{settings}
begin acl
recipient:
  accept hosts = +relay_from_hosts
    message = {accepted}
begin routers
ours:
  driver = accept
  domains = +ours
  transport = mailbox
elsewhere:
  driver = accept
  transport = nowhere
begin transports
mailbox:
  driver = appendfile
  directory = {dir}/mail
  maildir_format
  batch_max = 100
nowhere:
  driver = appendfile
  file = /dev/null
"""


def available():
    return os.geteuid() == 0 and os.access(MASTER, os.X_OK)


def exim_available():
    return os.geteuid() == 0 and os.access(EXIM, os.X_OK)


class RealServer:
    """What the servers have in common: port, dir, the Maildir `mailbox`, the log file `log`."""

    def __init__(self, name):
        self.dir = tempfile.mkdtemp(prefix="vantrel-%s." % name)
        os.chmod(self.dir, 0o755)
        self.port = free_port()

    def start(self, command, **options):
        # A session of its own: it signals its whole process group when it ends.
        self.process = subprocess.Popen(command, start_new_session=True, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL, **options)
        assert wait_until(self._listening, 20), command[0] + " does not listen"

    def _listening(self):
        try:
            socket.create_connection(("127.0.0.1", self.port), 1).close()
            return True
        except OSError:
            return False

    def logged(self):
        """All that the server has logged so far."""
        if not os.path.exists(self.log):
            return ""
        with open(self.log, encoding="utf-8", errors="replace") as f:
            return f.read()

    def delivered(self):
        folder = self.mailbox + "/new"
        return sorted(os.path.join(folder, name) for name in os.listdir(folder)) if os.path.isdir(folder) else []

    def next_message(self, seconds=20):
        """The path of the one message in the mailbox, once it is there."""
        assert wait_until(lambda: len(self.delivered()) == 1, seconds), "no message in the mailbox"
        return self.delivered()[0]

    def close(self):
        self.process.terminate()
        self.process.wait(10)
        shutil.rmtree(self.dir, ignore_errors=True)


class Exim(RealServer):
    """settings: further lines of the main configuration; accepted: what a recipient that is taken is answered."""

    def __init__(self, limit=0, settings="", accepted="Accepted"):
        super().__init__("exim")
        self.mailbox = self.dir + "/mail"
        self.log = self.dir + "/log-main"
        user = pwd.getpwnam(EXIM_USER)
        with open(self.dir + "/configuration", "w") as f:
            f.write(EXIM_CONFIGURATION.format(dir=self.dir, port=self.port, limit=limit, settings=settings, accepted=accepted))
        os.chown(self.dir, user.pw_uid, user.pw_gid)
        # All of it runs as that user, so it needs no other one's rights.
        self.start([EXIM, "-C", self.dir + "/configuration", "-bdf"], user=user.pw_uid, group=user.pw_gid, extra_groups=[])


class Postfix(RealServer):
    """settings: parameters of main.cf, which may replace those above; services: further lines of master.cf."""

    def __init__(self, limit=0, settings=None, services=""):
        super().__init__("postfix")
        self.mailbox = self.dir + "/mail/r"
        self.log = self.dir + "/log"
        nobody = pwd.getpwnam("nobody")
        for name in ("etc", "queue", "data", "mail"):
            os.mkdir(os.path.join(self.dir, name))
        os.chown(self.dir + "/data", pwd.getpwnam("postfix").pw_uid, -1)
        os.chown(self.dir + "/mail", nobody.pw_uid, nobody.pw_gid)
        text = MAIN.format(dir=self.dir, uid=nobody.pw_uid, gid=nobody.pw_gid, limit=limit)
        parameters = dict(re.split(" *= *", line, maxsplit=1) for line in text.splitlines())
        parameters.update(settings or {})
        with open(self.dir + "/etc/main.cf", "w") as f:
            f.write("".join("%s = %s\n" % each for each in parameters.items()))
        with open(self.dir + "/etc/master.cf", "w") as f:
            f.write(SERVICES.format(port=self.port) + services)
        subprocess.run(["postfix", "-c", self.dir + "/etc", "check"], check=True, capture_output=True)
        self.start([MASTER, "-c", self.dir + "/etc", "-d"])
