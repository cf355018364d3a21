"""Mixed traffic for as long as wanted: every answer is checked, memory and descriptors watched."""

import asyncio
import contextlib
import csv
import hashlib
import os
import random
import socket
import statistics
import struct
import tempfile
import time

from parts import backend as bodies
from parts.plot import chart
from parts.stage import Backend, Watched, held_port
from support.authority import Authority
from support.texts import echo_answer

# Requests a second that are asked for; a busy machine gives fewer.
RATE = 900
PLAIN_CLIENTS, TLS_CLIENTS = 24, 24
SECONDS_BETWEEN_KILLS = 7
SECONDS_BETWEEN_QUIETS, QUIET_SECONDS = 10, 0.6
SECONDS_BETWEEN_RENEWALS = 65
# From then on memory and descriptors have to stay as they are.
SETTLED_SECONDS = 300
GROWTH_MAX_KIB, GROWTH_MAX_SHARE, DESCRIPTORS_MAX = 2048, 0.03, 12


class WrongBytes(Exception):
    pass


class Traffic:
    """What the clients share: the goal, the counts, and the gate that makes it quiet."""

    def __init__(self, deadline):
        self.deadline = deadline
        self.start = time.monotonic()
        self.open = asyncio.Event()
        self.open.set()
        self.requests = self.wrong = self.cut = 0
        self.kinds = {}
        self.faults = []

    @property
    def over(self):
        return time.monotonic() > self.deadline

    async def turn(self):
        """Wait while it is quiet, or while there has been more than the rate."""
        await self.open.wait()
        ahead = self.requests / RATE - (time.monotonic() - self.start)
        if ahead > 0:
            await asyncio.sleep(min(ahead, 0.05))

    def count(self, kind):
        self.requests += 1
        self.kinds[kind] = self.kinds.get(kind, 0) + 1


def request(host, path, *headers, version="HTTP/1.1"):
    lines = [f"GET {path} {version}", f"Host: {host}", *headers]
    return "".join(line + "\r\n" for line in lines).encode() + b"\r\n"


