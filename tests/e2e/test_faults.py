"""Calls that fail under the program's hands. The whole sweep is one of tests/long/run."""

import errno
import subprocess

import pytest

from support.faults import CALLS, EAI_AGAIN, FAULTS, Control, Fault, Stage, cases, sweep, wrapper
from support.ports import HeldPort
from support.program import Program, program_path
from support.waiting import PATIENCE

UNDER_TLS = ("read", "write", "SSL_read", "SSL_write", "SSL_accept", "SSL_shutdown", "accept4",
             "epoll_ctl")


def a_few(count):
    """The first use, the last but one and one between; the last may be one that comes and goes."""
    return sorted({1, (count + 1) // 2, max(1, count - 1)}) if count else []


def one_inside(count):
    return [(count + 1) // 2] if count else []


@pytest.fixture(scope="module")
def plain(tmp_path_factory):
    stage = Stage(tmp_path_factory.mktemp("plain"))
    yield stage
    stage.close()


@pytest.fixture(scope="module")
def tls(tmp_path_factory, authority, credentials):
    stage = Stage(tmp_path_factory.mktemp("tls"), authority.trust(), credentials)
    yield stage
    stage.close()


def check(stage, faults, uses_of):
    wanted = cases(stage, faults, uses_of)
    assert {fault for fault, _ in wanted} >= {fault for fault in faults if fault.call != "madvise"}
    met, struck = sweep(stage, wanted)
    assert met == len(wanted)
    # How often the program waits varies, so the last use of a wait is not always reached.
    assert struck >= 0.8 * met


@pytest.mark.limit(100)
def test_a_call_that_fails_costs_no_more_than_is_said(plain):
    below_tls = ("read", "write") + tuple(call for call in CALLS if call.startswith("SSL_"))
    check(plain, [fault for fault in FAULTS if fault.call not in below_tls], a_few)


@pytest.mark.limit(100)
def test_a_call_that_fails_below_a_session_costs_no_more_than_is_said(tls):
    check(tls, [fault for fault in FAULTS if fault.call in UNDER_TLS], one_inside)


@pytest.mark.parametrize("call, message", [
    ("bind", b"bind() failed: -1 "),
    ("listen", b"listen() failed\n"),
    ("socket", b"socket() failed\n"),
    ("getaddrinfo", b"getaddrinfo() failed: -3 "),
])
def test_a_start_that_fails_says_why_and_ends(tmp_path, closed_port, call, message):
    control = Control(tmp_path)
    control.arm(Fault(call, EAI_AGAIN if call == "getaddrinfo" else errno.EADDRINUSE), 1)
    done = subprocess.run([*wrapper(control, tmp_path), program_path(), str(closed_port)],
                          capture_output=True, timeout=PATIENCE)
    assert control.fired
    assert (done.returncode, done.stderr) == (0, b"")
    assert message in done.stdout


@pytest.mark.parametrize("call, error, message", [
    ("epoll_create1", errno.EMFILE, b"select() failed! 24\n"),
    ("epoll_ctl", errno.ENOMEM, b"select() failed! 12\n"),
    ("epoll_wait", errno.EINTR, b""),
    ("fcntl", errno.EINVAL, b""),
    ("setsockopt", errno.ENOBUFS, b""),
    ("getifaddrs", errno.EMFILE, b"on all adapters:\n\n"),
    ("getnameinfo", -3, b""),
])
def test_a_start_that_overcomes_a_failure_serves(tmp_path, keep, call, error, message):
    control = Control(tmp_path)
    control.arm(Fault(call, error), 1)
    port = keep(HeldPort()).port
    program = Program(port, "-map", "echo.local", -1, port=port, wrapper=wrapper(control, tmp_path))
    try:
        program.await_start()
        assert control.fired
        assert message in program.output
        program.settle()
    finally:
        program.stop()
