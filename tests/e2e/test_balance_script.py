"""What vindra-balance refuses. What it does for clients, tests/long/run --only machines shows."""

import subprocess

import pytest

from support.program import ROOT

SCRIPT = ROOT / "packaging" / "examples" / "vindra-balance"
REFUSAL = "vindra-balance: needs an address, a URL and a readable file of addresses\n"


@pytest.mark.parametrize("words", [
    [], ["198.51.100.1"], ["198.51.100.1", "http://app.local/", "no such file"],
    ["198.51.100.1", "http://app.local/", SCRIPT, "more"]])
def test_a_wrong_command_line_is_refused_in_one_line(words):
    done = subprocess.run([SCRIPT, *words], capture_output=True, text=True, timeout=10)
    assert (done.returncode, done.stdout, done.stderr) == (2, "", REFUSAL)
