"""Which host is answered how, what the backend is told, and what is logged."""

import pytest

from support.raw import get
from support.texts import BAD_GATEWAY, NOT_FOUND, echo_answer, log_line

OK = b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"


def ask(client, request, answer):
    """Send a request and compare the answer, to the byte."""
    client.send(request)
    assert client.read_exactly(len(answer)) == answer


def forwarded(recorder, program, request):
    """What the backend receives for a request that `program` sends it."""
    with program.connect() as client:
        client.send(request)
        received = recorder.link().read_until(b"X-Forwarded-For: 127.0.0.1\r\n\r\n")
        program.settle()
        assert recorder.link().is_quiet()
        return received


# --- 404, echo and 502 ---

def test_an_unmapped_host_gets_404_and_stays_connected(serve):
    program = serve({"app.local": -1})
    with program.connect() as client:
        ask(client, get("other.local"), NOT_FOUND)
        ask(client, get("other.local"), NOT_FOUND)
        program.await_log(*2 * [log_line("other.local", client.local_port, "GET / HTTP/1.1")])


def test_without_a_host_header_the_log_shows_empty_brackets(serve):
    program = serve({"app.local": -1})
    with program.connect() as client:
        ask(client, b"GET /x HTTP/1.1\r\nUser-Agent: a b\r\n\r\n", NOT_FOUND)
        program.await_log(log_line("", client.local_port, "GET /x HTTP/1.1", "a b"))


@pytest.mark.parametrize("host", [
    "APP.local", "app.local:80", "app.local.", "app.loca", " app.local", "app.local ",
    "app.local\t", "app.local\0", "*", "app?local",
])
def test_a_host_that_differs_in_a_byte_is_another_host(serve, host):
    program = serve({"app.local": -1})
    with program.connect() as client:
        ask(client, get(host), NOT_FOUND)


def test_hosts_with_a_port_or_capitals_match_as_they_were_mapped(serve):
    program = serve({"app.local:8080": -1, "App.Local": -1})
    with program.connect() as client:
        for host in ("app.local:8080", "App.Local"):
            ask(client, get(host), echo_answer(get(host)))
        for host in ("app.local", "app.local:8081", "app.Local"):
            ask(client, get(host), NOT_FOUND)


@pytest.mark.parametrize("head,host", [
    (b"GET / HTTP/1.1\r\nHOST: app.local\r\n\r\n", "app.local"),
    (b"GET / HTTP/1.1\r\nhOsT: app.local\r\nHost: other\r\n\r\n", "app.local"),
    (b"GET / HTTP/1.1\r\nA: 1\r\nHost: other\r\nHost: app.local\r\n\r\n", "other"),
    (b"GET / HTTP/1.1\r\nHost:app.local\r\n\r\n", "pp.local"),
    (b"GET / HTTP/1.1\r\nHost:  app.local\r\n\r\n", " app.local"),
    (b"GET / HTTP/1.1\r\nHostess: x\r\nHost: app.local\r\n\r\n", "s: x"),
    (b"GET / HTTP/1.1\r\nX-Host: app.local\r\n\r\n", ""),
    (b"GET http://app.local/ HTTP/1.1\r\nHost: other\r\n\r\n", "other"),
    (b"GET http://other/ HTTP/1.1\r\nHost: app.local\r\n\r\n", "app.local"),
], ids=str)
def test_which_bytes_are_taken_for_the_host(serve, head, host):
    program = serve({"app.local": -1})
    with program.connect() as client:
        ask(client, head, echo_answer(head) if host == "app.local" else NOT_FOUND)
        request_line = head.split(b"\r\n")[0].decode()
        program.await_log(log_line(host, client.local_port, request_line))


def test_the_echo_answer_is_the_head_and_the_address(serve):
    program = serve({"echo.local": -1})
    request = (b"PATCH /a/b?c=d HTTP/1.1\r\nHost: echo.local\r\nConnection: x\r\n"
               b"X-Forwarded-For: 10.0.0.1\r\nX:  spaced \r\n\r\n")
    with program.connect() as client:
        ask(client, request, echo_answer(request))


