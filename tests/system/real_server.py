"""The packaged Postfix as a private instance on loopback: own configuration, queue and mailbox in a directory of its own.
Needs root; no other instance, and nothing below /etc/postfix or /var, is touched."""

import os
import pwd
import shutil
import socket
import subprocess
import tempfile

from harness import free_port, wait_until

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
retry unix - - n - - error
postlog unix-dgram n - n - 1 postlogd
"""


def available():
    return os.geteuid() == 0 and os.access(MASTER, os.X_OK)


class Postfix:
    def __init__(self, limit=0):
        self.dir = tempfile.mkdtemp(prefix="vantrel-postfix.")
        os.chmod(self.dir, 0o755)
        self.port = free_port()
        nobody = pwd.getpwnam("nobody")
        for name in ("etc", "queue", "data", "mail"):
            os.mkdir(os.path.join(self.dir, name))
        os.chown(self.dir + "/data", pwd.getpwnam("postfix").pw_uid, -1)
        os.chown(self.dir + "/mail", nobody.pw_uid, nobody.pw_gid)
        with open(self.dir + "/etc/main.cf", "w") as f:
            f.write(MAIN.format(dir=self.dir, uid=nobody.pw_uid, gid=nobody.pw_gid, limit=limit))
        with open(self.dir + "/etc/master.cf", "w") as f:
            f.write(SERVICES.format(port=self.port))
        subprocess.run(["postfix", "-c", self.dir + "/etc", "check"], check=True, capture_output=True)
        # A session of its own: it signals its whole process group when it ends.
        self.process = subprocess.Popen([MASTER, "-c", self.dir + "/etc", "-d"], start_new_session=True,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        assert wait_until(self._listening, 20), "Postfix does not listen"

    def _listening(self):
        try:
            socket.create_connection(("127.0.0.1", self.port), 1).close()
            return True
        except OSError:
            return False

    def delivered(self):
        folder = self.dir + "/mail/r/new"
        return sorted(os.path.join(folder, name) for name in os.listdir(folder)) if os.path.isdir(folder) else []

    def next_message(self, seconds=20):
        """The path of the one message in the mailbox, once it is there."""
        assert wait_until(lambda: len(self.delivered()) == 1, seconds), "no message in the mailbox"
        return self.delivered()[0]

    def close(self):
        self.process.terminate()
        self.process.wait(10)
        shutil.rmtree(self.dir, ignore_errors=True)
