"""HTTPS as clients see it: versions, keys, resumption, large bodies, slow clients."""

import ssl

import pytest

from support import bodies
from support.authority import serial_of
from support.curl import curl, curl_digest, url
from support.raw import connect, get
from support.recorder import closes
from support.texts import NOT_FOUND, echo_answer
from support.tls import DrippingClient, SClient

ECHO = {"echo.local": -1}
VERSIONS = {"TLSv1.2": "-tls1_2", "TLSv1.3": "-tls1_3"}


def check_echo(client, request=get("echo.local")):
    client.send(request)
    answer = echo_answer(request)
    assert client.read_exactly(len(answer)) == answer


@pytest.mark.parametrize("kind", ["rsa", "ecdsa"])
@pytest.mark.parametrize("version", VERSIONS)
def test_each_version_is_served_with_each_kind_of_key(serve_tls, authority, kind, version):
    made = authority.issue(kind, kind, serial=2002)
    program = serve_tls(ECHO, made=made)
    with SClient(program.ssl_port, VERSIONS[version], "-CAfile", authority.crt,
                 "-verify_return_error") as client:
        client.send(get("echo.local"))
        client.read_until(b"Your IPv4 address is: 127.0.0.1")
        assert echo_answer(get("echo.local")) in client.output
        assert client.line(r"Verify return code: (\d+)") == "0"
        assert client.line(r"New, (\S+),") == version
        assert serial_of(client.output.decode()) == 2002
        client.leave()


@pytest.mark.parametrize("version", VERSIONS)
def test_a_session_is_resumed(serve_tls, tmp_path, version):
    program = serve_tls(ECHO)
    first, again = ["-sess_out", tmp_path / "session"], ["-sess_in", tmp_path / "session"]
    for words, expected in [(first, "New"), (again, "Reused")]:
        with SClient(program.ssl_port, VERSIONS[version], *words) as client:
            client.send(get("echo.local"))
            client.read_until(b"Your IPv4 address is: 127.0.0.1")
            assert client.line(r"(New|Reused), TLS") == expected
            client.leave()


def test_curl_trusts_and_is_answered(serve_tls, authority):
    program = serve_tls({"127.0.0.1:SSL": -1})
    body = curl("--cacert", authority.crt, url(program.ssl_port, "/x", "https"))
    assert body.startswith(b"GET /x HTTP/1.1\r\nHost: 127.0.0.1:%d\r\n" % program.ssl_port)
    assert body.endswith(b"Your IPv4 address is: 127.0.0.1")


def test_a_stranger_is_not_trusted(serve_tls):
    program = serve_tls({"127.0.0.1:SSL": -1})
    curl(url(program.ssl_port, "/", "https"), expected_status=60)


def test_only_the_first_certificate_of_the_file_is_sent(serve_tls, authority):
    made = authority.issue("chain")
    made.crt.write_bytes(made.crt.read_bytes() + authority.crt.read_bytes())
    program = serve_tls(ECHO, made=made)
    with SClient(program.ssl_port, "-showcerts") as client:
        client.read_until(b"Verify return code")
        assert client.output.count(b"-----BEGIN CERTIFICATE-----") == 1


def test_requests_on_one_connection_are_answered_like_the_first(serve_tls, authority):
    program = serve_tls(ECHO)
    with connect(program.ssl_port, authority.trust()) as client:
        for number in range(20):
            check_echo(client, get("echo.local", f"/{number}"))
        client.send(get("unknown.local"))
        assert client.read_exactly(len(NOT_FOUND)) == NOT_FOUND


@pytest.mark.parametrize("version", [ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3],
                         ids=VERSIONS)
def test_a_client_that_sends_one_byte_at_a_time_is_served(serve_tls, authority, version):
    program = serve_tls(ECHO)
    with DrippingClient(program.ssl_port, authority.trust(version)) as client:
        client.shake_hands()
        check_echo(client)
        check_echo(client, get("echo.local", "/again"))


def test_many_clients_at_once_are_each_answered(serve_tls, authority):
    program = serve_tls(ECHO)
    trust = authority.trust()
    clients = [connect(program.ssl_port, trust) for _ in range(60)]
    try:
        for number, client in enumerate(clients):
            client.send(get("echo.local", f"/{number}"))
        for number, client in reversed(list(enumerate(clients))):
            answer = echo_answer(get("echo.local", f"/{number}"))
            assert client.read_exactly(len(answer)) == answer
    finally:
        for client in clients:
            client.close()


@pytest.mark.limit(150)
def test_a_download_arrives_unchanged(serve_tls, nginx, authority):
    expected = bodies.write_file(nginx.root / "file", 200)
    program = serve_tls({"127.0.0.1:SSL": nginx})
    address = url(program.ssl_port, "/file", "https")
    assert curl_digest("--cacert", authority.crt, address) == (200 * bodies.MIB, expected)


@pytest.mark.limit(150)
def test_an_upload_arrives_unchanged(serve_tls, nginx, authority, tmp_path):
    expected = bodies.write_file(tmp_path / "file", 50)
    program = serve_tls({"127.0.0.1:SSL": nginx})
    curl("--cacert", authority.crt, "--upload-file", tmp_path / "file",
         url(program.ssl_port, "/taken", "https"))
    assert bodies.file_digest(nginx.root / "taken") == expected


def test_a_client_that_leaves_ends_its_backend_connection_too(serve_tls, authority, record):
    recorder = record()
    program = serve_tls({"app.local": recorder})
    with connect(program.ssl_port, authority.trust()) as client:
        client.send(get("app.local"))
        recorder.link().read_message()
    assert recorder.link().read_to_end() == b""


def test_a_backend_that_closes_ends_the_client_behind_its_last_byte(serve_tls, authority, record):
    recorder = record()
    program = serve_tls({"app.local": recorder})
    with connect(program.ssl_port, authority.trust()) as client:
        client.send(get("app.local"))
        recorder.link().read_message()
        recorder.link().send(b"x" * 300000)
        recorder.link().close()
        assert client.read_to_end() == b"x" * 300000


def test_a_connection_ends_without_a_farewell_of_the_tls_layer(serve_tls, record):
    recorder = record(closes)
    program = serve_tls({"app.local": recorder})
    with SClient(program.ssl_port) as client:
        client.send(get("app.local"))
        client.read_until(b"unexpected eof while reading")


@pytest.mark.parametrize("missing", ["key", "crt"])
def test_an_unreadable_file_shows_in_the_handshakes_alone(serve_tls, authority, tmp_path, missing):
    made = authority.issue("unreadable")
    setattr(made, missing, tmp_path / "absent")
    program = serve_tls(ECHO, made=made)
    with pytest.raises(ssl.SSLError):
        connect(program.ssl_port, authority.trust())
