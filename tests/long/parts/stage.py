"""Programs that the campaigns start and end, and what they are looked at for."""

import contextlib
import os
import pathlib
import signal
import socket
import subprocess
import threading

import parts  # noqa: F401  (finds the end-to-end tests' own modules)
from support.ports import HeldPort
from support.program import program_path
from support.waiting import PATIENCE, wait_until

HERE = pathlib.Path(__file__).resolve().parent


def accepts(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


class Backend:
    """backend.py on a port of its own, which it keeps over its deaths."""

    def __init__(self):
        self._held = HeldPort()
        self.port = self._held.port
        self._process = None
        self.start()

    def start(self):
        self._process = subprocess.Popen(
            ["/usr/bin/python3", "-B", HERE / "backend.py", str(self.port)],
            stdin=subprocess.DEVNULL)
        wait_until(lambda: accepts(self.port), "the backend")

    def kill(self):
        self._process.kill()
        self._process.wait(PATIENCE)

    def close(self):
        self.kill()
        self._held.close()


class Watched:
    """The program under a long load: its lines are counted, not kept.

    `wrapper` is a command that becomes the one behind it, with the same process number.
    """

    def __init__(self, *words, wrapper=()):
        self.lines = {}
        self._process = subprocess.Popen([*wrapper, program_path(), *map(str, words)],
                                         stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        self.pid = self._process.pid
        self._reader = threading.Thread(target=self._count, daemon=True)
        self._reader.start()
        # One that joins others on a port may have clients in its first turn.
        wait_until(lambda: self.counted(b"0 connections\n") or self.counted(b"connections\n"),
                   "the first turn")
        self.descriptors_at_rest = self.descriptors()

    def _count(self):
        for line in self._process.stdout:
            kind = b"request" if line.startswith(b"[") else line
            if kind.endswith(b" has timed out.\n") or kind.endswith(b" connections\n"):
                kind = kind if kind == b"0 connections\n" else kind.split(b" ", 1)[1]
            self.lines[kind] = self.lines.get(kind, 0) + 1

    def counted(self, line):
        return self.lines.get(line, 0)

    @property
    def alive(self):
        return self._process.poll() is None

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def resident_kib(self):
        status = pathlib.Path(f"/proc/{self.pid}/status").read_text()
        return int(status.partition("VmRSS:")[2].split()[0])

    def processor_seconds(self):
        fields = pathlib.Path(f"/proc/{self.pid}/stat").read_text().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def await_rest(self, seconds=30):
        wait_until(lambda: self.descriptors() == self.descriptors_at_rest,
                   f"{self.descriptors_at_rest} descriptors, not {self.descriptors()}", seconds)

    def kill(self):
        """End it in the middle of everything."""
        self._process.kill()
        self._process.wait(PATIENCE)
        self._reader.join(PATIENCE)
        self._process.stdout.close()

    def close(self):
        """Interrupt it; the end has to be the documented one."""
        if self.alive:
            self._process.send_signal(signal.SIGINT)
        try:
            status = self._process.wait(PATIENCE)
        finally:
            self._process.kill()
        self._reader.join(PATIENCE)
        self._process.stdout.close()
        assert (status, self.counted(b"Shutting down...\n")) == (0, 1), (status, self.lines)


def held_port(stack):
    return stack.enter_context(contextlib.closing(HeldPort())).port
