"""Start-up with TLS: what is printed, what listens, and redirects."""

import pytest

from support.curl import curl, url
from support.ports import HeldPort
from support.program import run
from support.raw import connect, get
from support.texts import SHUTTING_DOWN, bind_failure_lines, binding_lines, echo_answer
from support.waiting import wait_until

COUNTS = b"0 connections\n0 connections\n"
FAILED = b"Failed to start server(s).\n"


def redirect_line(port, ssl_port):
    return b"Redirecting http (%d) to https (%d)\n" % (port, ssl_port)


def await_both_counts(program):
    """Each of the two servers prints its first count in the first turn."""
    wait_until(lambda: program.output.endswith(COUNTS), "two counts")


def test_both_ports_listen_the_redirecting_one_first(serve_tls):
    program = serve_tls({})
    await_both_counts(program)
    assert program.output == (
        redirect_line(program.port, program.ssl_port) + binding_lines(program.port)
        + binding_lines(program.ssl_port) + COUNTS)
    assert len(program.sockets()) == 2


def test_with_port_0_only_the_https_port_listens(serve_tls, authority):
    program = serve_tls({"echo.local": -1}, http=False)
    await_both_counts(program)
    assert program.output == (
        b"Using https only (no http)\n" + binding_lines(program.ssl_port) + COUNTS)
    assert len(program.sockets()) == 1
    with connect(program.ssl_port, authority.trust()) as client:
        client.send(get("echo.local"))
        answer = echo_answer(get("echo.local"))
        assert client.read_exactly(len(answer)) == answer


def test_a_backend_is_reached_with_https_only(serve_tls, authority, record):
    recorder = record()
    program = serve_tls({"app.local": recorder}, http=False)
    with connect(program.ssl_port, authority.trust()) as client:
        client.send(get("app.local"))
        assert recorder.link().read_message().status_line == b"GET / HTTP/1.1"
        recorder.link().send(b"answer")
        assert client.read_exactly(6) == b"answer"


def test_of_two_tls_blocks_the_last_one_counts(launch, keep, credentials):
    ssl_port = keep(HeldPort()).port
    program = launch("0", "-ssl", 1, "k.pem", "c.pem", "-ssl", ssl_port, credentials.key,
                     credentials.crt)
    assert b"Binding to port %d on" % ssl_port in program.output


def test_a_plain_port_in_use_is_reported_and_ends_with_status_0(keep, occupied_port, credentials):
    ssl_port = keep(HeldPort()).port
    assert run(occupied_port, "-ssl", ssl_port, credentials.key, credentials.crt) == (
        redirect_line(occupied_port, ssl_port) + binding_lines(occupied_port)
        + bind_failure_lines() + FAILED)


def test_an_https_port_in_use_is_reported_and_ends_with_status_0(keep, occupied_port, credentials):
    port = keep(HeldPort()).port
    assert run(port, "-ssl", occupied_port, credentials.key, credentials.crt) == (
        redirect_line(port, occupied_port) + binding_lines(port) + binding_lines(occupied_port)
        + bind_failure_lines() + FAILED)


def test_an_interrupt_prints_one_line_and_ends_with_status_0(serve_tls):
    program = serve_tls({})
    await_both_counts(program)
    before = program.output
    program.interrupt()
    assert program.await_end() == 0
    assert program.output == before + SHUTTING_DOWN


@pytest.mark.parametrize("request_head, target", [
    (get("app.local:80", "/a?x=1"), b"app.local:%d/a"),
    (get("app.local", "/a"), b"app.local:%d/a"),
    (b"GET /a HTTP/1.1\r\n\r\n", b":%d/a"),
    (b"POST /a HTTP/1.1\r\nHost: app.local\r\nContent-Length: 3\r\n\r\nabc", b"app.local:%d/a"),
], ids=["port and query", "no port", "no host", "body"])
def test_a_plain_request_is_redirected_and_its_connection_closed(serve_tls, request_head, target):
    program = serve_tls({"app.local": -1})
    with program.connect() as client:
        client.send(request_head)
        assert client.read_to_end() == (
            b"HTTP/1.1 301 Moved Permanently\r\nLocation: https://" + target % program.ssl_port
            + b"\r\nConnection: close\r\nContent-Length: 0\r\n\r\n")


def test_curl_follows_the_redirect_to_the_page(serve_tls, authority):
    program = serve_tls({"127.0.0.1:SSL": -1})
    body = curl("--location", "--cacert", authority.crt, url(program.port, "/page?lost=1"))
    assert body.startswith(b"GET /page HTTP/1.1\r\n")
