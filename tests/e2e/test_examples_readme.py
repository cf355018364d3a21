"""What examples/README.md says to type, typed line by line on ports of the test's own."""

import os
import re
import shlex
import subprocess

import pytest

from support.ports import HeldPort
from support.program import ROOT, Program, example_path
from support.waiting import wait_until

README = (ROOT / "examples" / "README.md").read_text()
ANSWERED = {
    "echo_server": [b"GET /any?query HTTP/1.1\r\n", b"9 bytes of content"],
    "files": [b"# Examples\n", b"Content-Length: ", b"Not found\n"],
    "chat": [],
    "echo_websocket": [b"Connected to ws://127.0.0.1:"],
    "dashboard": [],
    "worker": [b"602489 primes\n"],
    "todo": [b'{"done":false,"id":1,"text":"learn"}', b'{"done":true,"id":1,"text":"learn"}',
             b'[{"done":true,"id":1,"text":"learn"}]'],
    "forward_proxy": [b"0 bytes of content", b"0 bytes of content", b"HTTP/1.1 404 Not Found\r\n"],
    "gateway": [b"X-Forwarded-For: 127.0.0.1\r\n\r\n0 bytes", b"HTTP/1.1 403 Forbidden\r\n"],
    "front_tls": [b"", b"X-Forwarded-For: 127.0.0.1\r\n"],
}


@pytest.fixture
def folder(tmp_path):
    """A folder that stands to the sources as build/release/examples does in a checkout."""
    made = tmp_path / "build" / "release" / "examples"
    made.mkdir(parents=True)
    (tmp_path / "examples").symlink_to(ROOT / "examples")
    return made


def commands():
    """The lines to type, each with the section that it stands in."""
    sections = re.split(r"(?m)^## (\w+)$", README)
    for name, text in zip(sections[1::2], sections[2::2]):
        for line in re.findall(r"(?m)^    (.+)$", text):
            yield name, line


@pytest.mark.limit(120)
def test_every_line_of_the_readme_works(keep, folder):
    ports = {}
    programs = {}
    answers = {name: [] for name in ANSWERED}

    def own_port(match):
        if match[0] not in ports:
            ports[match[0]] = keep(HeldPort()).port
        return str(ports[match[0]])

    def start(name, line):
        program, *arguments = shlex.split(line)
        assert program == f"./{name}"
        programs[name] = Program(*arguments, path=example_path(name), stdin=subprocess.PIPE,
                                 wrapper=["env", f"--chdir={folder}"]).await_start()

    def run(line):
        return subprocess.run(["bash", "-c", line], cwd=folder, stdin=subprocess.DEVNULL,
                              capture_output=True, env={**os.environ, "NO_PROXY": "*"},
                              timeout=60, check=True).stdout

    try:
        later = []
        for name, line in commands():
            line = re.sub(r"\b8(08\d|443)\b", own_port, line)
            if line.startswith("./"):
                start(name, line)
            elif line.startswith("map "):
                programs[name].type(line.encode() + b"\n")
            elif line == "quit":  # typed "when you have tried it"
                later.append((name, line))
            else:
                answers[name].append(run(line))
                if line.startswith("curl --insecure"):
                    wait_until(lambda: b"HTTP/1.1" in run(line), "the mapping")
                    answers[name][-1] = run(line)
        for name, expected in ANSWERED.items():
            assert len(answers[name]) == len(expected), answers[name]
            for printed, part in zip(answers[name], expected):
                assert part in printed, name
        for name, line in later:
            programs[name].type(line.encode() + b"\n")
            assert programs.pop(name).await_end() == 0
    finally:
        for program in programs.values():
            program.interrupt()
            program.await_end()
    assert len(ports) == len(ANSWERED)
