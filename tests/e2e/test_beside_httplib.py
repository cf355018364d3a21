"""bench/beside_httplib: what it refuses. It measures only when it is asked to by hand."""

import os
import pathlib
import subprocess

import pytest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "bench" / "beside_httplib"


def run(*words):
    return subprocess.run([SCRIPT, *words], stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60,
                          check=False, env={**os.environ, "VINDRA_BUILD": "no-such-folder"})


@pytest.mark.parametrize("words", [["--rounds", "0"], ["--rounds", "x"], ["--seconds", "-1"], ["--seconds"],
                                   ["--connections", "1e9"], ["--what"], ["3"]])
def test_beside_httplib_refuses_bad_arguments_in_one_line(words):
    done = run(*words)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr.startswith("beside_httplib: ") and done.stderr.count("\n") == 1


def test_beside_httplib_says_what_it_does():
    done = run("--help")
    assert (done.returncode, done.stderr) == (0, "")
    assert "usage: bench/beside_httplib" in done.stdout
