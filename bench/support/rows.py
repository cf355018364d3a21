"""The table of the benchmark: each row's load, the servers that take part, the figure that counts, the goals.

A goal is about vindra, log and all, and compares medians. The peers that it names have their access
log off.
"""

import dataclasses
import statistics
import typing

PEERS = ("nginx", "haproxy")
# Later releases of the same, where bench/run is given some.
NEWER_PEERS = ("nginx newer", "haproxy newer")
BULK_PEERS = ("nginx", "nginx unbuffered", "haproxy")
# An earlier build of vindra, measured beside this one.
EARLIER = "earlier"
FIGURES = {
    "us_per_request": "µs of processor time a request",
    "ms_per_gib": "ms of processor time a GiB",
    "p99_ms": "99th percentile, ms",
    "requests_per_second": "requests/s",
    "mib_per_second": "MiB/s",
    "peak_mib": "peak resident MiB",
    "resident_mib": "resident MiB",
    "kib_per_pair": "resident KiB a pair",
    "bytes_per_byte": "resident bytes a byte queued",
    "kept_per_byte": "resident bytes kept a byte queued, 5 s afterwards",
    "ms": "ms",
    "worst_wait_ms": "longest wait of the ordinary client, ms",
}


@dataclasses.dataclass
class Goal:
    """vindra's figure, or its ratio to a median of the same run, and the most that it may be."""

    text: str
    limit: float
    value: typing.Callable
    unit: str = ""


@dataclasses.dataclass
class Row:
    """One load. `measure(run, server)` starts the server, puts the load on and returns its figures."""

    name: str
    title: str
    servers: tuple
    measure: typing.Callable
    figure: str = "us_per_request"
    goals: tuple = ()
    # Not asked for more often than this: what hardly varies, or takes long.
    most_rounds: int = 1000
    # Among the few that give a first impression.
    quick: bool = False

    @property
    def compares_costs(self):
        """Whether peers take part whose processor time is what counts."""
        return set(PEERS) <= set(self.servers) and self.figure in ("us_per_request", "ms_per_gib")


def median(results, row, server, figure):
    """None where the run has no such figure."""
    found = [figures[figure] for figures in results.get(row, {}).get(server, []) if figure in figures]
    return statistics.median(found) if found else None


def of_best_peer(row, limit, figure="us_per_request", peers=PEERS, called="the best peer"):
    """At most `limit` times what the cheapest of the peers needs."""
    def value(results):
        ours = median(results, row, "vindra", figure)
        theirs = [median(results, row, peer, figure) for peer in peers]
        if ours is None or None in theirs:
            return None
        newer = [median(results, row, peer, figure) for peer in NEWER_PEERS] if len(peers) > 1 else []
        return ours / min(theirs + [cost for cost in newer if cost is not None])
    return Goal(f"at most {limit:.2f} of {called}", limit, value)


def of_peer(row, limit, peer, figure="us_per_request", called=None):
    """At most `limit` times what one other server needs."""
    return of_best_peer(row, limit, figure, (peer,), called or peer)


def of_floor(row, limit, figure="us_per_request"):
    """At most `limit` times what the bare relay needs."""
    return of_peer(row, limit, "floor", figure, "the floor")


def of_row(row, limit, other, figure="us_per_request", called=None):
    """At most `limit` times what vindra itself needs in another row."""
    def value(results):
        ours, before = median(results, row, "vindra", figure), median(results, other, "vindra", figure)
        return None if ours is None or before is None else ours / before
    return Goal(f"at most {limit:.2f} of {called}", limit, value)


def at_most(row, limit, figure, text, unit):
    """vindra's figure itself."""
    return Goal(text, limit, lambda results: median(results, row, "vindra", figure), unit)


def requests(path, connections, **options):
    """GET of a served file over so many connections."""
    def measure(run, name):
        with run.server(name, tls=options.get("tls", False)) as server:
            return run.loads.requests(server, path, connections, **options)
    return measure


def on_files(load, tls=False):
    """A load on a server in front of the served files."""
    def measure(run, name):
        with run.server(name, tls=tls) as server:
            return load(run.loads, server)
    return measure


def on_own_backend(load):
    """A load on a server in front of the backend of our own."""
    def measure(run, name):
        with run.server(name, own_backend=True) as server:
            return load(run.loads, server)
    return measure


def first_answers(run, name):
    """The median of five starts."""
    found = []
    for _ in range(5):
        with run.server(name) as server:
            found.append(run.loads.first_answer(server)["ms"])
    return {"ms": statistics.median(found)}


UNPOOLED = "nginx with unpooled backend connections"
EVERYBODY = ("vindra", "nginx", "nginx with log", "haproxy", "haproxy with log", "floor")
QUIET = ("vindra", "nginx", "haproxy", "floor")
BULK = ("vindra", "nginx", "nginx unbuffered", "haproxy", "floor")
SINKS = ("vindra", "vindra, log to /dev/null", "vindra, log to a pipe")


def idle(count):
    """32 busy connections beside so many idle pairs."""
    name = f"idle_{count}"
    goals = {
        5000: (of_row(name, 1.10, "idle_0", called="the same with none idle"),),
        9000: (of_row(name, 1.10, "idle_0", called="the same with none idle"),
               at_most(name, 150, "resident_mib", "at most 150 MiB resident", " MiB")),
    }
    title = f"32 busy connections beside {count:,} idle pairs" if count else "32 busy connections, none idle"
    return Row(name, title, ("vindra", *PEERS), on_files(lambda loads, server: loads.busy_beside_idle(server, count)),
               goals=goals.get(count, ()))