def test_the_log_line_names_the_agent_and_the_forwarded_address(serve):
    program = serve({"echo.local": -1})
    with program.connect() as client:
        for headers, agent, address in [
                ([], "", "127.0.0.1"),
                (["User-Agent: curl/7.0"], "curl/7.0", "127.0.0.1"),
                (["user-agent: a [b]", "x-forwarded-for: 10.0.0.7, 10.0.0.8"],
                 "a [b]", "10.0.0.7, 10.0.0.8"),
                (["X-Forwarded-For: "], "", "127.0.0.1")]:
            request = get("echo.local", "/p?q", *headers)
            ask(client, request, echo_answer(request))
        port = client.local_port
        program.await_log(
            log_line("echo.local", port, "GET /p?q HTTP/1.1"),
            log_line("echo.local", port, "GET /p?q HTTP/1.1", "curl/7.0"),
            log_line("echo.local", port, "GET /p?q HTTP/1.1", "a [b]", "10.0.0.7, 10.0.0.8"),
            log_line("echo.local", port, "GET /p?q HTTP/1.1"))


def test_a_port_that_the_resolver_refuses_gets_502_and_an_end(serve):
    program = serve({"app.local": -5})
    with program.connect() as client:
        client.send(get("app.local", "/x"))
        assert client.read_to_end() == BAD_GATEWAY
        program.await_log(log_line("app.local", client.local_port, "GET /x HTTP/1.1"),
                          b"getaddrinfo() failed for host localhost:-5!\n")


def test_502_is_given_up_a_body_that_still_comes(serve, record):
    recorder = record()
    program = serve({"app.local": recorder, "bad.local": -5})
    with program.connect() as client:
        client.send(get("app.local"))
        recorder.link().read_message()
        recorder.link().send(OK)
        assert client.read_exactly(len(OK)) == OK
        client.send(b"POST / HTTP/1.1\r\nHost: bad.local\r\nContent-Length: 9\r\n\r\nhalf")
        assert client.read_to_end() == BAD_GATEWAY
    assert recorder.link().read_to_end() == b""


# --- what the backend is told ---

@pytest.mark.parametrize("request_line", [
    "GET / HTTP/1.1", "GET /a%20b?c=d&e HTTP/1.0", "OPTIONS * HTTP/1.1", "BREW /pot HTTP/9.9",
    "GET http://other/x HTTP/1.1", "CONNECT other:443 HTTP/1.1", "get /?x HTTP/1.1",
])
def test_the_request_line_is_passed_on_as_it_was_written(serve, record, request_line):
    recorder = record()
    program = serve({"app.local": recorder})
    head = request_line.encode() + b"\r\nHost: app.local\r\n"
    assert forwarded(recorder, program, head + b"\r\n") == (
        head + b"X-Forwarded-For: 127.0.0.1\r\n\r\n")


@pytest.mark.parametrize("host,head,request_line", [
    ("", "GET /x\r\n", "GET  GET /x"),
    ("", "x\r\n", "  x"),
    ("", "GET /x\r\nA:b\r\n", "GET  GET /x"),
    ("app.local", "GET /x\r\nHost: app.local\r\n", "GET /x\r\nHost: app.local"),
], ids=repr)
def test_a_short_request_line_is_split_at_the_spaces_that_the_head_has(serve, record, host, head,
                                                                       request_line):
    recorder = record()
    program = serve({host: recorder})
    with program.connect() as client:
        client.send(head.encode() + b"\r\n")
        headers = head.partition("\r\n")[2]
        assert recorder.link().read_message().head == (
            f"{request_line}\r\n{headers}X-Forwarded-For: 127.0.0.1\r\n\r\n".encode())
        program.await_log(log_line(host, client.local_port, request_line))


def test_connection_and_proxy_lines_are_dropped_and_all_others_kept_in_order(serve, record):
    recorder = record()
    program = serve({"app.local": recorder})
    assert forwarded(
        recorder, program,
        b"GET / HTTP/1.1\r\nConnection: keep-alive\r\nHost: app.local\r\n"
        b"Proxy-Connection: keep-alive\r\nKeep-Alive: 5\r\nconnection: close\r\n"
        b"Proxy-Authorization: x\r\nProxyanything: x\r\nConnection-Id: x\r\nCONNECTION: x\r\n"
        b"proxy-a: x\r\nX-Forwarded-For: 10.0.0.1\r\nUpgrade: h2c\r\nTE: trailers\r\n"
        b"Cookie: a=b\r\n no name\r\nConnectio: x\r\n\r\n") == (
        b"GET / HTTP/1.1\r\nHost: app.local\r\nKeep-Alive: 5\r\nconnection: close\r\n"
        b"CONNECTION: x\r\nproxy-a: x\r\nX-Forwarded-For: 10.0.0.1\r\nUpgrade: h2c\r\n"
        b"TE: trailers\r\nCookie: a=b\r\n no name\r\nConnectio: x\r\n"
        b"X-Forwarded-For: 127.0.0.1\r\n\r\n")


