"""The script that puts a renewed certificate in place, with the machine's tools stood in for."""

import os
import subprocess

import pytest

from support.program import ROOT

SCRIPT = ROOT / "packaging" / "examples" / "vindra-certificate"
LEGO = ROOT / "packaging" / "examples" / "lego-hook"
DEHYDRATED = ROOT / "packaging" / "examples" / "dehydrated-hook"


# Each tool notes its call, and the one with the number in "last" is the last: it fails, and so does
# every later one, as if the machine had gone down.
TOOL = """\
#!/bin/sh
cd {folder}
echo {note} >>noted
[ "$(wc -l <noted)" -lt "$(cat last)" ] || exit 1
"""


class Machine:
    """A place for a folder of keys, and tools that note their arguments."""

    def __init__(self, folder):
        self.folder = folder
        self.place = folder / "etc" / "vindra"
        self.place.parent.mkdir()
        (folder / "bin").mkdir()
        self._tool("systemctl", '"$*"', "")
        # The group need not exist here, and its owner need not be root.
        self._tool("install", '"$*" | sed "s,/[^ ]*/,,g"',
                   'exec /usr/bin/install $(echo "$*" | sed "s/-g ssl-cert//")')
        self._tool("mv", '"mv ${2##*/}"', 'exec /bin/mv "$@"')

    def _tool(self, name, note, action):
        tool = self.folder / "bin" / name
        tool.write_text(TOOL.format(folder=self.folder, note=note) + action + "\n")
        tool.chmod(0o755)

    def run(self, *words):
        """Runs the script, with its tools before those of the machine."""
        return subprocess.run([SCRIPT, *words], capture_output=True, text=True,
                              env={"PATH": f"{self.folder}/bin:{os.environ['PATH']}",
                                   "VINDRA_FOLDER": str(self.place)})

    def give(self, key, certificate, last=1000):
        """Runs the script on files with these contents and returns what the tools noted."""
        given = self.folder / "given.key", self.folder / "given.crt"
        for path, text in zip(given, (key, certificate)):
            path.write_text(text)
        noted = self.folder / "noted"
        noted.write_text("")
        (self.folder / "last").write_text(str(last))
        done = self.run(*given)
        assert (done.returncode == 0) == (last > noted.read_text().count("\n")), done.stderr
        return noted.read_text().splitlines()

    def placed(self):
        return {path.name: path.read_text() for path in self.place.iterdir()}


@pytest.fixture
def machine(tmp_path):
    return Machine(tmp_path)


MAKE_FOLDER = "-d -m 750 -g ssl-cert vindra"
PUT_CERTIFICATE = ["-m 644 -g ssl-cert given.crt cert.pem.new", "mv cert.pem"]
PUT_KEY = ["-m 640 -g ssl-cert given.key key.pem.new", "mv key.pem"]
RESTART = "try-restart vindra.service vindra@*.service"


def test_a_first_certificate_comes_with_its_folder_its_key_and_a_restart(machine):
    assert machine.give("k1", "c1") == [MAKE_FOLDER, *PUT_CERTIFICATE, *PUT_KEY, RESTART]
    assert machine.placed() == {"key.pem": "k1", "cert.pem": "c1"}


def test_a_renewal_for_the_same_key_restarts_nothing(machine):
    machine.give("k1", "c1")
    assert machine.give("k1", "c2") == PUT_CERTIFICATE
    assert machine.placed() == {"key.pem": "k1", "cert.pem": "c2"}


def test_a_renewal_with_a_new_key_restarts(machine):
    machine.give("k1", "c1")
    assert machine.give("k2", "c2") == [*PUT_CERTIFICATE, *PUT_KEY, RESTART]
    assert machine.placed() == {"key.pem": "k2", "cert.pem": "c2"}


@pytest.mark.parametrize("last", range(1, 6))
def test_a_repeat_after_a_run_that_broke_off_restarts_too(machine, last):
    machine.give("k1", "c1")
    assert len(machine.give("k2", "c2", last)) == last
    assert machine.give("k2", "c2")[-1] == RESTART
    assert machine.placed() == {"key.pem": "k2", "cert.pem": "c2"}
    assert machine.give("k2", "c3") == PUT_CERTIFICATE


@pytest.mark.parametrize("words, text", [
    ([], "usage: vindra-certificate KEY CERTIFICATE"),
    (["a"], "usage: vindra-certificate KEY CERTIFICATE"),
    (["/nonexistent", "/dev/null"], "cannot read /nonexistent"),
    (["/dev/null", "/nonexistent"], "cannot read /nonexistent"),
])
def test_wrong_words_get_one_line_and_change_nothing(machine, words, text):
    done = machine.run(*words)
    assert (done.returncode, done.stdout, done.stderr) == (1, "", f"vindra-certificate: {text}\n")
    assert not machine.place.exists()


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
