"""The example that stands in front of three services."""

import contextlib
import http.client
import re

import pytest

from support.bodies import MIB, file_digest, write_file
from support.curl import curl, url
from support.raw import get
from support.recorder import answers

OK = b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"


@pytest.fixture
def gateway(example, record, nginx, file_server):
    """The gateway, with a recorder for users, Python's server for orders and nginx for the site."""
    users = record(answers(OK))
    program = example("gateway", users.port, file_server.port, nginx.port)
    program.users, program.site = users, nginx
    return program


def seen_by_users(gateway):
    return b"".join(bytes(link.received) for link in gateway.users.links)


def test_gateway_chooses_a_service_by_its_path(gateway, tmp_path):
    (tmp_path / "orders").mkdir()
    (tmp_path / "orders" / "list").write_text("an order")
    (gateway.site.root / "index.html").write_text("a page")
    client = http.client.HTTPConnection("127.0.0.1", gateway.port, timeout=20)
    for path, expected in [("/", b"a page"), ("/users/1", b"ok"), ("/users?a=b", b"ok"),
                           ("/index.html", b"a page"), ("/orders/list", b"an order")]:
        client.request("GET", path)
        assert client.getresponse().read() == expected
    client.close()
    assert curl(url(gateway.port, "/orders/list"), url(gateway.port)) == b"an ordera page"


def test_gateway_says_who_asks_and_drops_what_the_client_says(gateway):
    lines = ["X-Forwarded-For: 1.2.3.4", "x_forwarded_for: 1.2.3.5", "X-Real-IP: 1.2.3.6",
             "Forwarded: for=1.2.3.7"]
    headers = [word for line in lines for word in ("--header", line)]
    curl(*headers, url(gateway.port, "/users/1"))
    seen = seen_by_users(gateway)
    assert seen.endswith(b"X-Forwarded-For: 127.0.0.1\r\n\r\n")
    assert b"1.2.3." not in seen
    gateway.await_output(b"127.0.0.1:")


@pytest.mark.parametrize("path, status", [
    ("/users/admin", 403), ("/users/admin/x", 403), ("/users/%61dmin", 403),
    ("/users/admin%00", 403), ("/users//admin", 400), ("/users/./admin", 400),
    ("/x/..%2fusers/admin", 400), ("/users/x/%2e%2e/admin", 400), ("/users\\admin", 400),
    ("/users/%2561dmin", 400), ("/users;x/admin", 400),
])
def test_gateway_keeps_a_path_to_itself_in_every_spelling(gateway, path, status):
    printed = curl("--path-as-is", "--write-out", "%{http_code}", url(gateway.port, path))
    assert printed.endswith(b"%d" % status)
    assert gateway.users.links == []


def test_gateway_passes_no_second_request_in_a_body(gateway):
    inner = get("x", "/users/admin")
    outer = b"POST /users/admin HTTP/1.1\r\nHost: x\r\nContent-Length: %d\r\n\r\n" % len(inner)
    with gateway.connect() as client:
        client.send(get("x", "/users/1"))
        assert client.read_message().body == b"ok"
        client.send(outer + inner + get("x", "/users/2"))
        assert client.read_message().status_line == b"HTTP/1.1 403 Forbidden"
        assert client.read_message().body == b"ok"
    assert re.findall(rb"(?m)^GET (\S+)", seen_by_users(gateway)) == [b"/users/1", b"/users/2"]
    assert b"/users/admin" not in seen_by_users(gateway)


def test_gateway_refuses_what_two_readers_read_differently(gateway):
    lines = ["Transfer-Encoding: chunked", "Content-Length: 0", "Content-Length: +31", "X: a\r\n b"]
    with contextlib.ExitStack() as stack:
        clients = [stack.enter_context(gateway.connect()) for _ in lines]
        for client, line in zip(clients, lines):
            client.send(get("x", "/users/1"))
            assert client.read_message().body == b"ok"
            client.send(get("x", "/users/2", "Content-Length: 31", line) + get("x", "/users/admin"))
        for client in clients:
            assert client.read_message().status_line[9:12] in [b"400", b"411"]
        for client in clients:
            assert client.read_to_end() == b""
    assert b"/users/2" not in seen_by_users(gateway)


def test_gateway_refuses_targets_that_name_a_host(gateway):
    with gateway.connect() as client:
        client.send(get("x", "http://x/users/admin") + get("x", "/users/1"))
        assert client.read_message().status_line == b"HTTP/1.1 400 Bad Request"
        assert client.read_message().body == b"ok"


def test_gateway_answers_pipelined_requests_of_several_services_in_order(gateway):
    (gateway.site.root / "page").write_text("page")
    with gateway.connect() as client:
        client.send((get("x", "/page") + get("x", "/users/1") + get("x", "/users/admin")) * 20)
        bodies = [client.read_message().body for _ in range(60)]
    assert bodies == [b"page", b"ok", b"not from here\n"] * 20


def test_gateway_takes_uploads_that_wait_for_a_word(gateway, tmp_path):
    expected = write_file(tmp_path / "upload", 20)
    curl("--header", "Expect: 100-continue", "--expect100-timeout", 30, "--upload-file",
         tmp_path / "upload", url(gateway.port, "/taken"))
    assert file_digest(gateway.site.root / "taken") == expected
    assert (gateway.site.root / "taken").stat().st_size == 20 * MIB


def test_gateway_says_that_a_service_is_down(example, closed_port):
    program = example("gateway", closed_port, closed_port, closed_port)
    assert curl("--write-out", "%{http_code}", url(program.port)) == b"502"
