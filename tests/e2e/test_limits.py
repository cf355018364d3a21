"""What the program does not do, and what surprises those who expect it to."""

import socket

import pytest

from support.bodies import MIB, blocks, digest
from support.raw import get
from support.texts import NOT_FOUND, TOO_LONG, echo_answer, log_line
from support.waiting import wait_until

OK = b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"
ADDED = b"X-Forwarded-For: 127.0.0.1\r\n\r\n"


# --- bodies without a length ---

CHUNKED = b"POST / HTTP/1.1\r\nHost: app.local\r\nTransfer-Encoding: chunked\r\n"
CHUNKS = [b"5\r\nhello\r\n", b"1\r\nx\r\n0\r\n\r\n"]


def test_a_chunked_upload_is_relayed_as_far_as_it_comes_in_one_block_with_its_head(serve, record):
    recorder = record()
    program = serve({"app.local": recorder})
    with program.connect() as client:
        client.send(CHUNKED + b"\r\n" + b"".join(CHUNKS))
        link = recorder.link()
        assert link.read_until(CHUNKS[1]) == CHUNKED + ADDED + b"".join(CHUNKS)
        link.send(OK)
        assert client.read_exactly(len(OK)) == OK


def test_what_comes_of_a_chunked_upload_after_its_head_is_taken_for_a_next_request(serve, record):
    recorder = record()
    program = serve({"app.local": recorder})
    with program.connect() as client:
        client.send(CHUNKED + b"\r\n" + CHUNKS[0])
        link = recorder.link()
        assert link.read_until(CHUNKS[0]) == CHUNKED + ADDED + CHUNKS[0]
        client.send(CHUNKS[1])
        assert client.read_exactly(len(NOT_FOUND)) == NOT_FOUND
        program.await_log(log_line("app.local", client.local_port, "POST / HTTP/1.1"),
                          log_line("", client.local_port, "  1"))
        program.settle()
        assert link.is_quiet()
        link.send(OK)
        assert client.read_exactly(len(OK)) == OK


# --- upgraded connections ---

UPGRADE = (b"GET /chat HTTP/1.1\r\nHost: app.local\r\nUpgrade: websocket\r\n"
           b"Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n")
SWITCHING = b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n\r\n"
FRAME = b"\x81\x85\0\0\0\0hello"


def test_an_upgrade_request_is_forwarded_without_its_connection_line(serve, record):
    recorder = record()
    program = serve({"app.local": recorder})
    with program.connect() as client:
        client.send(UPGRADE + b"Connection: Upgrade\r\n\r\n")
        assert recorder.link().read_until(b"\r\n\r\n") == UPGRADE + ADDED


def test_of_an_upgraded_stream_only_the_direction_to_the_client_is_relayed(serve, record):
    recorder = record()
    program = serve({"app.local": recorder})
    with program.connect() as client:
        client.send(UPGRADE + b"Connection: Upgrade\r\n\r\n")
        link = recorder.link()
        link.read_until(b"\r\n\r\n")
        link.send(SWITCHING + FRAME)
        assert client.read_exactly(len(SWITCHING + FRAME)) == SWITCHING + FRAME
        client.send(FRAME)
        program.settle()
        assert link.is_quiet()
        link.send(FRAME)
        assert client.read_exactly(len(FRAME)) == FRAME


def test_an_upgraded_stream_that_holds_a_blank_line_gets_404_into_its_middle(serve, record):
    recorder = record()
    program = serve({"app.local": recorder})
    with program.connect() as client:
        client.send(UPGRADE + b"\r\n")
        link = recorder.link()
        link.read_until(b"\r\n\r\n")
        link.send(SWITCHING)
        assert client.read_exactly(len(SWITCHING)) == SWITCHING
        client.send(FRAME + b"\r\n\r\n")
        assert client.read_exactly(len(NOT_FOUND)) == NOT_FOUND
        program.settle()
        assert link.is_quiet()


def test_what_is_announced_as_body_of_an_upgrade_is_relayed(serve, record):
    recorder = record()
    program = serve({"app.local": recorder})
    with program.connect() as client:
        client.send(UPGRADE + b"Content-Length: 1000\r\n\r\n")
        link = recorder.link()
        link.read_until(b"\r\n\r\n")
        link.send(SWITCHING)
        assert client.read_exactly(len(SWITCHING)) == SWITCHING
        for _ in range(3):
            client.send(FRAME)
            assert link.read_exactly(len(FRAME)) == FRAME


