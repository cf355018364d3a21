"""The examples for the machine's firewall, loaded in a network of their own."""

import json
import os
import shutil
import subprocess

import pytest

from support.program import ROOT

EXAMPLES = ROOT / "packaging" / "examples"

# Opens many connections at once from one address and counts those that get through before a
# dropped one is tried again, a second later.
FLOOD = """
import json, select, socket, sys, time
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
print(json.dumps(came))
"""


def in_a_network_of_its_own(*commands):
    """Runs commands one after the other where only a loopback device is; the output of the last."""
    for tool in ["nft", "unshare"]:
        if not shutil.which(tool):
            pytest.fail(f"needs {tool}, of Debian's packages nftables and util-linux")
    enter = ["unshare", "--net"] if os.geteuid() == 0 else ["unshare", "--net", "--map-root-user"]
    script = "set -e; ip link set lo up\n" + "\n".join(commands)
    done = subprocess.run([*enter, "bash", "-c", script], capture_output=True, text=True,
                          env={**os.environ, "FLOOD": FLOOD})
    assert done.returncode == 0, done.stderr
    return done.stdout


LOAD = f"nft -f {EXAMPLES}/nftables.conf"
COUNT = '/usr/bin/python3 -c "$FLOOD"'


def test_without_the_rules_every_connection_gets_through():
    assert json.loads(in_a_network_of_its_own(COUNT)) == 200


@pytest.mark.parametrize("times", [1, 2, 3])
def test_the_limit_is_the_same_however_often_the_rules_are_loaded(times):
    # 60 at once and 30 a second.
    assert 60 <= json.loads(in_a_network_of_its_own(*[LOAD] * times, COUNT)) <= 100
