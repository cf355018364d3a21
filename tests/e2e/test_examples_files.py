"""The example that serves a folder."""

import os
import socket
import time

import pytest

from support.bodies import MIB, digest, write_file
from support.curl import curl, curl_digest, url
from support.raw import Stream, get


@pytest.fixture
def folder(tmp_path):
    """A folder with things to serve, and things beside it that must not be."""
    (tmp_path / "secret.txt").write_text("secret")
    (tmp_path / "outside").mkdir()
    (tmp_path / "outside" / "secret.txt").write_text("secret")
    root = tmp_path / "served"
    (root / "sub folder").mkdir(parents=True)
    (root / "page.html").write_text("<p>page")
    (root / "empty").write_text("")
    (root / "sub folder" / "100% ü..txt").write_text("odd name")
    (root / "%2e%2e").mkdir()
    (root / "%2e%2e" / "named so").write_text("a name as any other")
    (root / "link.txt").symlink_to(tmp_path / "secret.txt")
    (root / "inner.html").symlink_to("page.html")
    (root / "linked").symlink_to(tmp_path / "outside")
    (root / "sub folder" / "up").symlink_to("..")
    os.mkfifo(root / "pipe")
    return root


def answer(client, path, method="GET"):
    client.send(f"{method} {path} HTTP/1.1\r\nHost: x\r\n\r\n".encode("latin-1"))
    return client.read_message()


def test_files_serves_a_large_file_to_the_byte(example, folder):
    expected = write_file(folder / "large", 64)
    program = example("files", folder)
    assert curl_digest(url(program.port, "/large")) == (64 * MIB, expected)


@pytest.mark.parametrize("path, kind, body", [
    ("/page.html", b"text/html; charset=utf-8", b"<p>page"),
    ("/page.html?query=/..", b"text/html; charset=utf-8", b"<p>page"),
    ("/%70age%2ehtml", b"text/html; charset=utf-8", b"<p>page"),
    ("/empty", b"application/octet-stream", b""),
    ("/sub%20folder/100%25%20%c3%BC..txt", b"text/plain; charset=utf-8", b"odd name"),
    ("/%252e%252e/named%20so", b"application/octet-stream", b"a name as any other"),
])
def test_files_answers_with_type_length_and_content(example, folder, path, kind, body):
    program = example("files", folder)
    with program.connect() as client:
        for _ in range(2):
            message = answer(client, path)
            assert message.status_line == b"HTTP/1.1 200 OK"
            assert message.header(b"content-type") == kind
            assert message.header(b"content-length") == b"%d" % len(body)
            assert message.body == body


NOT_SERVED = [
    "/", "/missing", "/sub%20folder", "/sub%20folder/", "/page.html/", "/page.html/x", "//page.html",
    "/../secret.txt", "/sub%20folder/../../secret.txt", "/sub%20folder/../page.html",
    "/./page.html", "/..", "/.", "/%2e%2e/secret.txt", "/%2E%2E/secret.txt", "/.%2e/secret.txt",
    "/%2e%2e%2fsecret.txt", "/..%2fsecret.txt", "/sub%20folder%2f..%2f..%2fsecret.txt",
    "/%2fpage.html", "/..\\secret.txt", "/%c0%ae%c0%ae/secret.txt",
    "/link.txt", "/inner.html", "/linked/secret.txt", "/linked", "/sub%20folder/up/page.html",
    "/page.html%00", "/page.html%00.txt", "/%00", "/page.html%", "/page.html%2", "/%zzpage.html",
    "/% 70age.html", "/%+1page.html", "/pipe", "page.html", "../secret.txt", "*",
    "http://x/page.html", "/" + 300 * "x", "/" + "x/" * 3000,
]


def test_files_finds_nothing_else(example, folder):
    program = example("files", folder)
    with program.connect() as client:
        answer(client, "/")
        descriptors = program.descriptors()
        for path in NOT_SERVED:
            message = answer(client, path)
            assert message.status_line == b"HTTP/1.1 404 Not Found", path
            assert message.body == b"Not found\n"
        assert answer(client, "/page.html", "POST").status_line == b"HTTP/1.1 404 Not Found"
        assert answer(client, "/page.html").body == b"<p>page"
        assert program.descriptors() == descriptors


def test_files_answers_head_without_a_body(example, folder):
    program = example("files", folder)
    with program.connect() as client:
        client.send(b"HEAD /page.html HTTP/1.1\r\n\r\n")
        head = client.read_until(b"\r\n\r\n")
        assert head.startswith(b"HTTP/1.1 200 OK\r\n") and b"Content-Length: 7\r\n" in head
        assert answer(client, "/page.html").body == b"<p>page"
    assert b"Content-Length: 7\r\n" in curl("--head", url(program.port, "/page.html"))


def test_files_answers_a_range_with_the_whole(example, folder):
    program = example("files", folder)
    printed = curl("--range", "2-3", "--include", url(program.port, "/page.html"))
    assert printed.startswith(b"HTTP/1.1 200 OK\r\n") and printed.endswith(b"\r\n\r\n<p>page")


def test_files_closes_behind_its_answer_to_an_old_client(example, folder):
    program = example("files", folder)
    with program.connect() as client:
        client.send(b"GET /page.html HTTP/1.0\r\n\r\n")
        assert client.read_to_end().endswith(b"\r\n\r\n<p>page")


def test_files_waits_for_a_slow_reader_and_serves_others(example, folder):
    expected = write_file(folder / "large", 32)
    program = example("files", folder)
    slow = socket.socket()
    slow.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8192)
    slow.connect(("127.0.0.1", program.port))
    with Stream(slow) as client:
        client.send(get("x", "/large"))
        client.read_until(b"\r\n\r\n")
        pieces = []
        for _ in range(32):
            pieces.append(client.read_exactly(4096))
            time.sleep(0.01)  # what makes the reader slow
            assert curl(url(program.port, "/page.html")) == b"<p>page"
        pieces.append(client.read_exactly(32 * MIB - 32 * 4096))
        assert digest(pieces) == expected


def test_files_drops_a_file_whose_reader_leaves(example, folder):
    write_file(folder / "large", 32)
    program = example("files", folder)
    before = program.descriptors()
    with program.connect() as client:
        client.send(get("x", "/large"))
        client.read_exactly(MIB)
    program.await_descriptors(before)
