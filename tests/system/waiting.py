"""Ports, and waits until something is so."""

import socket
import time


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_until(check, seconds=10):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        if check():
            return True
        time.sleep(0.01)
    return False


def listens(port):
    """Whether somebody does, on 127.0.0.1: found out without a connection, which would count as one."""
    with open("/proc/net/tcp", encoding="ascii") as table:
        return any(line.split()[1] == "0100007F:%04X" % port and line.split()[3] == "0A" for line in table)


def serves(path):
    """Whether somebody listens on a socket in the file system: its name is there before that, and may be there afterwards."""
    with socket.socket(socket.AF_UNIX) as probe:
        return probe.connect_ex(path) == 0
