"""Three machines behind one that spreads connections, all of them network namespaces.

Everything happens below one process with namespaces of its own for the network, process numbers
and mounts. The kernel takes all of it away when that process ends, however it ends; nothing is left
for anybody to tidy up, and no packet leaves it.

                    clients 198.51.100.10 to .29
                       |
                    front   198.51.100.1     vindra-balance
                       |    198.51.100.129
       +---------------+---------------+
    machine1        machine2        machine3      vindra and a service
    .131            .132            .133
"""

import asyncio
import collections
import contextlib
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import threading
import time
from typing import NamedTuple, Optional

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[2]
BALANCE = ROOT / "packaging" / "examples" / "vindra-balance"
SECONDS_MAX = 300

NETWORK = "198.51.100"
FRONT = f"{NETWORK}.1"
ADDRESSES = {name: f"{NETWORK}.{last}" for name, last in (
    ("machine1", 131), ("machine2", 132), ("machine3", 133))}
CLIENTS = [f"{NETWORK}.{last}" for last in range(10, 30)]
HOST, SERVICE_PORT = "app.local", 3000

NEW_A_SECOND, KEPT, KEPT_PAUSE = 250, 60, 0.1
PATIENCE_SECONDS = 2
# What a machine may get more or less than its share.
UNEVEN_MAX = 0.10
ROUNDS = 3


def in_namespaces():
    """What becomes the command behind it, as the first process of its own namespaces."""
    return ["setpriv", "--pdeathsig", "KILL",
            "unshare", *([] if os.geteuid() == 0 else ["--user", "--map-root-user"]),
            "--net", "--pid", "--fork", "--kill-child", "--mount-proc"]


def machines(out):
    """Play it; the figures, with a table for the documentation in `out`. Fails by an exception."""
    command = [*in_namespaces(), "/usr/bin/python3", "-B", str(HERE / "machines.py")]
    with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          text=True) as stage:
        try:
            printed, _ = stage.communicate(timeout=SECONDS_MAX)
        finally:
            # unshare itself takes no notice of anything milder, and ends its child with it.
            stage.kill()
    assert stage.returncode == 0, f"status {stage.returncode}"
    results = json.loads(printed)
    (out / "machines.md").write_text(table(results))
    return results


# The network.


def sh(*words):
    subprocess.run(list(map(str, words)), check=True, stdin=subprocess.DEVNULL)


def inside(name):
    return ["ip", "netns", "exec", name]


def build_network():
    # Names of namespaces are files; this hides everybody else's, and ours from them.
    sh("mount", "-t", "tmpfs", "none", "/run")
    sh("ip", "link", "set", "lo", "up")
    for name in ("front", *ADDRESSES):
        sh("ip", "netns", "add", name)
        sh("ip", "-n", name, "link", "set", "lo", "up")
    sh("ip", "link", "add", "outside", "type", "veth", "peer", "name", "outside", "netns", "front")
    for address in CLIENTS:
        sh("ip", "address", "add", f"{address}/25", "dev", "outside")
    sh("ip", "link", "set", "outside", "up")
    sh("ip", "route", "add", f"{NETWORK}.128/25", "via", FRONT)
    sh("ip", "-n", "front", "link", "add", "inside", "type", "bridge")
    for device, address in (("outside", FRONT), ("inside", f"{NETWORK}.129")):
        sh("ip", "-n", "front", "address", "add", f"{address}/25", "dev", device)
        sh("ip", "-n", "front", "link", "set", device, "up")
    sh(*inside("front"), "sh", "-c", "echo 1 >/proc/sys/net/ipv4/ip_forward")
    for name, address in ADDRESSES.items():
        sh("ip", "-n", "front", "link", "add", name, "type", "veth", "peer", "name", "uplink",
           "netns", name)
        sh("ip", "-n", "front", "link", "set", name, "master", "inside", "up")
        sh("ip", "-n", name, "address", "add", f"{address}/25", "dev", "uplink")
        sh("ip", "-n", name, "link", "set", "uplink", "up")
        sh("ip", "-n", name, "route", "add", "default", "via", f"{NETWORK}.129")


