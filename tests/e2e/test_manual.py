"""The commands of the manual's EXAMPLES do what the manual says."""

import re
import shlex
import shutil
import subprocess
import textwrap

import pytest

from support.ports import HeldPort
from support.program import ROOT, Program
from support.recorder import Recorder, answers
from support.waiting import PATIENCE

MANUAL = ROOT / "packaging" / "vindra.1"


def mandoc(*arguments):
    if not shutil.which("mandoc"):
        pytest.fail("needs mandoc, of Debian's package of that name")
    done = subprocess.run(["mandoc", *arguments, MANUAL], capture_output=True, text=True)
    return done.returncode, done.stdout


def rendered():
    """The page as a terminal shows it, without the overstrikes that make bold."""
    status, page = mandoc("-T", "ascii")
    assert status == 0
    return re.sub(".\b", "", page)


def sections():
    """The text of each section by its title."""
    pieces = re.split(r"(?m)^([A-Z][A-Z ]+)$", rendered())
    return dict(zip(pieces[1::2], pieces[2::2]))


def examples():
    """Each block of commands behind a "$ ", continued lines joined."""
    blocks = re.findall(r"(?m)(?:^ +\$ .*\n(?:^ {10,}(?!\$).*\n)*)+", sections()["EXAMPLES"])
    for block in blocks:
        text = textwrap.dedent(block).replace("\\\n", " ")
        yield [line.removeprefix("$ ") for line in text.splitlines()]


class Stage:
    """Runs commands with the ports that they name moved to free ones."""

    def __init__(self, folder, keep, stack):
        self._folder, self._keep, self._stack = folder, keep, stack
        self._ports = {}

    def _free(self, number):
        if number not in self._ports:
            make = self._backend if number.startswith("3") else HeldPort
            self._ports[number] = str(self._keep(make()).port)
        return self._ports[number]

    def _backend(self):
        reply = b"service %d" % len(self._ports)
        return Recorder(answers(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n%s"
                                % (len(reply), reply)))

    def _moved(self, command):
        return re.sub(r"\b(8080|8443|300[01])\b", lambda found: self._free(found[0]), command)

    def start(self, command):
        words = shlex.split(self._moved(command))[1:]
        paths = [str(self._folder / word) if word.endswith(".pem") else word for word in words]
        program = Program(*paths)
        self._stack.append(program)
        return program.await_start()

    def run(self, command):
        """The output of a command, which has to succeed."""
        done = subprocess.run(["bash", "-c", self._moved(command)], cwd=self._folder,
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=2 * PATIENCE,
                              env={"PATH": "/usr/bin:/bin", "NO_PROXY": "*", "HOME": "/nonexistent"})
        assert done.returncode == 0, (command, done.stderr)
        return done.stdout.decode()

    def play(self, block):
        """What each curl of a block printed, and the program."""
        program, printed = None, []
        for command in block:
            if command.startswith("vindra "):
                program = self.start(command)
            elif command.startswith("curl "):
                printed.append(self.run(command))
            else:
                self.run(command)
        return program, printed


@pytest.fixture
def stage(tmp_path, keep):
    programs = []
    yield Stage(tmp_path, keep, programs)
    for program in programs:
        program.stop()


def test_the_manual_is_clean_and_has_its_sections():
    # A style error is a reference to a page that is not installed here.
    assert mandoc("-T", "lint", "-W", "warning") == (0, "")
    assert list(sections()) == [
        "NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "ROUTING", "TLS", "LOG FORMAT", "SIGNALS",
        "EXIT STATUS", "LIMITS", "EXAMPLES", "SEE ALSO"]


def test_there_are_four_examples_of_one_server_each():
    blocks = list(examples())
    assert [sum(line.startswith("vindra ") for line in block) for block in blocks] == [1, 1, 1, 1]


def test_the_echo_example_shows_what_arrives(stage):
    echo = list(examples())[0]
    _, [page] = stage.play(echo)
    assert page.startswith("GET / HTTP/1.1\r\nHost: localhost:")
    assert page.endswith("Your IPv4 address is: 127.0.0.1")


def test_the_mapping_example_reaches_two_services(stage):
    mapping = list(examples())[1]
    program, pages = stage.play(mapping)
    assert len(set(pages)) == 2
    assert all(page.startswith("service ") for page in pages)
    program.await_output(b"[api.local] ")


def test_the_tls_examples_serve_redirect_and_serve_alone(stage):
    both, alone = list(examples())[2:]
    program, pages = stage.play(both)
    assert pages[0].startswith("service ")
    assert pages[1] == pages[0]
    program.stop()
    _, pages = stage.play(alone)
    assert pages[0].startswith("service ")


def test_the_request_line_of_the_manual_is_one_that_the_program_prints(launch):
    form = re.search(r"(?m)^ +(\[app\.local\] .*)$", sections()["LOG FORMAT"])[1]
    host, address, port, method, target, version, agent = re.fullmatch(
        r"\[(\S+)\] (\S+):(\d+) (\S+) (\S+) (\S+) \[(\S+)\]", form).groups()
    program = launch("PORT", "-map", host, -1)
    with program.connect() as client:
        client.send(f"{method} {target} {version}\r\nHost: {host}\r\n"
                    f"User-Agent: {agent}\r\n\r\n".encode())
        client.read_message()
        program.await_log(form.replace(port, str(client.local_port)).encode() + b"\n")
