"""The command line, what start-up prints, and the way out."""

import socket

import pytest

from support.ports import HeldPort
from support.program import run
from support.raw import get
from support.texts import (NOT_FOUND, SHUTTING_DOWN, USAGE, bind_failure_lines, binding_lines,
                           echo_answer, resolver_text)


def status_of(program, host):
    """The status line that a request for `host` is answered with."""
    with program.connect() as client:
        client.send(get(host))
        return client.read_message().status_line


FOUND = b"HTTP/1.1 200 OK"
MISSING = b"HTTP/1.1 404 Not Found"


def test_without_arguments_the_usage_is_printed():
    assert run() == USAGE


def test_start_up_prints_the_addresses_in_system_order_and_the_first_count(launch):
    program = launch("PORT")
    assert program.output == binding_lines(program.port) + b"0 connections\n"


def test_interrupt_prints_one_line_and_ends_with_status_0(launch):
    program = launch("PORT")
    program.interrupt()
    assert program.await_end() == 0
    assert program.output == binding_lines(program.port) + b"0 connections\n" + SHUTTING_DOWN


def test_interrupt_ends_every_connection(serve, record):
    recorder = record()
    program = serve({"app.local": recorder, "echo.local": -1})
    with program.connect() as attached, program.connect() as waiting:
        attached.send(get("app.local"))
        recorder.link().read_message()
        waiting.send(get("echo.local"))
        waiting.read_message()
        program.stop()
        assert attached.read_to_end() == b""
        assert waiting.read_to_end() == b""
        assert recorder.link().read_to_end() == b""


def test_nobody_listens_after_the_end(launch):
    program = launch("PORT")
    program.stop()
    with pytest.raises(ConnectionRefusedError):
        program.connect()


def test_termination_keeps_its_default_effect(launch):
    program = launch("PORT")
    program.terminate()
    assert program.await_end() == -15
    assert SHUTTING_DOWN not in program.output


def test_a_port_alone_serves_an_empty_host_map(launch):
    program = launch("PORT")
    assert status_of(program, "localhost") == MISSING


def test_a_port_in_use_is_reported_and_ends_with_status_0(occupied_port):
    assert run(occupied_port) == binding_lines(occupied_port) + bind_failure_lines()


def test_two_programs_share_a_port(keep, launch):
    first = launch("PORT")
    second = launch(first.port)
    assert second.output == binding_lines(first.port) + b"0 connections\n"


def test_a_port_that_the_resolver_refuses_is_reported():
    code = None
    try:
        socket.getaddrinfo(None, "-5", socket.AF_INET, socket.SOCK_STREAM, socket.IPPROTO_TCP,
                           socket.AI_PASSIVE)
    except socket.gaierror as refusal:
        code = refusal.errno
    assert run(-5) == binding_lines(-5) + b"getaddrinfo() failed: %d %s\n" % (
        code, resolver_text(code))


@pytest.mark.parametrize("words", [
    ["0"],
    ["no-number"],
    ["-map", "echo.local", "-1"],
    ["-ssl", "443", "k.pem", "c.pem"],
    ["0", "-map", "echo.local", "-1"],
    ["0", "-ssl", "0", "k.pem", "c.pem"],
], ids=" ".join)
def test_a_first_argument_worth_0_makes_a_server_that_never_listens(launch, words):
    program = launch(*words)
    assert program.sockets() == []
    program.interrupt()
    assert program.await_end() == 0
    assert program.output == b"0 connections\n" + SHUTTING_DOWN


@pytest.mark.parametrize("written", [
    "PORT", "+PORT", " PORT", "00PORT", "PORTx", "PORT 1", "PORT.9",
])
def test_the_port_is_read_as_far_as_it_is_a_number(launch, written):
    program = launch(written, "-map", "echo.local", "-1")
    assert program.output == binding_lines(program.port) + b"0 connections\n"
    assert status_of(program, "echo.local") == FOUND