class Machine:
    """The program and its service in the namespace `name`."""

    def __init__(self, name):
        self.name, self.address = name, ADDRESSES[name]
        self._service = subprocess.Popen(
            [*inside(name), "/usr/bin/python3", "-B", HERE / "named_service.py", name,
             str(SERVICE_PORT)], stdin=subprocess.DEVNULL)
        self.start()

    def start(self):
        self.program = self.another()

    def another(self):
        from parts.stage import Watched
        return Watched(80, "-map", HOST, SERVICE_PORT, wrapper=inside(self.name))

    def link(self, state):
        sh("ip", "-n", "front", "link", "set", self.name, state)

    def close(self):
        if self.program.alive:
            self.program.close()
        self._service.kill()
        self._service.wait()


class Front:
    """The script of the documentation in the namespace in front, told by a file what to use."""

    def __init__(self, folder):
        self._file = pathlib.Path(folder) / "machines"
        self.use(ADDRESSES)
        self.lines = []
        self._process = subprocess.Popen(
            [*inside("front"), BALANCE, FRONT, f"http://{HOST}/", self._file],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        for line in self._process.stdout:
            self.lines.append((time.monotonic(), line.split()[2:]))

    def use(self, names):
        fresh = self._file.with_suffix(".new")
        fresh.write_text("".join(f"{ADDRESSES[name]}\n" for name in names))
        fresh.rename(self._file)

    async def await_spread(self, names, seconds=30):
        """Until the rules are those for `names`; when they became so."""
        wanted = [ADDRESSES[name] for name in names]

        def spread():
            assert self._process.poll() is None, "vindra-balance has ended"
            return self.lines and self.lines[-1][1] == wanted
        await until(spread, f"spread over {wanted}, not {self.lines[-1:]}", seconds)
        return self.lines[-1][0]

    def close(self):
        self._process.terminate()
        self._process.wait()
        self._reader.join()
        self._process.stdout.close()


# The clients.


async def until(condition, what, seconds=30):
    deadline = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < deadline, f"waited {seconds} s in vain for {what}"
        await asyncio.sleep(0.005)


class Exchange(NamedTuple):
    start: float
    kind: str
    # None when there was no answer.
    machine: Optional[str]


LOST = (OSError, asyncio.IncompleteReadError)


class Connection:
    """A client's, from an address of its own choice."""

    def __init__(self, source, reader, writer):
        self._source, self._reader, self._writer = source, reader, writer
        self.machine = None

    @classmethod
    async def open(cls, source, target):
        return cls(source, *await asyncio.open_connection(target, 80, local_addr=(source, 0)))

    async def ask(self, path="/"):
        """Which machine answers. Anything but the documented answer is an error of the run."""
        self._writer.write(f"GET {path} HTTP/1.1\r\nHost: {HOST}\r\n\r\n".encode())
        head = await self._reader.readuntil(b"\r\n\r\n")
        assert head.startswith(b"HTTP/1.1 200 OK\r\n"), head
        body = json.loads(await self._reader.readexactly(int(head.split(b": ")[1])))
        assert body["for"] == self._source, f"X-Forwarded-For {body['for']} for {self._source}"
        self.machine = body["machine"]
        return self.machine

    def close(self):
        self._writer.transport.abort()


class Traffic:
    """New connections at a fixed rate with one request each, and kept ones beside them."""

    def __init__(self):
        self.exchanges = []
        self.kept = {}
        self._moving = set()
        self._tasks = set()
        self._fault = None
        self._spawn(self._arrivals())
        for number in range(KEPT):
            self._spawn(self._keep(number))

    def _spawn(self, work):
        task = asyncio.create_task(work)
        self._tasks.add(task)
        task.add_done_callback(self._done)

    def _done(self, task):
        self._tasks.discard(task)
        if not task.cancelled() and task.exception() and not self._fault:
            self._fault = task.exception()

    def check(self):
        if self._fault:
            raise self._fault

    def note(self, start, kind, machine):
        self.exchanges.append(Exchange(start, kind, machine))

    async def _arrivals(self):
        begin, number = time.monotonic(), 0
        while True:
            await asyncio.sleep(max(0, begin + number / NEW_A_SECOND - time.monotonic()))
            self._spawn(self._one(CLIENTS[number % len(CLIENTS)]))
            number += 1

    async def _one(self, source, path="/", kind="new"):
        start, machine = time.monotonic(), None

        with contextlib.suppress(*LOST):
            async with asyncio.timeout(PATIENCE_SECONDS + (path != "/") * 8):
                with contextlib.closing(await Connection.open(source, FRONT)) as connection:
                    machine = await connection.ask(path)
        self.note(start, kind, machine)

    def slow(self, count):
        for number in range(count):
            self._spawn(self._one(CLIENTS[number % len(CLIENTS)], "/slow", "slow"))

    def move(self):
        """Have every kept connection closed behind its next answer, and another opened."""
        self._moving = set(range(KEPT))

    async def _keep(self, number):
        source = CLIENTS[number % len(CLIENTS)]
        while True:
            start, connection = time.monotonic(), None
            try:
                async with asyncio.timeout(PATIENCE_SECONDS):
                    connection = await Connection.open(source, FRONT)
                while True:
                    async with asyncio.timeout(PATIENCE_SECONDS):
                        machine = await connection.ask()
                    # The first answer is that of a new connection, and not counted.
                    if self.kept.get(number) is connection:
                        self.note(start, "kept", machine)
                    self.kept[number] = connection
                    if number in self._moving:
                        self._moving.discard(number)
                        break
                    await asyncio.sleep(KEPT_PAUSE)
                    start = time.monotonic()
            except LOST:
                if connection and self.kept.get(number) is connection:
                    self.note(start, "kept", None)
                await asyncio.sleep(KEPT_PAUSE)
            finally:
                self.kept.pop(number, None)
                if connection:
                    connection.close()

    def of(self, kind, begin, end=float("inf")):
        return [one for one in self.exchanges if one.kind == kind and begin <= one.start < end]

    async def await_new(self, count, begin):
        """Until so many new connections begun since then are answered or lost."""
        def enough():
            self.check()
            return len(self.of("new", begin)) >= count
        await until(enough, f"{count} new connections", 60)

    async def await_kept(self):
        def whole():
            self.check()
            return len(self.kept) == KEPT
        await until(whole, "all kept connections")

    async def close(self):
        for task in list(self._tasks):
            task.cancel()
        await asyncio.gather(*self._tasks, return_exceptions=True)
        self.check()


def lost(exchanges):
    return sum(one.machine is None for one in exchanges)


# What is played.


def spread(exchanges):
    """Answers by machine, and how far the worst is from an equal share."""
    counts = collections.Counter(one.machine for one in exchanges if one.machine)
    share = sum(counts.values()) / len(ADDRESSES)
    uneven = max(abs(counts[name] - share) / share for name in ADDRESSES)
    assert uneven <= UNEVEN_MAX, counts
    return {"by_machine": {name: counts[name] for name in ADDRESSES},
            "uneven_percent": round(100 * uneven, 1)}


async def all_in(front, traffic):
    """Everybody serves and every kept client is back; then the spread once more."""
    begin = await front.await_spread(ADDRESSES)
    await traffic.await_kept()
    begin = max(begin, time.monotonic())
    await traffic.await_new(600, begin)
    new = traffic.of("new", begin)
    assert lost(new) == 0, f"{lost(new)} new requests lost with all machines in"
    return spread(new)


async def spread_of_all(front, traffic, _):
    begin = await front.await_spread(ADDRESSES)
    await traffic.await_new(3000, begin)
    new = traffic.of("new", begin)
    return {"new": len(new), "new_lost": lost(new), **spread(new)}


async def drained(front, traffic, fleet):
    """Out of the file, empty, stopped, started, and into the file again."""
    machine = fleet["machine2"]
    begin = time.monotonic()
    traffic.slow(30)
    await asyncio.sleep(0.2)
    front.use(name for name in ADDRESSES if name != machine.name)
    out = await front.await_spread([name for name in ADDRESSES if name != machine.name])
    await traffic.await_new(600, out)
    stray = [one for one in traffic.of("new", out) if one.machine == machine.name]
    assert not stray, f"{len(stray)} new connections to a drained machine"
    still = [one for one in traffic.of("kept", out) if one.machine == machine.name]
    assert still, "the drained machine lost its kept connections"
    traffic.move()
    await asyncio.to_thread(machine.program.await_rest)
    await asyncio.to_thread(machine.program.close)
    machine.start()
    front.use(ADDRESSES)
    back = await all_in(front, traffic)
    figures = {kind: len(traffic.of(kind, begin)) for kind in ("new", "kept", "slow")}
    figures |= {f"{kind}_lost": lost(traffic.of(kind, begin)) for kind in ("new", "kept", "slow")}
    assert figures["slow"] == 30, figures
    assert not any(figures[f"{kind}_lost"] for kind in ("new", "kept", "slow")), figures
    return {**figures, "kept_served_while_draining": len(still), "back": back}


def ended_by(machine, how):
    return {"stopped": machine.program.close, "killed": machine.program.kill,
            "cut off": lambda: machine.link("down")}[how]


async def taken_away(front, traffic, machine, how):
    """One machine goes without a warning and comes back; what was lost until it was left out."""
    await traffic.await_kept()
    held = sum(one.machine == machine.name for one in traffic.kept.values())
    begin = time.monotonic()
    await asyncio.to_thread(ended_by(machine, how))
    out = await front.await_spread([name for name in ADDRESSES if name != machine.name])
    await traffic.await_new(300, out)
    # Every request that began before is over now, or out of patience.
    await asyncio.sleep(PATIENCE_SECONDS + 0.5)
    after = traffic.of("new", out)
    assert lost(after) == 0, f"{lost(after)} new requests lost after the machine was left out"
    missing = [one.start for one in traffic.of("new", begin, out) if one.machine is None]
    assert missing, "nothing was lost"
    # Of those begun between the first loss and the last. A first packet that is sent again when
    # the machine has been left out is answered by another one.
    new = len(traffic.of("new", min(missing), max(missing))) + 1
    figures = {"new": new, "new_lost": len(missing), "kept_held": held,
               "kept_lost": lost(traffic.of("kept", begin - 2 * KEPT_PAUSE))}
    assert figures["kept_lost"] == held, figures
    machine.link("up") if how == "cut off" else machine.start()
    figures["back"] = await all_in(front, traffic)
    return figures


async def lost_machines(front, traffic, fleet, how):
    """Each machine in turn; the sums."""
    rounds = [await taken_away(front, traffic, machine, how)
              for machine in list(fleet.values())[:ROUNDS]]
    figures = {key: sum(each[key] for each in rounds)
               for key in ("new", "new_lost", "kept_held", "kept_lost")}
    assert 0.25 < figures["new_lost"] / figures["new"] < 0.42, rounds
    figures["kept"] = KEPT * len(rounds)
    figures["back_uneven_percent"] = max(each["back"]["uneven_percent"] for each in rounds)
    return figures


# Several processes on one of the machines.

STOPS, OPENERS, HELD = 5, 8, 200


class Openers:
    """Clients that open connections without a pause, straight to one machine."""

    def __init__(self, target):
        self.opened = self.failed = 0
        self._tasks = [asyncio.create_task(self._open(CLIENTS[number], target))
                       for number in range(OPENERS)]

    async def _open(self, source, target):
        while True:
            self.opened += 1
            try:
                async with asyncio.timeout(PATIENCE_SECONDS):
                    with contextlib.closing(await Connection.open(source, target)) as connection:
                        await connection.ask()
            except LOST:
                self.failed += 1

    async def await_more(self, count):
        goal = self.opened + count
        await until(lambda: self.opened >= goal or any(task.done() for task in self._tasks),
                    f"{count} connections", 60)

    async def close(self):
        for task in self._tasks:
            task.cancel()
        for outcome in await asyncio.gather(*self._tasks, return_exceptions=True):
            if not isinstance(outcome, asyncio.CancelledError):
                raise outcome


async def still_served(connection):
    try:
        async with asyncio.timeout(PATIENCE_SECONDS):
            await connection.ask()
        return True
    except LOST:
        return False


async def two_processes(machine):
    """One of two processes on a port is stopped and started again, five times."""
    first, second = machine.program, machine.another()
    openers, kept, kept_lost = Openers(machine.address), 0, 0
    try:
        for _ in range(STOPS):
            held = [await Connection.open(CLIENTS[number % len(CLIENTS)], machine.address)
                    for number in range(HELD)]
            assert all(await asyncio.gather(*map(still_served, held)))
            await asyncio.to_thread(second.close)
            served = await asyncio.gather(*map(still_served, held))
            kept, kept_lost = kept + HELD, kept_lost + served.count(False)
            for connection in held:
                connection.close()
            await openers.await_more(300)
            second = await asyncio.to_thread(machine.another)
            await openers.await_more(300)
    finally:
        await openers.close()
        second.close()
    assert first.alive and openers.opened > 3000, openers.opened
    assert 0.35 < kept_lost / kept < 0.65, (kept_lost, kept)
    # Only what waited to be accepted at the moment of a stop.
    assert openers.failed <= STOPS * OPENERS, (openers.failed, openers.opened)
    return {"stops": STOPS, "new": openers.opened, "new_lost": openers.failed,
            "kept": kept, "kept_lost": kept_lost}


async def play():
    def said(name, figures):
        print(f"  {name}: {figures}", file=sys.stderr, flush=True)
        results[name] = figures

    results = {}
    with contextlib.ExitStack() as stack:
        # Below the mount of our own, so that nothing outlives us.
        folder = stack.enter_context(tempfile.TemporaryDirectory(dir="/run"))
        fleet = {name: stack.enter_context(contextlib.closing(Machine(name)))
                 for name in ADDRESSES}
        front = Front(folder)
        with contextlib.closing(front):
            await front.await_spread(ADDRESSES)
            traffic = Traffic()
            try:
                said("spread", await spread_of_all(front, traffic, fleet))
                said("drained", await drained(front, traffic, fleet))
                for how in ("stopped", "killed", "cut off"):
                    said(how, await lost_machines(front, traffic, fleet, how))
            finally:
                await traffic.close()
        said("one of two processes", await two_processes(fleet["machine1"]))
    return results


def table(results):
    """The rows of the tables in docs/scaling.md."""
    def row(name, *cells):
        return "| " + " | ".join([name, *cells]) + " |\n"

    def of(figures, lost, asked):
        return f"{figures[lost]:,} of {figures[asked]:,}"

    def share(figures):
        return f"{100 * figures['new_lost'] / figures['new']:.1f}%"

    pair, drain = results["one of two processes"], results["drained"]
    return "".join([
        row("new connections", of(pair, "new_lost", "new"), share(pair)),
        row("kept connections", of(pair, "kept_lost", "kept"), "half"),
        row("new connections, from the first step to the last", f"{drain['new']:,}", "0"),
        row("requests on kept connections", f"{drain['kept']:,}", "0"),
        *(row(text, of(results[how], "new_lost", "new"), share(results[how]),
              of(results[how], "kept_lost", "kept_held"))
          for how, text in (("stopped", "the program is stopped"), ("killed", "the program is killed"),
                            ("cut off", "the machine is cut off")))])


if __name__ == "__main__":
    sys.path.insert(0, str(HERE.parent))
    import parts  # noqa: F401  (finds the end-to-end tests' own modules)
    build_network()
    print(json.dumps({**asyncio.run(play()), "ok": True}))
