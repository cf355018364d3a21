"""Starting, watching and stopping the built program."""

import os
import pathlib
import re
import resource
import signal
import subprocess
import tempfile
import threading

from support.raw import connect, get
from support.texts import NOT_FOUND
from support.waiting import PATIENCE, wait_until

ROOT = pathlib.Path(__file__).resolve().parents[3]
SETTLING_HOST = "settling.invalid"


def build_folder():
    """The CMake build folder under test: what VINDRA_BUILD names, or the release build."""
    named = os.environ.get("VINDRA_BUILD")
    return pathlib.Path(named).resolve() if named else ROOT / "build" / "release"


def program_path():
    return build_folder() / "vindra" / "vindra"


def example_path(name, build=None):
    """One of the example programs of a build folder, of the one under test without `build`."""
    return (build or build_folder()) / "examples" / name


def run(*arguments, expected_status=0):
    """Run the program until it ends by itself and return what it printed."""
    done = subprocess.run([program_path(), *map(str, arguments)], stdin=subprocess.DEVNULL,
                          capture_output=True, timeout=PATIENCE)
    assert (done.returncode, done.stderr) == (expected_status, b"")
    return done.stdout


class Program:
    """The running program. Everything that it prints is kept as it was printed.

    `path` names another program than the one under test, `wrapper` a command that becomes the
    one behind it, with the same process number; `stdin` is what subprocess takes as such.
    """

    def __init__(self, *arguments, port=None, descriptors_max=None, wrapper=(), path=None,
                 stdin=subprocess.DEVNULL):
        self.port = port
        self._errors = tempfile.TemporaryFile()
        self._process = subprocess.Popen(
            [*wrapper, path or program_path(), *map(str, arguments)], stdin=stdin,
            stdout=subprocess.PIPE, stderr=self._errors)
        if descriptors_max:
            resource.prlimit(self.pid, resource.RLIMIT_NOFILE, (descriptors_max, descriptors_max))
        self._printed = bytearray()
        self._reader = threading.Thread(target=self._collect, daemon=True)
        self._reader.start()

    def _collect(self):
        while block := os.read(self._process.stdout.fileno(), 1 << 16):
            self._printed += block

    @property
    def pid(self):
        return self._process.pid

    @property
    def output(self):
        return bytes(self._printed)

    def await_output(self, text):
        """Wait until `text` stands in the output; fail early when the program has ended."""
        def has_come():
            return text in self._printed or self._process.poll() is not None
        wait_until(has_come, f"{text!r} in {self.output[-2000:]!r}")
        if self._process.poll() is not None:
            self._reader.join(PATIENCE)
        assert text in self._printed, (self.output, self._process.returncode)

    def await_start(self):
        """Wait for the end of the first turn, which prints the count of connections: none."""
        self.await_output(b"0 connections\n")
        return self

    @property
    def status_lines(self):
        return re.findall(rb"(?m)^\d+ connections$", self.output)

    @property
    def log(self):
        """The complete lines printed since the first turn, without counts and settle()'s own."""
        _, _, lines = self.output.partition(b"0 connections\n")
        lines = re.sub(rb"(?m)^\d+ connections\n", b"", lines)
        lines = re.sub(rb"(?m)^\[%s\] .*\n" % SETTLING_HOST.encode(), b"", lines)
        return lines[:lines.rfind(b"\n") + 1]

    def await_log(self, *lines):
        """Wait for as many lines as given and compare them, to the byte."""
        expected = b"".join(lines)
        wait_until(lambda: self.log.count(b"\n") >= expected.count(b"\n"), f"log line {lines!r}")
        assert self.log == expected

    def connect(self):
        return connect(self.port)

    def settle(self):
        """Let the program turn a few times, so that it has seen what was sent before."""
        with self.connect() as client:
            for _ in range(3):
                client.send(get(SETTLING_HOST))
                assert client.read_exactly(len(NOT_FOUND)) == NOT_FOUND

    def descriptors(self):
        """The descriptor numbers that are open."""
        return {int(name) for name in os.listdir(f"/proc/{self.pid}/fd")}

    def sockets(self):
        """What the descriptors that are sockets lead to."""
        folder = f"/proc/{self.pid}/fd"
        targets = [os.readlink(f"{folder}/{name}") for name in os.listdir(folder)]
        return [target for target in targets if target.startswith("socket:")]

    def await_descriptors(self, expected):
        wait_until(lambda: self.descriptors() == expected,
                   f"the descriptors {expected}, not {self.descriptors()}")

    def type(self, text):
        """Write to the standard input of a program started with a pipe there."""
        self._process.stdin.write(text)
        self._process.stdin.flush()

    def end_input(self):
        self._process.stdin.close()

    def interrupt(self):
        self._process.send_signal(signal.SIGINT)

    def terminate(self):
        self._process.terminate()

    def await_end(self):
        """Wait for the end, with all output collected, and return the exit status."""
        status = self._process.wait(PATIENCE)
        self._reader.join(PATIENCE)
        self._process.stdout.close()
        self._errors.seek(0)
        errors = self._errors.read()
        assert errors == b"", errors.decode(errors="replace")
        return status

    def stop(self):
        """Interrupt and check the way out. Does nothing when the end was awaited already."""
        if self._process.returncode is not None:
            return
        self.interrupt()
        try:
            assert self.await_end() == 0
        finally:
            self._process.kill()
        assert self.output.endswith(b"Shutting down...\n")
        assert self.output.count(b"Shutting down...\n") == 1
