"""SIGINT while TLS connections are open, half-open and idle."""

import time

import pytest

from support.raw import connect, get
from support.texts import SHUTTING_DOWN, echo_answer
from support.tls import DrippingClient, await_end


@pytest.mark.parametrize("http", [True, False], ids=["with redirects", "https only"])
def test_an_interrupt_ends_every_connection_within_a_second(serve_tls, authority, record, http):
    recorder = record()
    program = serve_tls({"echo.local": -1, "app.local": recorder}, http)
    trust = authority.trust()

    served = connect(program.ssl_port, trust)
    served.send(get("echo.local"))
    served.read_exactly(len(echo_answer(get("echo.local"))))
    attached = connect(program.ssl_port, trust)
    attached.send(get("app.local"))
    recorder.link().read_message()
    stuck = connect(program.ssl_port, trust)
    stuck.send(get("app.local"))
    recorder.link(1).read_message()
    recorder.link(1).send(b"x" * 1_000_000)
    half_open = DrippingClient(program.ssl_port, trust)
    half_open.begin()
    idle = connect(program.ssl_port)
    clients = [served, attached, stuck, half_open.stream, idle]
    if http:
        clients.append(connect(program.port))

    started = time.monotonic()
    program.interrupt()
    assert program.await_end() == 0
    assert time.monotonic() - started < 1
    assert program.output.count(SHUTTING_DOWN) == 1
    assert program.output.endswith(SHUTTING_DOWN)
    for client in clients:
        await_end(client)
        client.close()
    for number in (0, 1):
        await_end(recorder.link(number))
