"""Input that no client means well by: what it is answered, and that it harms nobody else."""

import contextlib
import random
import re
import socket

import pytest

from support.bodies import MIB
from support.companion import served_meanwhile
from support.raw import get
from support.texts import NOT_FOUND, echo_answer, log_line

OK = b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"


@pytest.fixture
def program(serve, record):
    """The program over an echo host; everything a test opened must be closed when it is done."""
    program = serve({"echo.local": -1})
    before = program.descriptors()
    yield program
    program.await_descriptors(before)


def noise(length, seed):
    """Random bytes that never make the blank line that ends a head."""
    return random.Random(seed).randbytes(length).replace(b"\r\n", b"..")


def assert_unanswered(program, data):
    """Send `data` while others are served; nothing comes back and nothing is logged for it."""
    with program.connect() as client, served_meanwhile(program, "echo.local"):
        client.send(data)
        program.settle()
        assert client.is_quiet()
        client_port = b":%d " % client.local_port
    assert client_port not in program.output


@pytest.mark.parametrize("seed", range(3))
def test_binary_noise_is_left_unanswered(program, seed):
    assert_unanswered(program, noise(MIB, seed))


def test_binary_noise_with_a_blank_line_gets_404(program):
    with program.connect() as client, served_meanwhile(program, "echo.local"):
        for seed in range(10):
            client.send(noise(10000, seed) + b"\r\n\r\n")
            assert client.read_exactly(len(NOT_FOUND)) == NOT_FOUND


def test_a_head_that_never_ends_is_left_unanswered(program):
    assert_unanswered(program, b"GET / HTTP/1.1\r\nHost: echo.local\r\n" + 600000 * b"X: y\r\n")


@pytest.mark.parametrize("data", [
    b"\r\n\r\n", b"\r\n\r\n" + get("echo.local"), b"\n\n", b"GET / HTTP/1.1\nHost: echo.local\n\n",
    b"\r\r\n\n", b"\0" * 100000, b"\x16\x03\x01\x02\0\x01\0\x01\xfc\x03\x03" + bytes(501),
], ids=lambda data: repr(data[:20]))
def test_what_never_completes_a_head(program, data):
    assert_unanswered(program, data)


def test_a_header_line_of_1_mebibyte_is_taken_like_any_other(program):
    request = get("echo.local", "/", "X: " + MIB * "x")
    with program.connect() as client, served_meanwhile(program, "echo.local"):
        client.send(request)
        assert client.read_exactly(len(echo_answer(request))) == echo_answer(request)


def test_a_request_line_of_1_mebibyte_is_taken_and_logged_like_any_other(serve):
    program = serve({"echo.local": -1})
    request = get("echo.local", "/" + MIB * "x")
    with program.connect() as client:
        client.send(request)
        assert client.read_exactly(len(echo_answer(request))) == echo_answer(request)
        program.await_log(log_line("echo.local", client.local_port,
                                   f"GET /{MIB * 'x'} HTTP/1.1"))


def test_a_header_line_of_1_mebibyte_reaches_a_backend(serve, record):
    recorder = record()
    program = serve({"app.local": recorder})
    request = get("app.local", "/", "X: " + MIB * "x")
    with program.connect() as client:
        client.send(request)
        head = recorder.link().read_message().head
    assert head == request[:-2] + b"X-Forwarded-For: 127.0.0.1\r\n\r\n"