def test_a_header_line_of_one_byte_shields_the_next_from_the_filter(serve, record):
    recorder = record()
    program = serve({"app.local": recorder})
    assert forwarded(recorder, program,
                     b"GET / HTTP/1.1\r\nHost: app.local\r\nx\r\nConnection: close\r\n\r\n") == (
        b"GET / HTTP/1.1\r\nHost: app.local\r\nx\r\nConnection: close\r\n"
        b"X-Forwarded-For: 127.0.0.1\r\n\r\n")


def test_a_request_of_only_a_request_line_is_forwarded_for_the_empty_host(serve, record):
    recorder = record()
    program = serve({"": recorder})
    assert forwarded(recorder, program, b"GET / HTTP/1.1\r\n\r\n") == (
        b"GET / HTTP/1.1\r\nX-Forwarded-For: 127.0.0.1\r\n\r\n")


def test_a_request_that_comes_byte_by_byte_is_forwarded_like_any_other(serve, record):
    recorder = record()
    program = serve({"app.local": recorder})
    with program.connect() as client:
        for byte in b"POST / HTTP/1.1\r\nHost: app.local\r\nContent-Length: 2\r\n\r\nhi":
            client.send(bytes([byte]))
        message = recorder.link().read_message()
    assert message == (b"POST / HTTP/1.1\r\nHost: app.local\r\nContent-Length: 2\r\n"
                       b"X-Forwarded-For: 127.0.0.1\r\n\r\n", b"hi")


# --- one client, several requests ---

def exchange(client, link, host, path="/"):
    """One request that `link` answers, both compared to the byte."""
    client.send(get(host, path))
    assert link().read_message().head == (
        f"GET {path} HTTP/1.1\r\nHost: {host}\r\nX-Forwarded-For: 127.0.0.1\r\n\r\n".encode())
    link().send(OK)
    assert client.read_exactly(len(OK)) == OK


def test_requests_to_one_port_share_a_backend_connection_whatever_their_host(serve, record):
    recorder = record()
    program = serve({"a.local": recorder, "b.local": recorder})
    with program.connect() as client:
        for host, path in [("a.local", "/1"), ("a.local", "/2"), ("b.local", "/3")]:
            exchange(client, recorder.link, host, path)
        port = client.local_port
        program.await_log(log_line("a.local", port, "GET /1 HTTP/1.1"),
                          log_line("a.local", port, "GET /2 HTTP/1.1"),
                          log_line("b.local", port, "GET /3 HTTP/1.1"))
    assert recorder.link().read_to_end() == b""
    assert len(recorder.links) == 1


def test_requests_to_two_ports_change_the_backend_connection_each_time(serve, record):
    first, second = record(), record()
    program = serve({"a.local": first, "b.local": second})
    with program.connect() as client:
        exchange(client, lambda: first.link(0), "a.local")
        exchange(client, lambda: second.link(0), "b.local")
        assert first.link(0).read_to_end() == b""
        exchange(client, lambda: first.link(1), "a.local")
        assert second.link(0).read_to_end() == b""


def test_echo_and_404_leave_the_backend_connection_in_place(serve, record):
    recorder = record()
    program = serve({"a.local": recorder, "echo.local": -1})
    with program.connect() as client:
        exchange(client, recorder.link, "a.local", "/1")
        ask(client, get("echo.local"), echo_answer(get("echo.local")))
        ask(client, get("none.local"), NOT_FOUND)
        exchange(client, recorder.link, "a.local", "/2")
    assert len(recorder.links) == 1


def test_each_client_has_a_backend_connection_of_its_own(serve, record):
    recorder = record()
    program = serve({"a.local": recorder})
    with program.connect() as one, program.connect() as other:
        exchange(one, lambda: recorder.link(0), "a.local", "/one")
        exchange(other, lambda: recorder.link(1), "a.local", "/other")
        exchange(one, lambda: recorder.link(0), "a.local", "/one/more")


def test_an_idle_client_is_ended_with_its_backend_connection(serve, record):
    recorder = record()
    program = serve({"a.local": recorder})
    with program.connect() as client:
        exchange(client, recorder.link, "a.local")
        recorder.link().close()
        assert client.read_to_end() == b""


def test_no_descriptor_is_left_of_ended_pairs(serve, record):
    recorder = record()
    program = serve({"a.local": recorder, "bad.local": -5})
    before = program.descriptors()
    for number in range(20):
        with program.connect() as client:
            exchange(client, lambda: recorder.link(number), "a.local")
        with program.connect() as client:
            client.send(get("bad.local"))
            assert client.read_to_end() == BAD_GATEWAY
    program.await_descriptors(before)