def test_all_that_follows_a_request_of_http_1_0_is_relayed(serve, record):
    recorder = record()
    program = serve({"app.local": recorder})
    with program.connect() as client:
        client.send(UPGRADE.replace(b"1.1", b"1.0") + b"\r\n")
        link = recorder.link()
        link.read_until(b"\r\n\r\n")
        for data in (FRAME, get("app.local"), b"\r\n\r\n"):
            client.send(data)
            assert link.read_exactly(len(data)) == data
            link.send(data)
            assert client.read_exactly(len(data)) == data


# --- pipelining ---

def test_a_pipelined_request_is_passed_to_the_first_ones_backend_as_its_body(serve, record):
    recorder, other = record(), record()
    program = serve({"app.local": recorder, "other.local": other})
    second = get("other.local", "/2", "Connection: close")
    with program.connect() as client:
        client.send(get("app.local", "/1") + second)
        link = recorder.link()
        assert link.read_until(second) == get("app.local", "/1")[:-2] + ADDED + second
        program.settle()
        assert link.is_quiet()
        program.await_log(log_line("app.local", client.local_port, "GET /1 HTTP/1.1"))
    assert other.links == []


def test_a_pipelined_request_to_the_echo_handler_is_lost(serve):
    program = serve({"echo.local": -1})
    first, third = get("echo.local", "/1"), get("echo.local", "/3")
    with program.connect() as client:
        client.send(first + get("echo.local", "/2"))
        assert client.read_exactly(len(echo_answer(first))) == echo_answer(first)
        client.send(third)
        assert client.read_exactly(len(echo_answer(third))) == echo_answer(third)
        program.await_log(log_line("echo.local", client.local_port, "GET /1 HTTP/1.1"),
                          log_line("echo.local", client.local_port, "GET /3 HTTP/1.1"))


def test_an_echo_answer_overtakes_a_backend(serve, record):
    recorder = record()
    program = serve({"app.local": recorder, "echo.local": -1})
    with program.connect() as client:
        client.send(get("app.local"))
        recorder.link().read_message()
        client.send(get("echo.local"))
        expected = echo_answer(get("echo.local"))
        assert client.read_exactly(len(expected)) == expected
        recorder.link().send(OK)
        assert client.read_exactly(len(OK)) == OK


def test_an_answer_still_owed_is_lost_when_the_backend_is_changed(serve, record):
    first, second = record(), record()
    program = serve({"a.local": first, "b.local": second})
    with program.connect() as client:
        client.send(get("a.local"))
        first.link().read_message()
        client.send(get("b.local"))
        second.link().read_message()
        assert first.link().read_to_end() == b""
        second.link().send(OK)
        assert client.read_exactly(len(OK)) == OK
        program.settle()
        assert client.is_quiet()


# --- ends of connections ---

def test_connection_close_of_http_1_1_is_not_honoured(serve, record):
    recorder = record()
    program = serve({"app.local": recorder, "echo.local": -1})
    with program.connect() as client:
        for _ in range(2):
            request = get("echo.local", "/", "Connection: close")
            client.send(request)
            assert client.read_exactly(len(echo_answer(request))) == echo_answer(request)
        client.send(get("app.local", "/", "Connection: close"))
        assert b"Connection" not in recorder.link().read_message().head
        recorder.link().send(OK)
        assert client.read_exactly(len(OK)) == OK
        program.settle()
        assert client.is_quiet()


@pytest.mark.parametrize("word", ["close", "keep-alive", "Keep-Alive"])
def test_the_echo_handler_keeps_a_client_of_http_1_0(serve, word):
    program = serve({"echo.local": -1})
    request = get("echo.local", "/", f"Connection: {word}").replace(b"1.1", b"1.0")
    with program.connect() as client:
        client.send(request)
        assert client.read_exactly(len(echo_answer(request))) == echo_answer(request)
        program.settle()
        assert client.is_quiet()


def test_a_client_of_http_1_0_that_does_not_ask_for_more_has_one_request(serve):
    program = serve({"echo.local": -1})
    for word, answered in [("Keep-Alive", True), ("keep-alive", False)]:
        request = get("echo.local", "/", f"Connection: {word}").replace(b"1.1", b"1.0")
        expected = echo_answer(request)
        with program.connect() as client:
            client.send(request)
            assert client.read_exactly(len(expected)) == expected
            client.send(request)
            if answered:
                assert client.read_exactly(len(expected)) == expected
            program.settle()
            assert client.is_quiet()


def test_a_client_that_half_closes_loses_its_answer(serve, record):
    recorder = record()
    program = serve({"app.local": recorder})
    with program.connect() as client:
        client.send(get("app.local"))
        recorder.link().read_message()
        client.finish()
        assert client.read_to_end() == b""
    assert recorder.link().read_to_end() == b""


