"""Requests and answers pass byte for byte, whatever their framing and size."""

import pytest

from support.bodies import MIB, file_digest, write_file
from support.curl import curl, curl_digest, url, version
from support.raw import get
from support.recorder import (answers, answers_and_closes, answers_early, closes, resets,
                              stays_silent)
from support.waiting import wait_until

HOST = ["-H", "Host: app.local"]
PIECE = b"HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\nhalf"
LENGTH = b"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello"


# --- curl and a recording backend: every byte compared ---

@pytest.mark.parametrize("option,word", [("--http1.0", "HTTP/1.0"), ("--http1.1", "HTTP/1.1")])
def test_a_request_of_curl_arrives_as_sent_but_for_the_added_line(serve, record, option, word):
    recorder = record(answers_and_closes(LENGTH))
    program = serve({"app.local": recorder})
    assert curl(option, *HOST, url(program.port, "/a?b")) == b"hello"
    assert recorder.link().received == (
        f"GET /a?b {word}\r\nHost: app.local\r\nUser-Agent: {version()}\r\nAccept: */*\r\n"
        "X-Forwarded-For: 127.0.0.1\r\n\r\n").encode()


ANSWERS = {
    "length": LENGTH,
    "length of 0": b"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n",
    "no body": b"HTTP/1.1 204 No Content\r\n\r\n",
    "close-delimited": b"HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nuntil the end",
    "HTTP/1.0": b"HTTP/1.0 200 OK\r\nServer: old\r\n\r\nuntil the end",
    "HTTP/1.0 kept": b"HTTP/1.0 200 OK\r\nConnection: keep-alive\r\nContent-Length: 2\r\n\r\nok",
    "chunked": (b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nTrailer: X\r\n\r\n"
                b"5;ext=1\r\nhello\r\n0\r\nX: y\r\n\r\n"),
    "interim": b"HTTP/1.1 103 Early Hints\r\nLink: </a>\r\n\r\n" + LENGTH,
    "bare line ends": b"HTTP/1.1 200 OK\nContent-Length: 2\n\nok",
    "folded": b"HTTP/1.1 200 OK\r\nX: a\r\n b\r\n\r\n",
    "not HTTP": b"hello, I am no web server\n",
    "zero bytes": b"\0" * 1000 + b"\r\n\r\n" + b"\0" * 1000,
    "all bytes": bytes(range(256)) * 100,
    "many megabytes": b"HTTP/1.1 200 OK\r\n\r\n" + bytes(range(1, 252)) * (3 * MIB // 250),
    "nothing": b"",
}


@pytest.mark.parametrize("answer", ANSWERS.values(), ids=ANSWERS.keys())
def test_an_answer_of_any_form_passes_unchanged_and_ends_with_the_backend(serve, record, answer):
    recorder = record(answers_and_closes(answer))
    program = serve({"app.local": recorder})
    with program.connect() as client:
        client.send(get("app.local"))
        assert client.read_to_end() == answer


def test_an_answer_in_pieces_passes_piece_by_piece(serve, record):
    recorder = record()
    program = serve({"app.local": recorder})
    with program.connect() as client:
        client.send(get("app.local"))
        recorder.link().read_message()
        for piece in (b"HTTP/1.1 200 OK\r\n", b"Transfer-Encoding: chunked\r\n\r\n", b"1\r",
                      b"\nx\r\n"):
            recorder.link().send(piece)
            assert client.read_exactly(len(piece)) == piece


def test_curl_decodes_a_chunked_answer_and_keeps_the_connection(serve, record):
    recorder = record(answers(ANSWERS["chunked"], LENGTH))
    program = serve({"app.local": recorder})
    first, second = url(program.port, "/1"), url(program.port, "/2")
    assert curl(*HOST, first, second) == b"hellohello"
    assert len(recorder.links) == 1


def test_a_body_in_pieces_arrives_whole(serve, record):
    recorder = record(answers(LENGTH))
    program = serve({"app.local": recorder})
    body = bytes(range(256)) * 1000
    with program.connect() as client:
        client.send(b"POST / HTTP/1.1\r\nHost: app.local\r\nContent-Length: %d\r\n\r\n" % len(body))
        for start in range(0, len(body), 1000):
            client.send(body[start:start + 1000])
        assert client.read_exactly(len(LENGTH)) == LENGTH
    assert bytes(recorder.link().received).partition(b"\r\n\r\n")[2] == body


def test_a_second_upload_on_a_kept_connection_starts_afresh(serve, record):
    recorder = record(answers(LENGTH))
    program = serve({"app.local": recorder})
    with program.connect() as client:
        for body in (b"first", b"second one"):
            client.send(b"POST / HTTP/1.1\r\nHost: app.local\r\nContent-Length: %d\r\n\r\n%s"
                        % (len(body), body))
            assert client.read_exactly(len(LENGTH)) == LENGTH
    program.settle()
    assert recorder.link().received.count(b"X-Forwarded-For: 127.0.0.1\r\n\r\n") == 2
    assert recorder.link().received.endswith(b"X-Forwarded-For: 127.0.0.1\r\n\r\nsecond one")


# --- curl and real servers ---

def test_curl_keeps_one_connection_for_two_hosts(serve, nginx, file_server):
    (nginx.root / "n").write_text("from nginx")
    (nginx.root.parent / "p").write_text("from python")
    program = serve({"a.local": nginx, "b.local": file_server, "echo.local": -1})
    used = ["-o", "-", "-w", " %{num_connects}\n"]
    printed = curl(*used, "-H", "Host: a.local", url(program.port, "/n"), "--next",
                   *used, "-H", "Host: echo.local", "-A", "x", url(program.port), "--next",
                   *used, "-H", "Host: a.local", url(program.port, "/n"), "--next",
                   *used, "-H", "Host: b.local", url(program.port, "/p")).decode()
    assert printed == ("from nginx 1\n"
                       "GET / HTTP/1.1\r\nHost: echo.local\r\nUser-Agent: x\r\nAccept: */*\r\n\r\n"
                       "Your IPv4 address is: 127.0.0.1 0\n"
                       "from nginx 0\n"
                       "from python 0\n")


@pytest.mark.parametrize("option", ["--http1.0", "--http1.1"])
@pytest.mark.parametrize("method", ["--get", "--head"])
def test_nginx_answers_alike_with_and_without_the_program(serve, nginx, option, method):
    (nginx.root / "page").write_text("a page\n" * 1000)
    program = serve({"app.local": nginx})

    def fetch(port):
        head, _, body = curl("-i", option, method, *HOST, url(port, "/page")).partition(b"\r\n\r\n")
        return [line for line in head.split(b"\r\n") if not line.startswith(b"Date")], body

    assert fetch(program.port) == fetch(nginx.port)


@pytest.mark.parametrize("method", ["--get", "--head"])
def test_pythons_server_answers_alike_with_and_without_the_program(serve, file_server, tmp_path,
                                                                   method):
    (tmp_path / "page").write_text("a page\n" * 1000)
    program = serve({"app.local": file_server})

    def fetch(port):
        head, _, body = curl("-i", method, *HOST, url(port, "/page")).partition(b"\r\n\r\n")
        return [line for line in head.split(b"\r\n") if not line.startswith(b"Date")], body

    assert fetch(program.port) == fetch(file_server.port)


@pytest.mark.parametrize("wanted,start,end", [("0-99", 0, 100), ("99900-", 99900, 100000),
                                              ("-50", 99950, 100000), ("5-5", 5, 6)])
def test_ranges_reach_nginx_and_come_back(serve, nginx, wanted, start, end):
    content = bytes(number % 251 for number in range(100000))
    (nginx.root / "file").write_bytes(content)
    program = serve({"app.local": nginx})
    answer = curl("-i", "-r", wanted, *HOST, url(program.port, "/file"))
    head, _, body = answer.partition(b"\r\n\r\n")
    assert head.startswith(b"HTTP/1.1 206 ")
    assert b"Content-Range: bytes %d-%d/100000" % (start, end - 1) in head
    assert body == content[start:end]


def test_an_upload_of_50_mebibytes_by_length_arrives_unchanged(serve, nginx, tmp_path):
    expected = write_file(tmp_path / "large", 50)
    program = serve({"app.local": nginx})
    status = curl(*HOST, "-H", "Expect:", "-w", "%{http_code}", "-T", tmp_path / "large",
                  url(program.port, "/large"))
    assert status == b"201"
    assert file_digest(nginx.root / "large") == expected


def test_curl_waits_for_100_continue_and_gets_it(serve, nginx, tmp_path):
    expected = write_file(tmp_path / "some", 2)
    program = serve({"app.local": nginx})
    printed = curl("-i", *HOST, "-H", "Expect: 100-continue", "--expect100-timeout", "30",
                   "-w", "%{time_total}", "-T", tmp_path / "some", url(program.port, "/some"))
    assert printed.startswith(b"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 201 Created\r\n")
    assert float(printed.rsplit(b"\n", 1)[1]) < 20
    assert file_digest(nginx.root / "some") == expected


def test_a_download_of_200_mebibytes_arrives_unchanged(serve, nginx):
    expected = write_file(nginx.root / "large", 200)
    program = serve({"app.local": nginx})
    assert curl_digest(*HOST, url(program.port, "/large")) == (200 * MIB, expected)


# --- backends and clients that misbehave ---

def test_a_backend_that_refuses_ends_the_client_without_a_word(serve, closed_port):
    program = serve({"app.local": closed_port})
    before = program.descriptors()
    with program.connect() as client:
        client.send(get("app.local"))
        assert client.read_to_end() == b""
        program.await_log(b"[app.local] 127.0.0.1:%d GET / HTTP/1.1 []\n" % client.local_port)
    program.await_descriptors(before)


@pytest.mark.parametrize("script", [closes, resets])
def test_a_backend_that_ends_instead_of_answering_ends_the_client(serve, record, script):
    recorder = record(script)
    program = serve({"app.local": recorder, "echo.local": -1})
    before = program.descriptors()
    with program.connect() as client:
        client.send(get("app.local"))
        assert client.read_to_end() == b""
    program.await_descriptors(before)


def test_a_backend_that_resets_after_a_piece_ends_the_client_after_that_piece(serve, record):
    recorder = record()
    program = serve({"app.local": recorder})
    with program.connect() as client:
        client.send(get("app.local"))
        recorder.link().read_message()
        recorder.link().send(PIECE)
        assert client.read_exactly(len(PIECE)) == PIECE
        recorder.link().reset()
        assert client.read_to_end() == b""


def test_a_backend_that_never_answers_is_left_when_the_client_leaves(serve, record):
    recorder = record(stays_silent)
    program = serve({"app.local": recorder})
    before = program.descriptors()
    with program.connect() as client:
        client.send(get("app.local"))
        wait_until(lambda: recorder.link().received.endswith(b"127.0.0.1\r\n\r\n"), "the request")
        program.settle()
        assert client.is_quiet()
    program.await_descriptors(before)


def test_an_answer_before_the_end_of_the_request_comes_at_once(serve, record):
    recorder = record(answers_early(LENGTH))
    program = serve({"app.local": recorder})
    with program.connect() as client:
        client.send(b"POST / HTTP/1.1\r\nHost: app.local\r\nContent-Length: 6\r\n\r\nabc")
        assert client.read_exactly(len(LENGTH)) == LENGTH
        client.send(b"def")
        program.settle()
    with program.connect() as client:
        client.send(get("app.local"))
        assert client.read_exactly(len(LENGTH)) == LENGTH
    wait_until(lambda: recorder.link(0).received.endswith(b"\r\n\r\nabcdef"), "the whole body")


def test_an_early_refusal_that_ends_the_backend_ends_an_upload(serve, record):
    recorder = record()
    program = serve({"app.local": recorder})
    refusal = b"HTTP/1.1 413 Too Large\r\nContent-Length: 0\r\n\r\n"
    with program.connect() as client:
        client.send(b"POST / HTTP/1.1\r\nHost: app.local\r\nContent-Length: 1000\r\n\r\n")
        recorder.link().read_until(b"\r\n\r\n")
        recorder.link().send(refusal)
        recorder.link().close()
        assert client.read_to_end() == refusal


def leave_orderly(client):
    client.close()


def leave_abruptly(client):
    client.reset()


@pytest.mark.parametrize("leave", [leave_orderly, leave_abruptly])
def test_a_client_that_leaves_in_mid_answer_releases_the_backend(serve, record, leave):
    recorder = record()
    program = serve({"app.local": recorder})
    before = program.descriptors()
    client = program.connect()
    client.send(get("app.local"))
    recorder.link().read_message()
    recorder.link().send(PIECE)
    assert client.read_exactly(len(PIECE)) == PIECE
    leave(client)
    assert recorder.link().read_to_end() == b""
    program.await_descriptors(before)


def test_a_client_that_leaves_a_download_unread_releases_the_backend(serve, nginx):
    write_file(nginx.root / "large", 30)
    program = serve({"app.local": nginx})
    before = program.descriptors()
    client = program.connect()
    client.send(get("app.local", "/large"))
    client.read_exactly(1000)
    client.reset()
    program.await_descriptors(before)
