"""The one test that waits for the clock: who is timed out, who is not, and what is printed."""

import pytest

from support.raw import get
from support.texts import echo_answer
from support.waiting import wait_until


def newcomer(program, known):
    """The number of the one descriptor that is open and not yet `known`."""
    program.settle()
    wait_until(lambda: len(program.descriptors() - known) == 1, "one descriptor more")
    return (program.descriptors() - known).pop()


@pytest.mark.limit(45)
def test_clients_without_a_backend_are_timed_out_and_those_with_one_are_not(serve, record):
    recorder = record()
    program = serve({"app.local": recorder, "echo.local": -1})
    request = get("echo.local").replace(b"1.1", b"1.0")
    known = program.descriptors()
    with program.connect() as silent:
        first = newcomer(program, known)
        with program.connect() as answered:
            answered.send(request)
            assert answered.read_exactly(len(echo_answer(request))) == echo_answer(request)
            second = newcomer(program, known | {first})
            with program.connect() as attached:
                attached.send(get("app.local"))
                recorder.link().read_message()
                wait_until(lambda: len(program.sockets()) == 5, "two clients and a pair")

                assert silent.read_to_end() == b""
                assert answered.read_to_end() == b""
                for number in (first, second):
                    program.await_output(b"\n%d has timed out.\n" % number)
                assert program.output.count(b"has timed out") == 2
                assert program.status_lines[:2] == [b"0 connections", b"4 connections"]

                recorder.link().send(b"late")
                assert attached.read_exactly(4) == b"late"