class Client:
    """One task: a way of use after the other, each on connections of its own."""

    def __init__(self, traffic, port, tls, seed):
        self._traffic, self._port, self._tls = traffic, port, tls
        self._random = random.Random(seed)
        self._ways = [(self.kept, 30), (self.fresh, 30), (self.large, 4), (self.upload, 6),
                      (self.abort, 8), (self.tunnel, 4), (self.echo, 6), (self.flaky, 12)]

    async def run(self):
        ways, weights = zip(*self._ways)
        while not self._traffic.over:
            way, = self._random.choices(ways, weights)
            await self._traffic.turn()
            try:
                await asyncio.wait_for(way(), 60)
            except WrongBytes as fault:
                self._traffic.wrong += 1
                self._traffic.faults.append(f"{way.__name__}: {fault}"[:300])
            except (OSError, asyncio.IncompleteReadError, asyncio.TimeoutError) as fault:
                # Only backends that die may cut an answer.
                if way != self.flaky:
                    self._traffic.cut += 1
                    self._traffic.faults.append(f"{way.__name__}: {fault!r}"[:300])

    @contextlib.asynccontextmanager
    async def _connection(self):
        reader, writer = await asyncio.open_connection(
            "127.0.0.1", self._port, ssl=self._tls, limit=1 << 20,
            server_hostname="localhost" if self._tls else None)
        writer.get_extra_info("socket").setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        try:
            yield reader, writer
        finally:
            writer.close()
            with contextlib.suppress(OSError, asyncio.TimeoutError):
                await asyncio.wait_for(writer.wait_closed(), 5)

    async def _answer(self, reader, expected):
        """The answer, checked block by block: what comes is always the beginning of it."""
        head = await reader.readuntil(b"\r\n\r\n")
        wanted = bodies.message(expected)
        if head != wanted[:len(head)] or len(head) + len(expected) != len(wanted):
            raise WrongBytes(head)
        running, left = hashlib.sha256(), len(expected)
        while left > 0:
            block = await reader.read(min(left, 1 << 18))
            if not block:
                raise asyncio.IncompleteReadError(b"", left)
            running.update(block)
            left -= len(block)
        if running.digest() != hashlib.sha256(expected).digest():
            raise WrongBytes(f"digest of {len(expected)} bytes")

    async def _get(self, reader, writer, length, host="app.local"):
        seed = self._random.randrange(32)
        writer.write(request(host, f"/{length}/{seed}"))
        await self._answer(reader, bodies.body(length, seed))

    async def kept(self):
        async with self._connection() as (reader, writer):
            for _ in range(self._random.randrange(5, 60)):
                await self._traffic.turn()
                await self._get(reader, writer, self._random.choice((0, 1, 100, 2000)))
                self._traffic.count("kept")

    async def fresh(self):
        async with self._connection() as (reader, writer):
            await self._get(reader, writer, 100)
            self._traffic.count("fresh")

    async def large(self):
        async with self._connection() as (reader, writer):
            await self._get(reader, writer, 1 << 20)
            self._traffic.count("large")

    async def upload(self):
        body = bodies.body(self._random.choice((1000, 70_000, 300_000)), 99)
        async with self._connection() as (reader, writer):
            writer.write(request("app.local", "/up", f"Content-Length: {len(body)}") + body)
            await writer.drain()
            await self._answer(reader, hashlib.sha256(body).hexdigest().encode())
            self._traffic.count("upload")

    async def abort(self):
        async with self._connection() as (reader, writer):
            writer.write(request("app.local", f"/{1 << 20}/1"))
            if self._random.random() < 0.7:
                await reader.readexactly(1000)
            if self._random.random() < 0.5:
                writer.get_extra_info("socket").setsockopt(
                    socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            writer.transport.abort()
            self._traffic.count("abort")

    async def tunnel(self):
        """WebSocket through the relay: HTTP/1.0 ends no request, so that all of it is a body."""
        key = b"dGhlIHNhbXBsZSBub25jZQ=="
        async with self._connection() as (reader, writer):
            writer.write(request("app.local", "/ws", "connection: Upgrade", "Upgrade: websocket",
                                 f"Sec-WebSocket-Key: {key.decode()}", "Sec-WebSocket-Version: 13",
                                 version="HTTP/1.0"))
            head = await reader.readuntil(b"\r\n\r\n")
            if bodies.accept_key(key) not in head:
                raise WrongBytes(head)
            for _ in range(20):
                await self._traffic.turn()
                payload = bodies.body(self._random.choice((0, 5, 125, 126, 5000)), 7)
                writer.write(bodies.frame(payload, self._random.randbytes(4)))
                if await bodies.read_frame(reader) != payload:
                    raise WrongBytes("frame")
                self._traffic.count("frame")

    async def echo(self):
        asked = request("echo.local", "/")
        answer = echo_answer(asked)
        async with self._connection() as (reader, writer):
            for _ in range(10):
                await self._traffic.turn()
                writer.write(asked)
                if await reader.readexactly(len(answer)) != answer:
                    raise WrongBytes("echo")
                self._traffic.count("echo")

    async def flaky(self):
        async with self._connection() as (reader, writer):
            for _ in range(20):
                await self._traffic.turn()
                await self._get(reader, writer, self._random.choice((100, 200_000)), "flaky.local")
                self._traffic.count("flaky")


async def kill_now_and_then(traffic, backend):
    while not traffic.over:
        await asyncio.sleep(SECONDS_BETWEEN_KILLS)
        backend.kill()
        await asyncio.sleep(0.3)
        await asyncio.to_thread(backend.start)


async def quieten_now_and_then(traffic):
    while not traffic.over:
        await asyncio.sleep(SECONDS_BETWEEN_QUIETS)
        traffic.open.clear()
        await asyncio.sleep(QUIET_SECONDS)
        traffic.open.set()


async def renew_now_and_then(traffic, authority, made):
    serial = 2
    while not traffic.over:
        await asyncio.sleep(SECONDS_BETWEEN_RENEWALS)
        await asyncio.to_thread(authority.renew, made, serial)
        serial += 1


async def sample(traffic, programs, rows):
    while not traffic.over:
        row = [round(time.monotonic() - traffic.start, 1), traffic.requests]
        for program in programs:
            row += [program.resident_kib(), program.descriptors()]
        rows.append(row)
        await asyncio.sleep(1)


async def load(traffic, programs, ports, trust, flaky, authority, made, rows):
    clients = [Client(traffic, ports[0], None, n).run() for n in range(PLAIN_CLIENTS)]
    clients += [Client(traffic, ports[1], trust, 1000 + n).run() for n in range(TLS_CLIENTS)]
    beside = [asyncio.create_task(task) for task in (
        kill_now_and_then(traffic, flaky), quieten_now_and_then(traffic),
        renew_now_and_then(traffic, authority, made), sample(traffic, programs, rows))]
    await asyncio.gather(*clients)
    for task in beside:
        task.cancel()
    for outcome in await asyncio.gather(*beside, return_exceptions=True):
        if isinstance(outcome, Exception):
            raise outcome


def flatness(rows, column, seconds):
    """The medians of the first and the last fifth of what comes behind the settling."""
    begin = min(SETTLED_SECONDS, seconds / 2)
    values = [row[column] for row in rows if row[0] >= begin]
    fifth = max(1, len(values) // 5)
    return statistics.median(values[:fifth]), statistics.median(values[-fifth:])


def verdict(rows, seconds):
    """What has grown, by name; empty when nothing has."""
    grown = {}
    for column, name in ((2, "plain memory, KiB"), (4, "TLS memory, KiB")):
        first, last = flatness(rows, column, seconds)
        if last > first + max(GROWTH_MAX_KIB, first * GROWTH_MAX_SHARE):
            grown[name] = [first, last]
    for column, name in ((3, "plain descriptors"), (5, "TLS descriptors")):
        first, last = flatness(rows, column, seconds)
        if last > first + DESCRIPTORS_MAX:
            grown[name] = [first, last]
    return grown


def soak(minutes, out):
    """Run it and return what was found; `ok` tells whether all of it is as it has to be."""
    seconds = minutes * 60
    with contextlib.ExitStack() as stack:
        def keep(resource):
            return stack.enter_context(contextlib.closing(resource))
        authority = Authority(stack.enter_context(tempfile.TemporaryDirectory()))
        made = authority.issue("soak")
        steady, flaky = keep(Backend()), keep(Backend())
        hosts = ["-map", "app.local", steady.port, "-map", "flaky.local", flaky.port,
                 "-map", "echo.local", -1]
        ports = [held_port(stack), held_port(stack)]
        plain = keep(Watched(ports[0], *hosts))
        tls = keep(Watched(0, "-ssl", ports[1], made.key, made.crt, *hosts))
        rows = []

        async def run():
            traffic = Traffic(time.monotonic() + seconds)
            await load(traffic, (plain, tls), ports, authority.trust(), flaky, authority, made, rows)
            return traffic

        traffic = asyncio.run(run())
        for program in (plain, tls):
            assert program.alive, "the program has ended"
            program.await_rest()
        renewals = tls.counted(b"Reloading certificate...\n")
        lines = {name: {line.decode("latin-1").strip(): count
                        for line, count in sorted(program.lines.items())}
                 for name, program in (("plain", plain), ("TLS", tls))}

    write_csv(out / "soak.csv", rows)
    write_charts(out / "soak.svg", rows)
    grown = verdict(rows, seconds)
    result = {
        "minutes": minutes, "requests": traffic.requests, "kinds": traffic.kinds,
        "wrong": traffic.wrong, "cut": traffic.cut, "faults": traffic.faults[:20],
        "renewals": renewals, "renewals_min": int(seconds // (2 * SECONDS_BETWEEN_RENEWALS)),
        "grown": grown, "lines": lines,
        "memory_kib": {name: flatness(rows, column, seconds)
                       for name, column in (("plain", 2), ("TLS", 4))},
        "descriptors": {name: flatness(rows, column, seconds)
                        for name, column in (("plain", 3), ("TLS", 5))},
    }
    result["ok"] = (not grown and traffic.wrong == traffic.cut == 0 and traffic.requests > 0
                    and renewals >= result["renewals_min"])
    return result


def write_csv(path, rows):
    with open(path, "w", newline="") as file:
        writer = csv.writer(file)
        writer.writerow(["second", "requests", "plain_resident_kib", "plain_descriptors",
                         "tls_resident_kib", "tls_descriptors"])
        writer.writerows(rows)


def write_charts(path, rows):
    minutes = [row[0] / 60 for row in rows]
    path.write_text(chart(
        "minutes", minutes,
        [("resident memory, MiB", [("plain", [row[2] / 1024 for row in rows]),
                                   ("TLS", [row[4] / 1024 for row in rows])]),
         ("descriptors", [("plain", [row[3] for row in rows]), ("TLS", [row[5] for row in rows])]),
         ("requests so far", [("all", [row[1] for row in rows])])]))


def raise_limits():
    import resource
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    return os.sysconf("SC_OPEN_MAX")
