"""The files that the checks look at, and how they say what they found."""

import pathlib
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]


def tracked(*suffixes):
    """Paths relative to ROOT of the files that git tracks, with one of the suffixes if any."""
    # The checkout may belong to another user, as it does in a container.
    listing = subprocess.run(
        ["git", "-c", "safe.directory=*", "-C", ROOT, "ls-files", "-z"],
        check=True, capture_output=True, text=True).stdout
    names = [name for name in listing.split("\0") if name and (ROOT / name).is_file()]
    return [name for name in names if not suffixes or name.endswith(suffixes)]


def scripts(*interpreters):
    """Tracked files that name one of the interpreters in their first line."""
    def interpreter(name):
        with open(ROOT / name, "rb") as file:
            line = file.readline(100)
        if not line.startswith(b"#!"):
            return None
        path, *words = line[2:].decode("latin-1").split()
        return words[0] if path == "/usr/bin/env" else pathlib.PurePath(path).name

    return [name for name in tracked() if interpreter(name) in interpreters]


def report(check, findings):
    """Prints a line a finding; the exit status says whether there were any."""
    for finding in findings:
        print(finding)
    print(f"{check}: {len(findings)} finding{'' if len(findings) == 1 else 's'}")
    sys.exit(1 if findings else 0)