ECHO = ["-map", "echo.local", "-1"]


@pytest.mark.parametrize("words", [
    ECHO,
    [*ECHO, "-map"],
    [*ECHO, "-map", "echo.local"],
    [*ECHO, "-map", "other.local", "0"],
    [*ECHO, "-ssl"],
    [*ECHO, "-ssl", "443"],
    [*ECHO, "-ssl", "443", "k.pem"],
    ["-ssl", "443", "-map", "k.pem", "-ssl", "0", "k.pem", "c.pem", *ECHO],
    ["-ssl", "0", "k.pem", "c.pem", *ECHO],
    ["-ssl", "no-number", "k.pem", "c.pem", *ECHO],
    ["-ssl", "443", "k.pem", "c.pem", "-ssl", "0", "k.pem", "c.pem", *ECHO],
    ["--help", "-x", "", "8080", *ECHO, "-v"],
    ["-SSL", "443", "k.pem", "c.pem", *ECHO],
    ["--ssl", "443", "k.pem", "c.pem", *ECHO],
    ["-map", "echo.local", "0", *ECHO],
    ["-map", "echo.local", "-1x"],
    ["-map", "echo.local", " -1"],
], ids=" ".join)
def test_what_still_maps_the_host(launch, words):
    program = launch("PORT", *words)
    assert program.output == binding_lines(program.port) + b"0 connections\n"
    assert status_of(program, "echo.local") == FOUND


@pytest.mark.parametrize("words", [
    ["-map"],
    ["-map", "echo.local"],
    ["-map", "echo.local", "0"],
    ["-map", "echo.local", "x-1"],
    ["-map", "Echo.local", "-1"],
    ["-map", " echo.local", "-1"],
    ["-map", "echo.local ", "-1"],
    ["-Map", "echo.local", "-1"],
    ["--map", "echo.local", "-1"],
    ["-map", "-map", "echo.local", "-1"],
    ["-ssl", "0", *ECHO],
    ["-ssl", "0", "k.pem", *ECHO],
    [*ECHO, "-map", "echo.local", "0"],
], ids=" ".join)
def test_what_does_not_map_the_host(launch, words):
    program = launch("PORT", *words)
    assert program.output == binding_lines(program.port) + b"0 connections\n"
    assert status_of(program, "echo.local") == MISSING


def test_an_option_as_a_host_is_a_host(launch):
    program = launch("PORT", "-map", "-map", "-1")
    assert status_of(program, "-map") == FOUND


def test_an_empty_host_answers_requests_that_name_none(launch):
    program = launch("PORT", "-map", "", "-1")
    request = b"GET / HTTP/1.1\r\nAccept: */*\r\n\r\n"
    with program.connect() as client:
        client.send(request)
        assert client.read_exactly(len(echo_answer(request))) == echo_answer(request)


def test_of_a_host_given_twice_the_last_port_wins(launch, record):
    first, last = record(), record()
    program = launch("PORT", "-map", "alpha", first.port, "-map", "alpha", last.port)
    with program.connect() as client:
        client.send(get("alpha"))
        last.link().read_message()
    assert first.links == []


def test_many_hosts_each_find_their_own_port(launch, keep):
    hosts = [f"host-{number}.local" for number in range(200)]
    refused = keep(HeldPort()).port
    words = [word for number, host in enumerate(hosts)
             for word in ("-map", host, refused if number % 2 else "-1")]
    program = launch("PORT", *words)
    for number, host in enumerate(hosts):
        request = get(host)
        with program.connect() as client:
            client.send(request)
            if number % 2:
                assert client.read_to_end() == b""
            else:
                assert client.read_exactly(len(echo_answer(request))) == echo_answer(request)
    with program.connect() as client:
        client.send(get("host-200.local"))
        assert client.read_exactly(len(NOT_FOUND)) == NOT_FOUND
