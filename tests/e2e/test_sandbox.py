"""The program under the system call filters of its systemd unit."""

import shutil
import subprocess

import pytest

from support.curl import curl
from support.ports import HeldPort
from support.program import ROOT
from support.raw import connect, get
from support.recorder import answers
from support.sandbox import wrapper
from support.texts import binding_lines

UNIT = ROOT / "packaging" / "vindra.service"
OK = b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"


@pytest.fixture(autouse=True)
def tools():
    if not shutil.which("systemd-analyze"):
        pytest.fail("needs systemd-analyze, of Debian's package systemd")


@pytest.fixture
def files(tmp_path):
    """A key and a certificate of its own."""
    key, crt = tmp_path / "key.pem", tmp_path / "crt.pem"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", key,
                    "-out", crt, "-days", "2", "-subj", "/CN=localhost",
                    "-addext", "subjectAltName=DNS:localhost"], check=True, capture_output=True)
    return key, crt


def lines_of_python(unit, text):
    """What a Python text prints under the filters."""
    return subprocess.run([*wrapper(unit), "/usr/bin/python3", "-c", text], check=True,
                          capture_output=True, text=True).stdout.splitlines()


def test_the_filters_are_in_force():
    assert lines_of_python(UNIT, """
import ctypes, mmap, os, socket
def tried(what):
    try:
        what()
        print("allowed")
    except OSError as error:
        print(error.errno)
tried(lambda: mmap.mmap(-1, 4096, prot=mmap.PROT_READ))
tried(lambda: mmap.mmap(-1, 4096, prot=mmap.PROT_READ | mmap.PROT_WRITE | mmap.PROT_EXEC))
tried(lambda: socket.socket(socket.AF_INET))
tried(lambda: socket.socket(socket.AF_UNIX))
tried(lambda: os.chroot("/"))
""") == ["allowed", "1", "allowed", "97", "1"]


def test_https_redirect_backend_and_log_work_under_the_filters(launch, keep, record, files):
    https = keep(HeldPort()).port
    host = f"localhost:{https}"
    program = launch("PORT", "-ssl", https, *files, "-map", host, record(answers(OK)).port,
                     wrapper=wrapper(UNIT))
    assert curl("--cacert", files[1], f"https://localhost:{https}/a") == OK[-2:]
    assert curl("--cacert", files[1], "--location",
                f"http://localhost:{program.port}/b") == OK[-2:]
    program.await_output(f"[{host}] 127.0.0.1:".encode())
    program.stop()
    assert program.log.count(b"GET /a HTTP/1.1 [curl") == 1
    assert program.log.count(b"GET /b HTTP/1.1 [curl") == 2


def test_the_addresses_are_listed_under_the_filters(launch):
    program = launch("PORT", wrapper=wrapper(UNIT))
    assert program.output.startswith(binding_lines(program.port))


def test_without_netlink_the_addresses_would_be_missing(launch, tmp_path):
    unit = tmp_path / "without.service"
    unit.write_text(UNIT.read_text().replace(" AF_NETLINK\n", "\n"))
    program = launch("PORT", wrapper=wrapper(unit))
    assert program.output.startswith(
        b"Binding to port %d on all adapters:\n\n" % program.port)


def test_many_clients_are_served_under_the_filters(serve):
    program = serve({"echo.local": -1}, wrapper=wrapper(UNIT))
    clients = [connect(program.port) for _ in range(300)]
    for client in clients:
        client.send(get("echo.local"))
    for client in clients:
        assert client.read_message().status_line == b"HTTP/1.1 200 OK"
        client.close()
