"""Several seconds of many clients at once, none of which may see an error."""

import re
import subprocess

import pytest

from support.waiting import wait_until

SECONDS = 5


def wrk(port, host, path="/", *options):
    """Run wrk and return how many answers it had; any kind of error fails."""
    command = ["wrk", "-t", "2", "-c", "64", "-d", f"{SECONDS}s", "--timeout", "5s", *options,
               "-H", f"Host: {host}", f"http://127.0.0.1:{port}{path}"]
    printed = subprocess.run(command, capture_output=True, text=True, timeout=SECONDS + 25,
                             check=True).stdout
    assert "Socket errors" not in printed and "Non-2xx" not in printed, printed
    return int(re.search(r"(\d+) requests in", printed)[1])


@pytest.mark.parametrize("options", [[], ["-H", "connection: close"]], ids=["kept", "closed"])
def test_wrk_has_no_error_in_five_seconds(serve, nginx, options):
    (nginx.root / "page").write_text(100 * "x")
    program = serve({"app.local": nginx})
    before = program.descriptors()
    answered = wrk(program.port, "app.local", "/page", *options)
    program.await_descriptors(before)
    program.stop()
    logged = len(re.findall(rb"(?m)^\[app\.local\] 127\.0\.0\.1:\d+ GET /page HTTP/1\.1 \[\]$",
                            program.output))
    assert answered > 0
    wait_until(lambda: answered <= len(nginx.log()), "the backend's log")
    assert len(nginx.log()) <= logged
