"""The script that puts a renewed certificate in place, with the machine's tools stood in for."""

import os
import subprocess

import pytest

from support.program import ROOT

SCRIPT = ROOT / "packaging" / "examples" / "vindra-certificate"
LEGO = ROOT / "packaging" / "examples" / "lego-hook"
DEHYDRATED = ROOT / "packaging" / "examples" / "dehydrated-hook"


class Machine:
    """A folder for the keys, and tools that note their arguments."""

    def __init__(self, folder):
        self.folder = folder
        self.place = folder / "etc"
        self.place.mkdir()
        (folder / "bin").mkdir()
        self._tool("systemctl", f'echo "$*" >>{folder}/noted')
        # The group need not exist here, and its owner need not be root.
        self._tool("install", f'echo "$2 $4 ${{6##*/}}" >>{folder}/noted\n'
                              'exec /usr/bin/install -m "$2" "$5" "$6"')

    def _tool(self, name, text):
        tool = self.folder / "bin" / name
        tool.write_text(f"#!/bin/sh\n{text}\n")
        tool.chmod(0o755)

    def give(self, key, certificate):
        """Runs the script on files with these contents and returns what the tools noted."""
        given = self.folder / "given.key", self.folder / "given.crt"
        for path, text in zip(given, (key, certificate)):
            path.write_text(text)
        noted = self.folder / "noted"
        noted.write_text("")
        subprocess.run([SCRIPT, *given], check=True,
                       env={"PATH": f"{self.folder}/bin:{os.environ['PATH']}",
                            "VINDRA_FOLDER": str(self.place)})
        return noted.read_text().splitlines()

    def placed(self):
        return {path.name: path.read_text() for path in self.place.iterdir()}


@pytest.fixture
def machine(tmp_path):
    return Machine(tmp_path)


PUT_CERTIFICATE = "644 ssl-cert cert.pem.new"
RESTART = "try-restart vindra.service vindra@*.service"


def test_a_first_certificate_comes_with_its_key_and_a_restart(machine):
    assert machine.give("k1", "c1") == ["640 ssl-cert key.pem.new", PUT_CERTIFICATE, RESTART]
    assert machine.placed() == {"key.pem": "k1", "cert.pem": "c1"}


def test_a_renewal_for_the_same_key_restarts_nothing(machine):
    machine.give("k1", "c1")
    assert machine.give("k1", "c2") == [PUT_CERTIFICATE]
    assert machine.placed() == {"key.pem": "k1", "cert.pem": "c2"}


def test_a_renewal_with_a_new_key_restarts(machine):
    machine.give("k1", "c1")
    assert machine.give("k2", "c2")[-1] == RESTART
    assert machine.placed() == {"key.pem": "k2", "cert.pem": "c2"}


@pytest.mark.parametrize("hook, arguments", [
    (LEGO, []),
    (DEHYDRATED, ["deploy_cert", "shop.test", "a key", "a certificate", "full", "chain", "1"]),
])
def test_a_hook_hands_over_key_and_certificate(tmp_path, hook, arguments):
    text = hook.read_text()
    assert text.count("/usr/local/sbin/vindra-certificate") == 1
    shown = tmp_path / "hook"
    shown.write_text(text.replace("/usr/local/sbin/vindra-certificate", "printf '%s,'"))
    done = subprocess.run(["sh", shown, *arguments], check=True, capture_output=True, text=True,
                          env={"LEGO_CERT_KEY_PATH": "a key", "LEGO_CERT_PATH": "a certificate"})
    assert done.stdout == "a key,a certificate,"


def test_dehydrateds_other_calls_change_nothing(tmp_path):
    done = subprocess.run([DEHYDRATED, "startup_hook"], capture_output=True)
    assert (done.returncode, done.stdout, done.stderr) == (0, b"", b"")