def backlog(mib):
    """An answer that waits for its client as a whole."""
    name = f"backlog_{mib}"
    goals = (
        at_most(name, 800, "ms_per_gib", "at most 800 ms of processor time a GiB", " ms"),
        at_most(name, 1.05, "bytes_per_byte", "at most 1.05 bytes a byte queued", " bytes"),
        at_most(name, 0.05, "kept_per_byte", "at most 0.05 bytes a byte kept 5 s afterwards", " bytes"),
    ) if mib == 256 else ()
    return Row(name, f"a backlog of {mib} MiB behind a client that does not read", ("vindra",),
               on_files(lambda loads, server: loads.backlog(server, f"{mib}m")), "ms_per_gib", goals)


ROWS = (
    Row("get_1", "keep-alive GET of 100 bytes, 1 connection", EVERYBODY, requests("100", 1), quick=True,
        goals=(of_best_peer("get_1", 0.92), of_floor("get_1", 1.30))),
    Row("get_64", "keep-alive GET of 100 bytes, 64 connections", EVERYBODY, requests("100", 64), quick=True,
        goals=(of_best_peer("get_64", 0.92), of_floor("get_64", 1.15))),
    Row("get_400", "keep-alive GET of 100 bytes, 400 connections", EVERYBODY, requests("100", 400),
        goals=(of_best_peer("get_400", 0.92), of_floor("get_400", 1.20))),
    Row("get_64k", "GET of 64 KiB, 32 connections", QUIET, requests("64k", 32), quick=True,
        goals=(of_best_peer("get_64k", 0.85), of_floor("get_64k", 1.20))),
    Row("get_1m", "1 MiB answers to 100 clients at once", QUIET, requests("1m", 100),
        goals=(of_best_peer("get_1m", 0.75), of_floor("get_1m", 1.40),
               at_most("get_1m", 64, "peak_mib", "at most 64 MiB resident", " MiB"))),
    Row("download", "256 MiB download", BULK, on_files(lambda loads, server: loads.downloads(server, "256m")),
        "ms_per_gib", quick=True,
        goals=(of_best_peer("download", 0.70, "ms_per_gib", BULK_PEERS), of_floor("download", 1.00, "ms_per_gib"))),
    Row("upload", "96 MiB upload", BULK, on_own_backend(lambda loads, server: loads.uploads(server)),
        "ms_per_gib", quick=True,
        goals=(of_best_peer("upload", 0.85, "ms_per_gib", BULK_PEERS), of_floor("upload", 1.35, "ms_per_gib"))),
    Row("new", "a new connection a request", (*EVERYBODY, "nginx unpooled"), requests("100", 16, close=True),
        quick=True,
        goals=(of_peer("new", 0.95, "nginx unpooled", called=UNPOOLED), of_floor("new", 1.05))),
    Row("tls", "keep-alive GET of 100 bytes over TLS, 32 connections", ("vindra", *PEERS),
        requests("100", 32, tls=True), quick=True, goals=(of_best_peer("tls", 0.90),)),
    Row("handshake", "a new TLS session a request", ("vindra", *PEERS, "nginx unpooled"),
        on_files(lambda loads, server: loads.handshakes(server, "100"), tls=True),
        goals=(of_peer("handshake", 1.00, "nginx unpooled", called=UNPOOLED),)),
    idle(0), idle(1000), idle(5000), idle(9000),
    Row("pieces", "answers in two pieces, 32 connections", ("vindra", *PEERS),
        on_own_backend(lambda loads, server: loads.requests(server, "pieces", 32)), "p99_ms",
        goals=(at_most("pieces", 40, "p99_ms", "no 40 ms at the 99th percentile", " ms"),)),
    Row("idle_memory", "an idle client with its backend connection", QUIET,
        on_files(lambda loads, server: loads.pair_memory(server, "100", 2000, wait=0)), "kib_per_pair", most_rounds=2,
        goals=(at_most("idle_memory", 9.9, "kib_per_pair", "at most 9.9 KiB resident", " KiB"),)),
    Row("burst_memory", "the same, a minute after a 1 MiB answer", ("vindra", *PEERS),
        on_files(lambda loads, server: loads.pair_memory(server, "1m", 1000, wait=60)), "kib_per_pair", most_rounds=1,
        goals=(at_most("burst_memory", 24, "kib_per_pair", "at most 24 KiB resident", " KiB"),)),
    backlog(64), backlog(128), backlog(256),
    Row("slow_readers", "an ordinary client beside 200 slow readers of 20 MiB", ("vindra",),
        on_files(lambda loads, server: loads.beside_slow_readers(server)), "worst_wait_ms", most_rounds=3,
        goals=(at_most("slow_readers", 1000, "worst_wait_ms", "never waits longer than 1,000 ms", " ms"),)),
    Row("start", "start to first answer", QUIET, first_answers, "ms"),
    Row("log_1", "the log's sink, 1 connection", SINKS, requests("100", 1)),
    Row("log_64", "the log's sink, 64 connections", SINKS, requests("100", 64)),
)
