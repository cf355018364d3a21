"""The example with the library's defaults."""

from support.curl import curl, url, version


def test_echo_server_shows_each_request_its_head(example):
    program = example("echo_server")
    head = "{} /{}?q HTTP/1.1\r\nHost: 127.0.0.1:%d\r\nUser-Agent: %s\r\nAccept: */*\r\n" % (
        program.port, version())
    printed = curl(url(program.port, "/first?q"), url(program.port, "/second?q"))
    assert printed.decode() == "".join(
        head.format("GET", path) + "\r\n0 bytes of content" for path in ["first", "second"])


def test_echo_server_counts_the_body(example):
    program = example("echo_server")
    assert curl("--data-binary", 1000 * "x", url(program.port)).endswith(b"\r\n1000 bytes of content")
