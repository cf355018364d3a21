"""Peers that ask for much or send it badly, with an ordinary client beside each of them."""

import contextlib
import os
import pathlib
import re
import selectors
import socket
import struct
import subprocess
import tempfile
import time

from parts.ordinary import Ordinary
from parts.stage import Backend, Watched, held_port
from support.authority import Authority
from support.raw import get
from support.texts import echo_answer

RESET = struct.pack("ii", 1, 0)
MIB = 1 << 20
# What the slow readers leave in memory is all of their answers.
SLOW_READERS, SLOW_ANSWER = 200, 20 * MIB
FAST_BYTES = 2048 * MIB
WORST_MS = 30_000


def slow_test(mode, *options):
    """slowhttptest with 1,000 connections for 20 seconds."""
    def flood(port, _):
        command = ["slowhttptest", mode, "-c", "1000", "-r", "200", "-l", "20", "-i", "5", "-p", "10",
                   *options, "-u", f"http://127.0.0.1:{port}/{MIB}/1"]
        done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=120)
        words = re.sub(r"\x1b\[[0-9;]*m", "", done.stdout)
        return {"exit_status": done.returncode,
                "service_available": re.findall(r"service available:\s*(\w+)", words)[-1:]}
    return flood


def connection(port):
    return socket.create_connection(("127.0.0.1", port), 30)


def opened_and_reset(port, _):
    """20,000 connections, 100 at a time, each reset as soon as it stands; half of them ask first."""
    opened = refused = 0
    with selectors.DefaultSelector() as selector:
        while opened < 20_000 or selector.get_map():
            while opened < 20_000 and len(selector.get_map()) < 100:
                client = socket.socket()
                client.setblocking(False)
                client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET)
                client.connect_ex(("127.0.0.1", port))
                selector.register(client, selectors.EVENT_WRITE)
                opened += 1
            for key, _ in selector.select(30):
                selector.unregister(key.fileobj)
                with key.fileobj as client:
                    refused += client.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR) != 0
                    with contextlib.suppress(OSError):
                        if key.fd % 2:
                            client.sendall(get("app.local", "/1/1"))
    return {"connections": opened, "refused": refused}


def idle(port, _):
    """5,000 connections that never send anything; the program ends them when their time is over."""
    clients = []
    try:
        for _ in range(5000):
            clients.append(connection(port))
        start = time.monotonic()
        for client in clients:
            client.settimeout(40)
            assert client.recv(1) == b""
        return {"connections": len(clients), "ended_after_s": round(time.monotonic() - start, 1)}
    finally:
        for client in clients:
            client.close()


def dripped_head(port, _):
    """A head that takes a minute, a byte at a time, and is answered like any other."""
    seconds, pause = 60, 0.02
    request = get("echo.local", "/", "X-Long: " + "x" * int(seconds / pause))
    with connection(port) as client:
        client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        start = time.monotonic()
        for number in range(len(request)):
            client.sendall(request[number:number + 1])
            time.sleep(max(0, start + (number + 1) * pause - time.monotonic()))
        expected, got = echo_answer(request), b""
        while len(got) < len(expected):
            block = client.recv(MIB)
            assert block, got[:100]
            got += block
        assert got == expected
        return {"bytes": len(request), "seconds": round(time.monotonic() - start)}


def slow_readers(port, program):
    """200 clients that take a large answer by the kilobyte."""
    with contextlib.ExitStack() as stack, selectors.DefaultSelector() as selector:
        clients = []
        for _ in range(SLOW_READERS):
            client = stack.enter_context(socket.socket())
            client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            client.connect(("127.0.0.1", port))
            client.sendall(get("app.local", f"/{SLOW_ANSWER}/1"))
            clients.append(client)
            selector.register(client, selectors.EVENT_READ)
        most = taken = 0
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline:
            for key, _ in selector.select(0.1):
                taken += len(key.fileobj.recv(1024))
            most = max(most, program.resident_kib())
            time.sleep(0.1)
    return {"connections": SLOW_READERS, "answer_bytes": SLOW_ANSWER, "taken_bytes": taken,
            "memory_at_most_mib": most // 1024}


def garbage(port, _):
    """2,000 clients of the TLS port that send noise, and some the beginning of a greeting.

    Spread over ten seconds. No more: a session that has failed stays until its time-out, and those of
    a faster flood would use up the descriptors.
    """
    with open("/dev/urandom", "rb", buffering=0) as source:
        for number in range(2000):
            with contextlib.suppress(ConnectionError), connection(port) as client:
                client.sendall((b"\x16\x03\x01" if number % 4 == 0 else b"") + source.read(10_000))
                if number % 2:
                    client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET)
            time.sleep(0.005)
    return {"connections": 2000}


