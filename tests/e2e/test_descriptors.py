"""What happens when no descriptor is left to be had."""

import contextlib

import pytest

from support.raw import EndOfStream, get
from support.texts import BAD_GATEWAY, NOT_FOUND, binding_lines, echo_answer, log_line
from support.waiting import wait_until

LIMITS = pytest.mark.parametrize("descriptors_max", [32, 256])


@contextlib.contextmanager
def clients_for_every_descriptor(program, descriptors_max):
    """Connect until the program has no descriptor left, each client with an answered request."""
    with contextlib.ExitStack() as stack:
        clients = []
        while len(program.descriptors()) < descriptors_max:
            clients.append(stack.enter_context(program.connect()))
            clients[-1].send(get("none.local"))
            assert clients[-1].read_exactly(len(NOT_FOUND)) == NOT_FOUND
        yield clients


@LIMITS
def test_a_client_too_many_restarts_the_server_and_ends_every_connection(serve, descriptors_max):
    program = serve({"echo.local": -1}, descriptors_max=descriptors_max)
    before = program.descriptors()
    with clients_for_every_descriptor(program, descriptors_max) as clients:
        with contextlib.suppress(ConnectionResetError), program.connect() as one_too_many:
            one_too_many.read_to_end()
        for client in clients:
            assert client.read_to_end() == b""
    program.await_output(b"accept() failed\n" + binding_lines(program.port))
    program.settle()
    program.await_descriptors(before)


@LIMITS
def test_without_a_descriptor_for_the_backend_the_answer_is_502(serve, record, descriptors_max):
    recorder = record()
    program = serve({"app.local": recorder, "bad.local": -5}, descriptors_max=descriptors_max)
    before = program.descriptors()
    # A sanitizer opens a pipe when it checks an object's type where it has not done so before,
    # so the way that the request will take is walked once while there are descriptors.
    with program.connect() as client:
        client.send(get("bad.local"))
        assert client.read_to_end() == BAD_GATEWAY
    program.await_descriptors(before)
    with clients_for_every_descriptor(program, descriptors_max) as clients:
        clients[0].send(get("app.local"))
        assert clients[0].read_to_end() == BAD_GATEWAY
        line = log_line("app.local", clients[0].local_port, "GET / HTTP/1.1")
    # Resolving a name takes a descriptor too, so this is as far as some C libraries get.
    program.await_descriptors(before)
    reasons = (line + b"getaddrinfo() failed for host localhost:%d!\n" % recorder.port,
               line + b"No addresses worked for host localhost:%d.\n" % recorder.port)
    wait_until(lambda: any(reason in program.output for reason in reasons), "the reason")


@LIMITS
def test_clients_come_and_go_at_the_limit_and_each_is_served_or_ended(serve, descriptors_max):
    program = serve({"echo.local": -1}, descriptors_max=descriptors_max)
    before = len(program.descriptors())
    request, answer = get("echo.local"), echo_answer(get("echo.local"))
    for times in range(1, 4):
        with contextlib.ExitStack() as stack:
            for _ in range(descriptors_max + 20):
                with contextlib.suppress(ConnectionError, EndOfStream):
                    client = stack.enter_context(program.connect())
                    client.send(request)
                    assert client.read_exactly(len(answer)) == answer
        wait_until(lambda times=times: program.output.count(b"accept() failed\n") >= times,
                   "a client too many")
        wait_until(lambda: len(program.descriptors()) == before, "the end of every connection")
    program.settle()