@pytest.mark.parametrize("head,logged,answer", [
    (b"GET /\0x HTTP/1.1\r\nHost: echo.local\r\n\r\n",
     b"[echo.local] 127.0.0.1:%d GET /\n", echo_answer),
    (b"GET / HTTP/1.1\r\nHost: echo.local\r\nX: \0\0\r\n\r\n",
     b"[echo.local] 127.0.0.1:%d GET / HTTP/1.1 []\n", echo_answer),
    (b"GET / HTTP/1.1\r\nHost: echo.local\0\r\n\r\n", b"[echo.local\n", None),
    (b"GET / HTTP/1.1\r\n\0Host: echo.local\r\n\r\n", b"[] 127.0.0.1:%d GET / HTTP/1.1 []\n", None),
    (b"\0\r\n\r\n", b"[] 127.0.0.1:%d   \n", None),
    (b"\r\nGET / HTTP/1.1\r\nHost: echo.local\r\n\r\n",
     b"[echo.local] 127.0.0.1:%d \r\nGET / HTTP/1.1 []\n", echo_answer),
    (b"X\r\n\r\n", b"[] 127.0.0.1:%d   X []\n", None),
    (b"GET / HTTP/1.1\r\nHost: echo.local\r\nContent-Length: -5\r\n\r\n",
     b"[echo.local] 127.0.0.1:%d GET / HTTP/1.1 []\n", echo_answer),
    (b"GET / HTTP/1.1\r\nHost: echo.local\r\nContent-Length: five\r\n\r\n",
     b"[echo.local] 127.0.0.1:%d GET / HTTP/1.1 []\n", echo_answer),
], ids=lambda value: repr(value)[:50])
def test_odd_heads_are_taken_as_they_are(serve, head, logged, answer):
    program = serve({"echo.local": -1})
    expected = answer(head) if answer else NOT_FOUND
    with program.connect() as client:
        for _ in range(2):
            client.send(head)
            assert client.read_exactly(len(expected)) == expected
        program.await_log(2 * (logged.replace(b"%d", b"%d" % client.local_port)))


@pytest.mark.parametrize("cut", [0, 3, 5, 8])
def test_a_body_longer_than_announced_is_passed_on_with_its_block(serve, record, cut):
    recorder = record()
    program = serve({"app.local": recorder, "echo.local": -1})
    body = b"0123456789"
    with program.connect() as client, served_meanwhile(program, "echo.local"):
        client.send(b"POST / HTTP/1.1\r\nHost: app.local\r\nContent-Length: 5\r\n\r\n" + body[:cut])
        link = recorder.link()
        link.read_until(b"\r\n\r\n")
        assert link.read_exactly(cut) == body[:cut]
        client.send(body[cut:])
        if cut < 5:
            assert link.read_exactly(10 - cut) == body[cut:]
        program.settle()
        assert link.is_quiet()
        link.send(OK)
        assert client.read_exactly(len(OK)) == OK


def test_urgent_data_ends_its_client_with_a_line(program):
    before = program.descriptors()
    with program.connect() as client, served_meanwhile(program, "echo.local"):
        client.send(get("none.local"))
        assert client.read_exactly(len(NOT_FOUND)) == NOT_FOUND
        client.socket.send(b"!", socket.MSG_OOB)
        with contextlib.suppress(ConnectionResetError):
            client.read_to_end()
    program.await_output(b" has errors.\n")
    program.await_descriptors(before)
    assert len(re.findall(rb"(?m)^\d+ has errors\.$", program.output)) == 1


def test_clients_that_leave_in_the_middle_of_a_request_leave_nothing(program):
    request = get("echo.local")
    with served_meanwhile(program, "echo.local"):
        for cut in range(len(request)):
            with program.connect() as client:
                client.send(request[:cut])


@pytest.mark.limit(90)
def test_10000_connections_opened_and_reset_leave_nothing(program):
    with served_meanwhile(program, "echo.local"):
        for number in range(10000):
            client = program.connect()
            if number % 3 == 1:
                client.send(b"GET / HT")
            elif number % 3 == 2:
                client.send(get("echo.local"))
            client.reset()


def test_backends_that_are_reset_by_clients_leave_nothing(serve, record):
    recorder = record()
    program = serve({"app.local": recorder, "echo.local": -1})
    before = program.descriptors()
    with served_meanwhile(program, "echo.local"):
        for _ in range(200):
            client = program.connect()
            client.send(get("app.local"))
            client.reset()
    program.await_descriptors(before)
