"""Sends records to vtstatd over its pipe for five seconds, on four connections, and prints how many it took."""

import socket
import struct
import sys
import threading
import time

COUNT = 4
SECONDS = 5


def record():
    out = struct.pack("<III", 0, 4, 0)
    out += struct.pack("<II", 0x4801, 100) + struct.pack("<II", 0x4101, 0x0100007F)
    for tag, text in ((0x1300, b"user@sender.example\0"), (0x4400, b"a@rcpt.example;b@rcpt.example\0")):
        out += struct.pack("<II", tag, len(text)) + text
    flat = struct.pack("<I", len(out) + 4) + out
    return b"VTIPC\0\0\0" + struct.pack("<III", len(flat), len(flat), 0) + flat


def send(path, sent, index):
    frame = record()
    with socket.socket(socket.AF_UNIX) as pipe:
        pipe.connect(path)
        end = time.monotonic() + SECONDS
        while time.monotonic() < end:
            pipe.sendall(frame)
            need = 35
            while need:
                need -= len(pipe.recv(need))
            sent[index] += 1


sent = [0] * COUNT
threads = [threading.Thread(target=send, args=(sys.argv[1], sent, i)) for i in range(COUNT)]
for thread in threads:
    thread.start()
for thread in threads:
    thread.join()
print("records received over the pipe: %d a second" % (sum(sent) / SECONDS))
