"""The six lines of docs/deploy.md that lead from no certificate to HTTPS, typed one by one."""

import os
import re
import shutil
import ssl
import subprocess

import pytest

from support.acme import DOMAIN, AcmeAuthority
from support.backends import FileServer
from support.ports import HeldPort
from support.program import ROOT
from support.raw import connect, get

PAGE = ROOT / "docs" / "deploy.md"
EXAMPLES = ROOT / "packaging" / "examples"
TOOLS = {
    "systemctl": 'echo "$*" >>{folder}/asked\n',
    # The group need not exist here.
    "install": 'exec /usr/bin/install $(echo "$*" | sed "s/-g ssl-cert//")\n',
    "lego": 'exec {lego} --server {server} "$@"\n',
}


def lines():
    """The numbered commands of the section."""
    section = PAGE.read_text().partition("### The first certificate\n")[2].partition("\n### ")[0]
    return re.findall(r"(?m)^\d\. `(.*)`$", section)


class Machine:
    """Types commands of the page, with its folders and its ports at other places."""

    def __init__(self, folder, moved, server, trusted):
        self.folder = folder
        self._moved = moved | {
            "/usr/share/doc/vindra/examples": str(folder / "examples"),
            **{path: f"{folder}{path}" for path in ["/usr/local/sbin", "/etc/", "/var/www/html"]}}
        for path in ["usr/local/sbin", "etc/default", "bin", "examples"]:
            (folder / path).mkdir(parents=True)
        for name in ["vindra-certificate", "lego-hook"]:
            shown = folder / "examples" / name
            shown.write_text(self._replaced((EXAMPLES / name).read_text()))
        for name, text in TOOLS.items():
            tool = folder / "bin" / name
            tool.write_text("#!/bin/sh\n" + text.format(folder=folder, server=server,
                                                        lego=shutil.which("lego")))
            tool.chmod(0o755)
        self._environment = {"PATH": f"{folder}/bin:{os.environ['PATH']}", "HOME": str(folder),
                             "LEGO_CA_CERTIFICATES": str(trusted)}

    def _replaced(self, text):
        for old, new in self._moved.items():
            text = text.replace(old, new)
        return text

    def type(self, line):
        """Types a line and returns what it asked of systemctl."""
        asked = self.folder / "asked"
        asked.write_text("")
        done = subprocess.run(["sh", "-c", self._replaced(line)], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              env=self._environment, timeout=50)
        assert done.returncode == 0, done.stdout
        return asked.read_text().splitlines()

    def arguments(self):
        """What the unit would start the program with."""
        settings = (self.folder / "etc/default/vindra").read_text()
        return re.fullmatch(r'VINDRA_ARGS="(.*)"\n', settings)[1].split()


@pytest.mark.limit(120)
def test_six_lines_lead_from_no_certificate_to_https(launch, keep, authority, credentials,
                                                     tmp_path):
    http_port, ssl_port = keep(HeldPort()).port, keep(HeldPort()).port
    (tmp_path / "acme").mkdir()
    acme = keep(AcmeAuthority(tmp_path / "acme", credentials, http_port))
    site = tmp_path / "var/www/html"
    site.mkdir(parents=True)
    (site / "page").write_text("a page")
    moved = {"www.example.org 3000": f"www.example.org {keep(FileServer(site)).port}",
             "80 -map www.example.org": f"{http_port} -map {DOMAIN}:{http_port}",
             "80 -ssl 443": f"{http_port} -ssl {ssl_port}",
             "-map www.example.org": f"-map {DOMAIN}:{ssl_port}",
             "www.example.org": DOMAIN, "you@": "owner@"}
    machine = Machine(tmp_path, moved, f"https://localhost:{acme.port}/dir", authority.crt)
    program, typed = None, lines()
    assert len(typed) == 6
    for line in typed:
        if machine.type(line) == ["restart vindra"]:
            if program:
                program.stop()
            program = launch(*machine.arguments())

    shown = ssl.create_default_context(cafile=str(authority.crt))
    shown.check_hostname, shown.verify_mode = False, ssl.CERT_NONE
    with connect(ssl_port, shown, DOMAIN) as client:
        client.send(get(f"{DOMAIN}:{ssl_port}", "/page"))
        theirs = client.socket.getpeercert(binary_form=True)
        assert client.read_until(b"a page").startswith(b"HTTP/1.0 200 OK\r\n")
    placed = (tmp_path / "etc/vindra/cert.pem").read_text()
    assert ssl.DER_cert_to_PEM_cert(theirs) in placed
    assert (tmp_path / "etc/vindra/key.pem").stat().st_mode & 0o777 == 0o640
