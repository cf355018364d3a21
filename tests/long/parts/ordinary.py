"""An ordinary client beside a flood, in a process of its own; and how long it has to wait.

A program of its own: ordinary.py PORT MILLISECONDS [AUTHORITY]. Asks for an echo on a kept
connection and on a new one in turn, that long after each other, until its standard input ends; then
prints the waits in milliseconds as JSON. "served" comes first, when it has been once.
"""

import contextlib
import json
import pathlib
import select
import socket
import ssl
import subprocess
import sys
import time

LIMIT_SECONDS = 30
IDLE_SECONDS = 8
REQUEST = b"GET / HTTP/1.1\r\nHost: echo.local\r\n\r\n"
BODY = REQUEST[:-2] + b"\r\nYour IPv4 address is: 127.0.0.1"
ANSWER = (b"HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: %d\r\n\r\n" % len(BODY)
          + BODY)


def connect(port, context):
    plain = socket.create_connection(("127.0.0.1", port), LIMIT_SECONDS)
    plain.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return context.wrap_socket(plain, server_hostname="localhost") if context else plain


def ask(client):
    client.sendall(REQUEST)
    got = b""
    while len(got) < len(ANSWER):
        block = client.recv(1 << 16)
        assert block, ("closed", got)
        got += block
    assert got == ANSWER, got


def goes_on(seconds):
    return not select.select([sys.stdin], [], [], seconds)[0]


def main(port, milliseconds, authority=None):
    context = ssl.create_default_context(cafile=authority) if authority else None
    waits = {"kept": [], "new": []}
    with contextlib.ExitStack() as stack:
        kept = stack.enter_context(connect(port, context))
        ask(kept)
        start = time.monotonic()
        print("served", flush=True)
        while goes_on(milliseconds / 1000):
            # One that waited long for its turn is ended for having been idle.
            if time.monotonic() - start > IDLE_SECONDS:
                kept = stack.enter_context(connect(port, context))
            start = time.monotonic()
            ask(kept)
            waits["kept"].append(1000 * (time.monotonic() - start))
            start = time.monotonic()
            with connect(port, context) as fresh:
                ask(fresh)
            waits["new"].append(1000 * (time.monotonic() - start))
    print(json.dumps(waits))


class Ordinary:
    """The client as a process; finish() gives the figures."""

    def __init__(self, port, milliseconds=50, authority=None):
        words = ["/usr/bin/python3", "-B", pathlib.Path(__file__).resolve(), port, milliseconds]
        self._process = subprocess.Popen(
            list(map(str, [*words, authority] if authority else words)), stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self._process.stdout.readline()

    def finish(self):
        """Worst and median wait in milliseconds; fails where an answer was wrong or missing."""
        printed, errors = self._process.communicate(timeout=2 * LIMIT_SECONDS + 10)
        assert self._process.returncode == 0, errors[-1000:]
        figures = {}
        for kind, waits in json.loads(printed).items():
            waits.sort()
            assert waits, "the ordinary client was never served"
            figures[kind] = {"asked": len(waits), "median_ms": round(waits[len(waits) // 2], 2),
                             "worst_ms": round(waits[-1], 1)}
        return figures

    def close(self):
        self._process.kill()
        self._process.communicate()


if __name__ == "__main__":
    main(int(sys.argv[1]), float(sys.argv[2]), *sys.argv[3:])
