"""The example that is a proxy for the programs of this machine."""

import pytest

from support.bodies import MIB, file_digest, write_file
from support.curl import curl, curl_digest, url
from support.texts import NOT_FOUND
from support.waiting import wait_until

MANY = 64 * 1024 * "x"


@pytest.fixture
def through(example):
    """Arguments that send curl through the proxy. The last --noproxy counts: no exceptions."""
    def through(*blocked):
        program = example("forward_proxy", *blocked)
        return ["--noproxy", "", "--proxy", url(program.port)], program
    return through


def https(port, path):
    return url(port, path, "https")


def test_forward_proxy_fetches_absolute_uris(through, nginx):
    (nginx.root / "page").write_text(MANY)
    proxy, program = through()
    assert curl(*proxy, url(nginx.port, "/page?q")).decode() == MANY
    [line] = wait_until(nginx.log, "the line of the access log")
    assert '"GET /page?q HTTP/1.1" 200 ' in line
    program.await_output(b" GET http://127.0.0.1:%d/page?q HTTP/1.1 [" % nginx.port)


def test_forward_proxy_changes_backends_on_one_connection(through, nginx, file_server, tmp_path):
    (nginx.root / "page").write_text("from nginx")
    (tmp_path / "page").write_text("from python")
    proxy, _ = through()
    urls = [url(nginx.port, "/page"), url(nginx.port, "/page"), url(file_server.port, "/page")]
    assert curl(*proxy, *urls) == b"from nginxfrom nginxfrom python"


def test_forward_proxy_tunnels_to_a_plain_backend(through, nginx):
    (nginx.root / "page").write_text(MANY)
    proxy, _ = through()
    assert curl(*proxy, "--proxytunnel", url(nginx.port, "/page")).decode() == MANY


def test_forward_proxy_tunnels_tls_end_to_end(through, tls_nginx, authority):
    (tls_nginx.root / "page").write_text(MANY)
    proxy, _ = through()
    checked = ["--cacert", authority.crt]
    assert curl(*proxy, *checked, https(tls_nginx.tls_port, "/page")).decode() == MANY


@pytest.mark.limit(120)
def test_forward_proxy_tunnels_200_mib_down(through, tls_nginx, authority):
    expected = write_file(tls_nginx.root / "large", 200)
    proxy, program = through()
    fetched = curl_digest(*proxy, "--cacert", authority.crt, https(tls_nginx.tls_port, "/large"))
    assert fetched == (200 * MIB, expected)
    program.stop()
    assert b"Warning!" not in program.output


@pytest.mark.limit(120)
def test_forward_proxy_tunnels_90_mib_up(through, tls_nginx, authority, tmp_path):
    expected = write_file(tmp_path / "upload", 90)
    proxy, program = through()
    curl(*proxy, "--cacert", authority.crt, "--upload-file", tmp_path / "upload",
         https(tls_nginx.tls_port, "/taken"))
    assert file_digest(tls_nginx.root / "taken") == expected
    program.stop()
    assert b"Warning!" not in program.output


@pytest.mark.parametrize("host", ["localhost", "LocalHost", "localhost."])
def test_forward_proxy_answers_404_for_a_blocked_host(through, nginx, host):
    (nginx.root / "page").write_text("page")
    proxy, _ = through("other.invalid", "LOCALHOST")
    target = f"http://{host}:{nginx.port}/page"
    assert curl(*proxy, "--include", target) == NOT_FOUND
    curl(*proxy, "--proxytunnel", target, expected_status=56)
    assert curl(*proxy, url(nginx.port, "/page")) == b"page"
    assert len(wait_until(nginx.log, "the line of the access log")) == 1


def test_forward_proxy_closes_where_nobody_listens(through, closed_port):
    proxy, program = through()
    curl(*proxy, url(closed_port), expected_status=52)
    program.stop()
