"""The example that serves TLS from inside a program with a loop of its own."""

import subprocess

import pytest

from support.curl import curl, url
from support.program import Program, example_path
from support.raw import connect, get
from support.texts import NOT_FOUND, echo_answer
from support.waiting import wait_until


@pytest.fixture
def front(example, credentials):
    return example("front_tls", credentials.key, credentials.crt, stdin=subprocess.PIPE)


@pytest.fixture
def trust(authority):
    return authority.trust()


def quit_and_check(program):
    program.type(b"quit\n")
    assert program.await_end() == 0
    assert program.output.endswith(b"Stopped.\n")


def fetch(program, authority, path="/"):
    return curl("--cacert", authority.crt, "--header", "Host: app.local",
                url(program.port, path, "https"))


def test_front_tls_serves_hosts_mapped_while_it_runs(front, nginx, authority, trust):
    (nginx.root / "page").write_text("by way of TLS")
    with connect(front.port, trust) as client:
        client.send(get("app.local", "/page"))
        assert client.read_exactly(len(NOT_FOUND)) == NOT_FOUND
        front.type(b"map echo.local -1\nmap app.local %d\n" % nginx.port)
        expected = echo_answer(get("echo.local"))

        def is_mapped():
            client.send(get("echo.local"))
            head = client.read_until(b"\r\n\r\n")
            rest = 0 if head == NOT_FOUND else len(expected) - len(head)
            return head + client.read_exactly(rest) == expected

        wait_until(is_mapped, "the new mapping")
        assert fetch(front, authority, "/page") == b"by way of TLS"
    quit_and_check(front)


def test_front_tls_takes_a_command_in_pieces(front, authority):
    front.type(b"ma")
    assert fetch(front, authority) == b""  # a 404, after which the piece has been read
    front.type(b"p app.local -1\nnonsense\n\n")
    wait_until(lambda: fetch(front, authority).startswith(b"GET / HTTP/1.1\r\n"), "the mapping")
    quit_and_check(front)


def test_front_tls_ends_its_connections_on_the_way_out(front, trust):
    with connect(front.port, trust) as client, connect(front.port) as silent:
        client.send(get("x"))
        assert client.read_exactly(len(NOT_FOUND)) == NOT_FOUND
        quit_and_check(front)
        assert silent.read_to_end() == b""


def test_front_tls_ends_with_its_input(front):
    front.end_input()
    assert front.await_end() == 0
    assert front.output.endswith(b"Stopped.\n")


def test_front_tls_does_not_start_on_a_port_that_is_taken(occupied_port, credentials):
    program = Program(occupied_port, credentials.key, credentials.crt,
                      path=example_path("front_tls"), stdin=subprocess.PIPE)
    assert program.await_end() == 0
    assert b"Stopped." not in program.output
