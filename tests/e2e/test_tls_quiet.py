"""Handshakes that never end: each client is timed out, and until then costs nothing."""

import os

import pytest

from support.raw import connect, get
from support.tls import DrippingClient, await_end
from support.waiting import wait_until

TICKS_A_SECOND = os.sysconf("SC_CLK_TCK")


def processor_ticks(program):
    """Processor time that the program has used so far, in the kernel's ticks."""
    with open(f"/proc/{program.pid}/stat") as stat:
        fields = stat.read().rpartition(")")[2].split()
    return int(fields[11]) + int(fields[12])


def broken_record(client):
    """A complete handshake, then a record that fails its check."""
    client.shake_hands()
    client.stream.send(b"\x17\x03\x03\x00\x20" + b"x" * 32)


@pytest.mark.limit(60)
def test_clients_that_never_finish_are_timed_out_at_the_cost_of_an_idle_server(
        serve_tls, authority):
    idle, busy = serve_tls({}), serve_tls({"echo.local": -1})
    trust = authority.trust()

    plain_text = connect(busy.ssl_port)
    plain_text.send(get("echo.local"))
    silent = connect(busy.ssl_port)
    half_closed = connect(busy.ssl_port)
    half_closed.finish()
    gone = connect(busy.ssl_port)
    gone.close()
    half_open = DrippingClient(busy.ssl_port, trust)
    half_open.begin()
    broken = DrippingClient(busy.ssl_port, trust)
    broken_record(broken)
    # More for a session that has failed already: nobody will ever read it.
    plain_text.send(b"x" * 100000)

    before = [processor_ticks(program) for program in (idle, busy)]
    wait_until(lambda: busy.output.count(b" has timed out.\n") == 6, "six time-outs", 20)
    after = [processor_ticks(program) for program in (idle, busy)]

    for client in (plain_text, silent, half_closed, half_open.stream, broken.stream):
        await_end(client)
        client.close()
    idle_ticks, busy_ticks = (end - start for end, start in zip(after, before))
    # Some ticks for the handshakes themselves and for taking the connections down: a server
    # that spins would use all of those ten seconds.
    assert busy_ticks <= idle_ticks + TICKS_A_SECOND // 20
    assert idle.output.count(b" has timed out.\n") == 0
