"""Several processes of one user on one port."""

import pytest

from support.raw import EndOfStream, connect, get
from support.texts import echo_answer
from support.waiting import wait_until

REQUEST = get("echo.local")
ANSWER = echo_answer(REQUEST)
CLIENTS = 400


@pytest.fixture
def pair(serve, launch):
    """Two processes that listen on the port of the first."""
    first = serve({"echo.local": -1})
    return first, launch(first.port, "-map", "echo.local", -1)


def served(client):
    """Whether the client gets its answer; a closed connection gives none."""
    try:
        client.send(REQUEST)
        return client.read_exactly(len(ANSWER)) == ANSWER
    except (EndOfStream, ConnectionError):
        return False


def requests_of(program):
    return program.output.count(b"[echo.local] ")


def test_connections_are_spread_over_both_processes(pair):
    for _ in range(CLIENTS):
        with connect(pair[0].port) as client:
            assert served(client)
    wait_until(lambda: sum(map(requests_of, pair)) == CLIENTS, "a log line a request")
    # Chance alone leaves these bounds once in many millions of runs.
    assert CLIENTS * 0.35 < requests_of(pair[0]) < CLIENTS * 0.65


def test_a_stop_ends_the_connections_of_one_process_and_no_others(pair):
    clients = [connect(pair[0].port) for _ in range(100)]
    assert all(map(served, clients))
    wait_until(lambda: sum(map(requests_of, pair)) == len(clients), "a log line a request")
    of_the_other = requests_of(pair[1])
    pair[0].stop()
    assert sum(map(served, clients)) == of_the_other
    for client in clients:
        client.close()


def test_the_process_that_is_left_serves_every_new_client(pair):
    pair[0].stop()
    for _ in range(50):
        with connect(pair[0].port) as client:
            assert served(client)