def fast_upload(port, _):
    """One body as fast as it goes, far past the limit of a request: read and dropped."""
    block = bytes(8 * MIB)
    with connection(port) as client:
        client.sendall(get("echo.local", "/", f"Content-Length: {FAST_BYTES}"))
        start = time.monotonic()
        for _ in range(FAST_BYTES // len(block)):
            client.sendall(block)
        seconds = time.monotonic() - start
        client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET)
    return {"mib": FAST_BYTES // MIB, "mib_a_second": round(FAST_BYTES / MIB / seconds)}


def fast_relayed_upload(port, _):
    """Bodies of 96 MiB, as fast as they go, to a backend that counts them."""
    body = bytes(96 * MIB)
    start = time.monotonic()
    with connection(port) as client:
        for _ in range(10):
            client.sendall(get("app.local", "/up", f"Content-Length: {len(body)}"))
            client.sendall(body)
            assert b"200 OK" in client.recv(MIB)
    return {"mib": 960, "mib_a_second": round(960 / (time.monotonic() - start))}


def fast_backend(port, _):
    """Answers of 256 MiB, taken as fast as they come."""
    length, taken = 256 * MIB, 0
    start = time.monotonic()
    with connection(port) as client:
        for _ in range(4):
            client.sendall(get("app.local", f"/{length}/2"))
            end = taken + length
            while taken < end:
                block = client.recv(MIB)
                assert block
                taken += len(block)
    return {"mib": taken // MIB, "mib_a_second": round(taken / MIB / (time.monotonic() - start))}


# Name, what floods, whether the TLS port, and how often the ordinary client asks (milliseconds).
FLOODS = [
    ("slow heads", slow_test("-H"), False, 50),
    ("slow bodies", slow_test("-B"), False, 50),
    ("slow reading", slow_test("-X", "-w", "512", "-y", "1024", "-z", "32", "-k", "3"), False, 50),
    ("opened and reset", opened_and_reset, False, 50),
    ("idle", idle, False, 50),
    ("a dripped head", dripped_head, False, 50),
    ("slow readers", slow_readers, False, 50),
    ("garbage to TLS", garbage, True, 50),
    ("a fast body, dropped", fast_upload, False, 5),
    ("a fast body, relayed", fast_relayed_upload, False, 5),
    ("a fast backend", fast_backend, False, 5),
]


def available_mib():
    text = pathlib.Path("/proc/meminfo").read_text()
    return int(text.partition("MemAvailable:")[2].split()[0]) // 1024


def floods(only=None):
    """Run each and return the figures by name; each fails by an exception."""
    needed = 2 * SLOW_READERS * SLOW_ANSWER // MIB
    assert available_mib() > needed, f"the slow readers need {needed} MiB of free memory"
    results = {}
    with contextlib.ExitStack() as stack:
        authority = Authority(stack.enter_context(tempfile.TemporaryDirectory()))
        made = authority.issue("floods")
        backend = stack.enter_context(contextlib.closing(Backend()))
        ports = [held_port(stack), held_port(stack)]
        hosts = ["-map", "app.local", backend.port, "-map", "echo.local", -1,
                 "-map", f"127.0.0.1:{ports[0]}", backend.port]
        programs = [stack.enter_context(contextlib.closing(Watched(ports[0], *hosts))),
                    stack.enter_context(contextlib.closing(
                        Watched(0, "-ssl", ports[1], made.key, made.crt, *hosts)))]
        for name, flood, tls, milliseconds in FLOODS:
            if only and name not in only:
                continue
            program, port = programs[tls], ports[tls]
            before = program.processor_seconds()
            ordinary = Ordinary(port, milliseconds, authority.crt if tls else None)
            with contextlib.closing(ordinary):
                figures = flood(port, program)
                try:
                    figures["ordinary"] = ordinary.finish()
                except AssertionError as fault:
                    raise AssertionError(name, figures, program.lines) from fault
            assert program.alive, "the program has ended"
            program.await_rest(60)
            figures["processor_s"] = round(program.processor_seconds() - before, 2)
            # Pages of what has been passed on go back within two seconds.
            time.sleep(3)
            figures["memory_afterwards_mib"] = program.resident_kib() // 1024
            for kind, waits in figures["ordinary"].items():
                assert waits["worst_ms"] < WORST_MS, (name, kind, waits)
            results[name] = figures
            print(f"  {name}: {figures}", flush=True)
        assert os.path.exists(f"/proc/{programs[0].pid}")
    return results


def table(results):
    """The rows of the table in docs/testing.md."""
    rows = []
    for name, figures in results.items():
        cells = [name]
        for kind in ("kept", "new"):
            waits = figures["ordinary"][kind]
            cells += [f"{waits['median_ms']}", f"{waits['worst_ms']}"]
        rows.append("| " + " | ".join([*cells, f"{figures['processor_s']} s"]) + " |\n")
    return "".join(rows)
