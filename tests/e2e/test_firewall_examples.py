"""The examples for the machine's firewall, loaded in a network of their own."""

import json
import shutil
import subprocess

import pytest

from support.network import wrapper
from support.program import ROOT

EXAMPLES = ROOT / "packaging" / "examples"

# Opens many connections at once from one address and counts those that get through before a
# dropped one is tried again, a second later.
FLOOD = """
import select, socket, time
listener = socket.create_server(("127.0.0.1", 80), backlog=512)
listener.setblocking(False)
clients, came = [], 0
for _ in range(200):
    client = socket.socket()
    client.setblocking(False)
    client.connect_ex(("127.0.0.1", 80))
    clients.append(client)
end = time.monotonic() + 0.5
while select.select([listener], [], [], max(0, end - time.monotonic()))[0]:
    clients.append(listener.accept()[0])
    came += 1
print(came)
"""


def connections(rules_loaded):
    """How many of 200 connections get through when the rules were loaded so many times."""
    if not shutil.which("nft"):
        pytest.fail("needs nft, of Debian's package nftables")
    load = f"nft -f {EXAMPLES}/nftables.conf;" * rules_loaded
    done = subprocess.run([*wrapper(), "bash", "-ec", f'{load} /usr/bin/python3 -c "$1"', "-", FLOOD],
                          capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    return json.loads(done.stdout)


def test_without_the_rules_every_connection_gets_through():
    assert connections(0) == 200


@pytest.mark.parametrize("times", [1, 2, 3])
def test_the_limit_is_the_same_however_often_the_rules_are_loaded(times):
    # 60 at once and 30 a second.
    assert 60 <= connections(times) <= 100
