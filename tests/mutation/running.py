"""Runs cases of a test program, with a time limit for each."""

import os
import re
import select
import signal
import subprocess
import threading
import time

# The machine may be busy with something else.
LIMIT_SECONDS_MIN = 20
LIMIT_FACTOR = 10

# A fault can make a program ask for memory without end.
MEMORY_MAX = 6 << 30

# Process groups of the programs that run now, and whether no other may be started.
alive = set()
is_over = threading.Event()

BEGINS = re.compile(rb"^\[ RUN      \] (\S+)", re.MULTILINE)
FAILS = re.compile(rb"\[  FAILED  \] ([^\s,]+)")


class Over(Exception):
    """The command is ending."""


def cases_of(program):
    """Names of all cases of a test program, without those that are disabled."""
    listing = subprocess.run([program, "--gtest_list_tests"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                             text=True, check=True).stdout
    names, suite = [], ""
    for line in listing.splitlines():
        name = line.split("#")[0].rstrip()
        if not line.startswith(" "):
            suite = name
        elif "DISABLED_" not in suite + name:
            names.append(suite + name.strip())
    return names


def run(program, cases, folder, seconds=None, environment=None):
    """("passed", None), or ("failed", "crashed" or "timed out", and the case that did).

    `seconds` is what each case takes in a program without a fault.
    """
    if is_over.is_set():
        raise Over
    temporary = folder / "tmp"
    temporary.mkdir(parents=True, exist_ok=True)
    command = [str(program), "--gtest_filter=" + ":".join(cases), "--gtest_fail_fast", "--gtest_color=no"]
    # A leak checker takes addresses without end, and is not there to find another fault.
    limit = () if environment and "LSAN_OPTIONS" in environment else (f"--as={MEMORY_MAX}",)
    command = ["prlimit", "--core=0", *limit, "--", *command]
    process = subprocess.Popen(command, cwd=temporary, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT, start_new_session=True,
                               env={**os.environ, "TEST_TMPDIR": f"{temporary}/", **(environment or {})})
    alive.add(process.pid)
    try:
        outcome = _follow(process, cases, seconds or {})
        if is_over.is_set():
            raise Over
        return outcome
    finally:
        # What it has left running goes with it; it is waited for last, so that the number is its own.
        _kill(process.pid)
        alive.discard(process.pid)
        process.stdout.close()
        process.wait()


def _kill(group):
    try:
        os.killpg(group, signal.SIGKILL)
    except ProcessLookupError:
        pass


def end_all():
    """For a command that is interrupted: whoever runs something gets an exception."""
    is_over.set()
    for group in list(alive):
        _kill(group)


def _follow(process, cases, seconds):
    def limit(case):
        return time.monotonic() + max(LIMIT_SECONDS_MIN, LIMIT_FACTOR * seconds.get(case, 0))

    text, seen, case = b"", 0, cases[0]
    until = limit(case)
    while True:
        over = os.waitid(os.P_PID, process.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT)
        if select.select([process.stdout], [], [], 0 if over else 0.2)[0]:
            piece = os.read(process.stdout.fileno(), 65536)
            text += piece
            begun = [name.decode(errors="replace") for name in BEGINS.findall(text)]
            if len(begun) > seen:
                seen, case = len(begun), begun[-1]
                until = limit(case)
            if piece and not over:
                # Only names are wanted; a fault can print without end.
                if len(text) > 1 << 20:
                    text, seen = text[-4096:], len(BEGINS.findall(text[-4096:]))
                if time.monotonic() <= until:
                    continue
        if over:
            break
        if time.monotonic() > until:
            return "timed out", case
        if select.select([process.stdout], [], [], 0)[0]:
            time.sleep(0.02)
    while select.select([process.stdout], [], [], 0)[0]:
        piece = os.read(process.stdout.fileno(), 65536)
        if not piece:
            break
        text += piece
    if over.si_code == os.CLD_EXITED and over.si_status == 0:
        return "passed", None
    failed = FAILS.search(text)
    if failed:
        return "failed", failed.group(1).decode(errors="replace")
    begun = BEGINS.findall(text)
    return "crashed", begun[-1].decode(errors="replace") if begun else case
