"""Runs a program under the system call filters of a systemd unit, where no systemd does.

Also a program of its own: sandbox.py UNIT PROGRAM [ARGUMENT...] takes the place of itself.
"""

import ctypes
import errno
import mmap
import os
import pathlib
import socket
import subprocess
import sys

ALLOW = 0x7FFF0000
ANSWER = 0x00050000  # with the error number below
EQUAL, MASKED_EQUAL = 4, 7
SHM_EXEC = 0o100000
FAMILIES_MAX = 46
HERE = pathlib.Path(__file__).resolve()


class _Comparison(ctypes.Structure):
    _fields_ = [("argument", ctypes.c_uint), ("operator", ctypes.c_int),
                ("first", ctypes.c_uint64), ("second", ctypes.c_uint64)]


class Filter:
    """What happens at each system call: `otherwise`, unless a rule says something else."""

    def __init__(self, otherwise):
        self._library = ctypes.CDLL("libseccomp.so.2")
        self._library.seccomp_init.restype = ctypes.c_void_p
        self._context = ctypes.c_void_p(self._library.seccomp_init(ctypes.c_uint32(otherwise)))

    def rule(self, action, name, *comparisons):
        number = self._library.seccomp_syscall_resolve_name(name.encode())
        if number < 0:  # not a call of this machine's
            return
        array = (_Comparison * len(comparisons))(*comparisons)
        failed = self._library.seccomp_rule_add_array(
            self._context, ctypes.c_uint32(action), number, len(comparisons), array)
        assert failed == 0, (name, failed)

    def load(self):
        """For this process and all that it becomes, for good."""
        failed = self._library.seccomp_load(self._context)
        assert failed == 0, failed


def settings(unit):
    """The values of each key of the unit, in order."""
    found = {}
    for line in pathlib.Path(unit).read_text().splitlines():
        if "=" in line and not line.startswith("#"):
            key, _, value = line.partition("=")
            found.setdefault(key, []).append(value)
    return found


def calls_of(group):
    """The system calls of a group that systemd names, those of the groups in it included."""
    lines = subprocess.check_output(["systemd-analyze", "syscall-filter", group], text=True)
    found = set()
    for word in (line.strip() for line in lines.splitlines()[1:]):
        if word.startswith("@"):
            found |= calls_of(word)
        elif word and not word.startswith("#"):
            found.add(word)
    return found


def allowed_calls(unit):
    allowed = set()
    for value in settings(unit)["SystemCallFilter"]:
        groups = set().union(*map(calls_of, value.lstrip("~").split()))
        allowed = allowed - groups if value.startswith("~") else allowed | groups
    return allowed


def family_filter(unit):
    families, = settings(unit)["RestrictAddressFamilies"]
    kept = {getattr(socket, name) for name in families.split()}
    made = Filter(ALLOW)
    for family in set(range(FAMILIES_MAX)) - kept:
        made.rule(ANSWER | errno.EAFNOSUPPORT, "socket", (0, EQUAL, family, 0))
    return made


def memory_filter():
    """MemoryDenyWriteExecute: memory is never writable and a program's text at once or in turn."""
    both = mmap.PROT_WRITE | mmap.PROT_EXEC
    made = Filter(ALLOW)
    made.rule(ANSWER | errno.EPERM, "mmap", (2, MASKED_EQUAL, both, both))
    for name in ("mprotect", "pkey_mprotect"):
        made.rule(ANSWER | errno.EPERM, name, (2, MASKED_EQUAL, mmap.PROT_EXEC, mmap.PROT_EXEC))
    made.rule(ANSWER | errno.EPERM, "shmat", (2, MASKED_EQUAL, SHM_EXEC, SHM_EXEC))
    return made


def call_filter(unit):
    made = Filter(ANSWER | errno.EPERM)
    for name in sorted(allowed_calls(unit)):
        made.rule(ALLOW, name)
    return made


def enter(unit):
    filters = [family_filter(unit)]
    if settings(unit)["MemoryDenyWriteExecute"] == ["yes"]:
        filters.append(memory_filter())
    # The last one: it may forbid the loading of others.
    filters.append(call_filter(unit))
    for made in filters:
        made.load()


def wrapper(unit):
    """What to put in front of a command to have it run under the filters of `unit`."""
    return ["/usr/bin/python3", "-B", str(HERE), str(unit)]


if __name__ == "__main__":
    enter(sys.argv[1])
    os.execv(sys.argv[2], sys.argv[2:])