def test_a_refused_connect_is_not_answered_with_502(serve, closed_port):
    program = serve({"app.local": closed_port})
    with program.connect() as client:
        client.send(get("app.local"))
        assert client.read_to_end() == b""


# --- the echo handler ---

def test_the_echo_answer_to_head_has_a_body(serve):
    program = serve({"echo.local": -1})
    request = b"HEAD / HTTP/1.1\r\nHost: echo.local\r\n\r\n"
    with program.connect() as client:
        client.send(request)
        assert client.read_exactly(len(echo_answer(request))) == echo_answer(request)


def test_the_echo_answer_comes_before_the_body_which_it_leaves_out(serve):
    program = serve({"echo.local": -1})
    request = b"POST / HTTP/1.1\r\nHost: echo.local\r\nContent-Length: 5\r\n\r\n"
    with program.connect() as client:
        client.send(request)
        assert client.read_exactly(len(echo_answer(request))) == echo_answer(request)
        client.send(b"hello" + request)
        program.settle()
        assert client.is_quiet()
        client.send(request)
        assert client.read_exactly(len(echo_answer(request))) == echo_answer(request)


# --- sizes ---

def test_a_port_above_65535_is_what_the_resolver_makes_of_it(serve, record):
    recorder = record()
    port = recorder.port + 65536
    assert socket.getaddrinfo("localhost", str(port), socket.AF_INET, socket.SOCK_STREAM)[0][4] == (
        "127.0.0.1", recorder.port)
    program = serve({"app.local": port})
    with program.connect() as client:
        client.send(get("app.local"))
        recorder.link().read_message()


def test_a_queue_to_a_client_that_does_not_read_grows_without_bound(serve, record):
    recorder = record()
    program = serve({"app.local": recorder, "echo.local": -1})
    answer = [b"HTTP/1.1 200 OK\r\n\r\n", *blocks(96)]
    with program.connect() as client:
        client.send(get("app.local"))
        link = recorder.link()
        link.read_message()
        for block in answer:
            link.send(block)
        link.close()
        program.settle()
        wait_until(lambda: len(program.sockets()) == 2, "the end of the backend connection")
        assert digest([client.read_to_end()]) == digest(answer)


def test_a_queue_to_a_backend_that_does_not_read_grows_without_bound(serve, record):
    recorder = record()
    program = serve({"app.local": recorder})
    head = b"POST / HTTP/1.1\r\nHost: app.local\r\nContent-Length: %d\r\n\r\n" % (64 * MIB)
    with program.connect() as client:
        client.send(head)
        link = recorder.link()
        for block in blocks(64):
            client.send(block)
        assert link.read_until(ADDED) == head[:-2] + ADDED
        assert digest([link.read_exactly(64 * MIB)]) == digest(blocks(64))


def test_a_request_of_more_than_100_mebibytes_is_cut_and_stalls(serve, record):
    recorder = record()
    program = serve({"app.local": recorder})
    head = b"POST / HTTP/1.1\r\nHost: app.local\r\nContent-Length: %d\r\n\r\n" % (110 * MIB)
    with program.connect() as client:
        client.send(head)
        for block in blocks(110):
            client.send(block)
        program.await_output(TOO_LONG)
        recorder.link().read_until(ADDED)
        program.settle()
        assert client.is_quiet()
    relayed = recorder.link().read_to_end()
    assert 100 * MIB < len(head) + len(relayed) <= 101 * MIB
    assert b"".join(blocks(110)).startswith(relayed)


def test_a_block_that_crosses_100_mebibytes_is_still_relayed(serve, record):
    recorder = record()
    program = serve({"app.local": recorder})
    head = b"POST / HTTP/1.1\r\nHost: app.local\r\nContent-Length: %d\r\n" % (99 * MIB + 3)
    head += b"X: %s\r\n\r\n" % (b"x" * (MIB - len(head) - 7))
    assert len(head) == MIB
    with program.connect() as client:
        for piece in (head, *blocks(99)):
            client.send(piece)
        link = recorder.link()
        assert link.read_until(ADDED) == head[:-2] + ADDED
        assert digest([link.read_exactly(99 * MIB)]) == digest(blocks(99))
        client.send(b"end")
        assert link.read_exactly(3) == b"end"
        client.send(get("none.local"))
        assert client.read_exactly(len(NOT_FOUND)) == NOT_FOUND
    assert TOO_LONG not in program.output
