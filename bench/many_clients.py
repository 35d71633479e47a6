"""Many clients in one thread: `open` measures what sessions cost that only are there, `slow` keeps sessions that send a byte
a second; and a sink whose sessions cost the same however many there are, which smtp-sink's don't. Used by bench/many.

  many_clients.py open PORT COUNT PID    PID: the process whose memory counts, 0: none
  many_clients.py slow PORT COUNT        says "ready" when all are in their message; ends when its input does
  many_clients.py sink PORT"""

import select
import socket
import statistics
import sys
import time

AT_ONCE = 256  # on their way: below what a listener's backlog takes, so that no attempt is dropped
EHLO = (b"220", b"EHLO many.example\r\n")
UP_TO_TEXT = (EHLO, (b"250", b"MAIL FROM:<slow@example.org>\r\n"), (b"250", b"RCPT TO:<b@example.org>\r\n"), (b"250", b"DATA\r\n"))


def whole(text):
    """Whether it ends with a reply's last line."""
    return text.endswith(b"\n") and text[text.rfind(b"\n", 0, -1) + 1:][3:4] == b" "


def open_sessions(port, count, steps, last):
    """The sockets, each led through the steps up to the reply `last`."""
    poll, under_way, held = select.epoll(), {}, []
    begun = 0
    while len(held) < count:
        while begun < count and len(under_way) < AT_ONCE:
            s = socket.socket()
            s.setblocking(False)
            s.connect_ex(("127.0.0.1", port))
            poll.register(s, select.EPOLLIN)
            under_way[s.fileno()] = [s, 0, b""]
            begun += 1
        ready = poll.poll(20)
        if not ready:
            sys.exit("%d of %d sessions are open, and no reply comes" % (len(held), count))
        for number, _ in ready:
            session = under_way[number]
            data = session[0].recv(4096)
            session[2] += data
            if not data:
                sys.exit("session %d: closed behind %r" % (len(held), session[2]))
            if not whole(session[2]):
                continue
            code, text = steps[session[1]] if session[1] < len(steps) else (last, b"")
            if not session[2].startswith(code):
                sys.exit("session %d: %r" % (len(held), session[2]))
            session[1:] = session[1] + 1, b""
            if text:
                session[0].send(text)
                continue
            poll.unregister(number)
            held.append(under_way.pop(number)[0])
    return held


def message_time(port, times=100):
    """Median and slowest of the milliseconds from the connection to the end of QUIT."""
    taken = []
    for _ in range(times):
        begin = time.perf_counter()
        with socket.create_connection(("127.0.0.1", port), 20) as s, s.makefile("rb") as stream:
            for text in (b"", EHLO[1], b"MAIL FROM:<a@example.org>\r\n", b"RCPT TO:<b@example.org>\r\n", b"DATA\r\n",
                         b"Subject: one\r\n\r\n" + (b"x" * 76 + b"\r\n") * 50 + b".\r\n", b"QUIT\r\n"):
                s.sendall(text)
                while (line := stream.readline())[3:4] == b"-":
                    pass
                assert line[:1] in (b"2", b"3"), line
        taken.append(1000 * (time.perf_counter() - begin))
    return statistics.median(taken), max(taken)


def resident(pid):
    if pid == 0:
        return 0
    with open("/proc/%d/status" % pid, encoding="ascii") as file:
        return next(int(line.split()[1]) for line in file if line.startswith("VmRSS"))


def main_sink(port):
    listener, poll, sessions = socket.create_server(("127.0.0.1", port), backlog=4096), select.epoll(), {}
    listener.setblocking(False)
    poll.register(listener, select.EPOLLIN)
    replies = {b"EHLO": b"250-sink.example\r\n250 8BITMIME\r\n", b"DATA": b"354 go on\r\n", b"QUIT": b"221 bye\r\n"}
    while True:
        for number, _ in poll.poll():
            if number == listener.fileno():
                s = listener.accept()[0]
                s.setblocking(False)
                s.send(b"220 sink.example ESMTP\r\n")
                poll.register(s, select.EPOLLIN)
                sessions[s.fileno()] = [s, b"", b"\r\n"]  # what has come, and what it is to end with
                continue
            session = sessions[number]
            try:
                data = session[0].recv(65536)
            except ConnectionError:
                data = b""
            session[1] += data
            if not data:
                sessions.pop(number)[0].close()
            elif session[1].endswith(session[2]):
                verb = session[1][:4].upper() if session[2] == b"\r\n" else b""
                session[1:] = b"", b"\r\n.\r\n" if verb == b"DATA" else b"\r\n"
                session[0].send(replies.get(verb, b"250 ok\r\n"))


def main_open(port, count, pid):
    message_time(port)
    alone, before = message_time(port), resident(pid)
    begin = time.perf_counter()
    held = open_sessions(port, count, [EHLO], b"250")
    seconds = time.perf_counter() - begin
    memory = ", %.1f KiB a session" % ((resident(pid) - before) / count) if pid else ""
    message_time(port)  # what the opening has left to be done is done with
    beside = message_time(port)
    print("%d sessions open in %.2f s%s; a message alone %.2f ms (at most %.2f), beside them %.2f ms (at most %.2f)" % (
        len(held), seconds, memory, *alone, *beside))


def main_slow(port, count):
    held = open_sessions(port, count, UP_TO_TEXT, b"354")
    print("ready", flush=True)
    stop = select.poll()
    stop.register(sys.stdin, select.POLLIN | select.POLLHUP)
    due = time.monotonic()
    while True:
        for number, s in enumerate(held):  # spread over the second
            due += 1 / count
            if number % 50 == 0 and stop.poll(max(0, 1000 * (due - time.monotonic()))):
                return
            s.send(b"\n" if int(due) % 70 == 0 else b"x")


if __name__ == "__main__":
    {"open": main_open, "slow": main_slow, "sink": main_sink}[sys.argv[1]](*map(int, sys.argv[2:]))
