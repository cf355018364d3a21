"""The example that computes on threads of its own."""

import pytest

from support.curl import curl, url
from support.program import ROOT, build_folder
from support.raw import get
from support.waiting import wait_until

CLIENTS = 200
LINGERS = 3_000_000
HEAD = (b"HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nTransfer-Encoding: chunked\r\n\r\n")
TRY = b"Try /primes?3000000\n"


def primes_below(limit):
    sieve = bytearray([1]) * limit
    sieve[:2] = bytes(min(limit, 2))
    for n in range(2, int(limit ** 0.5) + 1):
        if sieve[n]:
            sieve[n * n::n] = bytes(len(range(n * n, limit, n)))
    return sum(sieve)


def answer_for(limit):
    text = b"%d primes\n" % primes_below(limit)
    return HEAD + b"%X\r\n%s\r\n0\r\n\r\n" % (len(text), text)


def threads_of(program):
    with open(f"/proc/{program.pid}/status") as file:
        return int(next(line for line in file if line.startswith("Threads:")).split()[1])


@pytest.mark.parametrize("limit", [0, 2, 3, 100, 10_000])
def test_worker_answers_what_it_computes(example, limit):
    program = example("worker")
    printed = curl(url(program.port, f"/primes?{limit}"))
    assert printed == b"%d primes\n" % primes_below(max(limit, 1))


def test_worker_serves_others_while_it_computes(example):
    program = example("worker")
    with program.connect() as slow:
        slow.send(get("x", f"/primes?{LINGERS}"))
        assert slow.read_exactly(len(HEAD)) == HEAD
        for _ in range(5):
            assert curl(url(program.port)) == TRY
        assert slow.is_quiet()
        assert HEAD + slow.read_until(b"\r\n0\r\n\r\n") == answer_for(LINGERS)
        slow.send(get("x"))
        assert slow.read_message().body == TRY


def test_worker_says_what_it_cannot_do(example):
    program = example("worker")
    for request, status in [(b"GET /primes?9 HTTP/1.0\r\n\r\n", b"501"),
                            (b"HEAD /primes?9 HTTP/1.1\r\n\r\n", b"501"),
                            (b"GET /other HTTP/1.1\r\n\r\n", b"404")]:
        with program.connect() as client:
            client.send(request)
            assert client.read_until(b"\r\n\r\n").split()[1] == status


def builds():
    """The build under test, and the one with the address sanitizer where it has been made."""
    asan = ROOT / "build" / "asan"
    found = [build_folder()]
    if (asan / "examples" / "worker").exists() and asan != found[0]:
        found.append(asan)
    return found


@pytest.mark.limit(120)
@pytest.mark.parametrize("build", builds(), ids=lambda build: build.name)
def test_worker_takes_half_of_200_clients_leaving_early(example, build, monkeypatch):
    leaks = ROOT / "tests" / "support" / "leaks.supp"
    monkeypatch.setenv("LSAN_OPTIONS", f"suppressions={leaks}:print_suppressions=0")
    program = example("worker", build=build)
    before = len(program.descriptors())
    clients = [program.connect() for _ in range(CLIENTS)]
    asked = {number: 100_000 + number for number in range(CLIENTS)}
    for number, client in enumerate(clients):
        client.send(get("x", f"/primes?{asked[number]}"))
        # One of four leaves at once, one when it has seen the head; each second one by a reset.
        if number % 4 == 1:
            assert client.read_exactly(len(HEAD)) == HEAD
        if number % 4 < 2:
            client.reset() if number % 8 < 4 else client.close()

    staying = [(number, client) for number, client in enumerate(clients) if number % 4 >= 2]
    for number, client in staying:
        expected = answer_for(asked[number])
        assert client.read_exactly(len(expected)) == expected
        client.close()
    # The one that stays is what the threads wake the loop by.
    wait_until(lambda: len(program.descriptors()) == before + 1, "the descriptors to be closed")
    wait_until(lambda: threads_of(program) == 1, "the threads to end")


def test_worker_ends_while_functions_are_at_work(example):
    program = example("worker")
    with program.connect() as client:
        client.send(get("x", "/primes?20000000"))
        assert client.read_exactly(len(HEAD)) == HEAD
        program.stop()
        assert client.read_to_end() == b""
