"""Processes of a run: each on its processor, each stopped with the run, and what each has cost."""

import contextlib
import ctypes
import os
import pathlib
import re
import signal
import socket
import subprocess
import time

from support.failure import Failure

START_LIMIT = 20
STOP_LIMIT = 10
SET_DEATH_SIGNAL = 1
STOPPING = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
LIBC = ctypes.CDLL(None, use_errno=True)


def search_path():
    """nginx and haproxy stand where only root looks."""
    return os.environ["PATH"] + ":/usr/sbin:/sbin"


@contextlib.contextmanager
def held_port():
    """A free port that stays ours: the socket shares it and never listens."""
    with socket.socket() as holder:
        holder.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        holder.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
        holder.bind(("127.0.0.1", 0))
        yield holder.getsockname()[1]


@contextlib.contextmanager
def undisturbed():
    """Puts the signals that end a run off: nothing is started and forgotten, or stopped by half."""
    before = signal.pthread_sigmask(signal.SIG_BLOCK, STOPPING)
    try:
        yield before
    finally:
        signal.pthread_sigmask(signal.SIG_SETMASK, before)


@contextlib.contextmanager
def running(core, command, stop_signal=signal.SIGTERM, **streams):
    """A process on one processor. The signal that stops it in order comes also when this script is killed."""
    parent = os.getpid()

    def prepare():
        for number in STOPPING:
            signal.signal(number, signal.SIG_DFL)
        signal.pthread_sigmask(signal.SIG_UNBLOCK, STOPPING)
        os.sched_setaffinity(0, {core})
        LIBC.prctl(SET_DEATH_SIGNAL, int(stop_signal))
        if os.getppid() != parent:
            os._exit(1)

    process = None
    try:
        with undisturbed():
            process = subprocess.Popen([str(word) for word in command], preexec_fn=prepare,
                                       env={**os.environ, "PATH": search_path()},
                                       **{"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, **streams})
        yield process
    finally:
        with undisturbed():
            end(process, stop_signal)


def end(process, stop_signal):
    """Stops a process in order, or else at once; returns when it is gone."""
    if not process:
        return
    if process.poll() is None:
        process.send_signal(stop_signal)
    try:
        process.wait(STOP_LIMIT)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()
    if process.stdout:
        process.stdout.close()


def await_listener(process, port):
    """Returns once something accepts on the port."""
    deadline = time.monotonic() + START_LIMIT
    while True:
        with socket.socket() as probe:
            if probe.connect_ex(("127.0.0.1", port)) == 0:
                return
        if process.poll() is not None or time.monotonic() > deadline:
            raise Failure(f"{process.args[0]} does not listen on port {port}")
        time.sleep(0.0005)


def first_child(process):
    """The pid of the first child, awaited."""
    children = pathlib.Path(f"/proc/{process.pid}/task/{process.pid}/children")
    deadline = time.monotonic() + START_LIMIT
    while not (pids := children.read_text().split()):
        if process.poll() is not None or time.monotonic() > deadline:
            raise Failure(f"{process.args[0]} starts no worker")
        time.sleep(0.0005)
    return int(pids[0])


def processor_seconds(pid):
    """Processor time of all threads of a process.

    The process's own clock counts nanoseconds. The kernel's text files know the same sum, but
    /proc/PID/stat rounds it to 10 ms and /proc/PID/schedstat leaves out the slice that runs.
    """
    clock = ctypes.c_int()
    if error := LIBC.clock_getcpuclockid(pid, ctypes.byref(clock)):
        raise Failure(f"no processor clock of process {pid}: {os.strerror(error)}")
    return time.clock_gettime(clock.value)


def waiting_seconds(pid):
    """How long the first thread of a process could have run and had to wait for its processor."""
    return int(pathlib.Path(f"/proc/{pid}/schedstat").read_text().split()[1]) / 1e9


class Span:
    """A measurement from now on: what it has cost a process, and whether that had its processor to itself."""

    def __init__(self, pid):
        self.pid = pid
        self.waiting = waiting_seconds(pid)
        self.processor = processor_seconds(pid)
        self.start = time.monotonic()

    def end(self):
        """The processor time in seconds."""
        self.taken = time.monotonic() - self.start
        spent = processor_seconds(self.pid) - self.processor
        self.waiting = waiting_seconds(self.pid) - self.waiting
        return spent

    def waited(self):
        """The share of the time for which the process waited for its processor, as a figure."""
        return {"waited": self.waiting / self.taken}


def resident_bytes(pid):
    """Resident memory, counted page by page: /proc/PID/status may be some pages behind for each thread."""
    text = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text()
    return int(re.search(r"^Rss:\s+(\d+) kB", text, re.M).group(1)) * 1024


def peak_resident_bytes(pid):
    """The most that was ever resident."""
    text = pathlib.Path(f"/proc/{pid}/status").read_text()
    return int(re.search(r"^VmHWM:\s+(\d+) kB", text, re.M).group(1)) * 1024
