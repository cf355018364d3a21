"""An ACME authority of the tests' own (pebble) and a client for it (lego)."""

import contextlib
import json
import os
import pathlib
import socket
import subprocess

from support.authority import Credentials
from support.ports import HeldPort
from support.waiting import PATIENCE, wait_until

DOMAIN = "shop.test"


class AcmeAuthority:
    """Issues certificates to whoever answers a challenge on `http_port` of this machine.

    A name server of its own sends every name there. `made` is what the authority's own HTTPS
    shows to its clients.
    """

    def __init__(self, folder, made, http_port):
        self._folder = pathlib.Path(folder)
        with contextlib.ExitStack() as stack:
            held = [stack.enter_context(contextlib.closing(HeldPort())) for _ in range(4)]
            self.port, management, names, control = (each.port for each in held)
            configuration = self._folder / "pebble.json"
            configuration.write_text(json.dumps({"pebble": {
                "listenAddress": f"127.0.0.1:{self.port}",
                "managementListenAddress": f"127.0.0.1:{management}",
                "certificate": str(made.crt), "privateKey": str(made.key),
                "httpPort": http_port, "tlsPort": 1}}))
            self._start(stack, "names", "pebble-challtestsrv", "-dns01", f"127.0.0.1:{names}",
                        "-management", f"127.0.0.1:{control}", "-defaultIPv4", "127.0.0.1",
                        "-defaultIPv6", "", "-http01", "", "-https01", "", "-tlsalpn01", "")
            self._start(stack, "pebble", "pebble", "-config", configuration, "-strict",
                        "-dnsserver", f"127.0.0.1:{names}")
            for port in (control, self.port):
                wait_until(lambda port=port: self._accepts(port), "the ACME authority to accept")
            self._stack = stack.pop_all()

    def _start(self, stack, name, *words):
        log = stack.enter_context((self._folder / f"{name}.log").open("wb"))
        process = subprocess.Popen(
            list(map(str, words)), stdin=subprocess.DEVNULL, stdout=log, stderr=log,
            env={**os.environ, "PEBBLE_VA_NOSLEEP": "1", "PEBBLE_WFE_NONCEREJECT": "0"})
        stack.callback(process.wait, PATIENCE)
        stack.callback(process.terminate)

    @staticmethod
    def _accepts(port):
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", port)) == 0

    @property
    def log(self):
        return (self._folder / "pebble.log").read_text()

    def close(self):
        self._stack.close()


class AcmeClient:
    """Asks `authority` for certificates for DOMAIN; answers challenges in files below `root`."""

    def __init__(self, folder, authority, trusted, root):
        self._folder = pathlib.Path(folder)
        self._words = ["lego", "--accept-tos", "--email", f"owner@{DOMAIN}", "--domains", DOMAIN,
                       "--server", f"https://localhost:{authority.port}/dir", "--path", folder,
                       "--http", "--http.webroot", root]
        self._environment = {**os.environ, "LEGO_CA_CERTIFICATES": str(trusted)}

    def _run(self, *words):
        done = subprocess.run(list(map(str, [*self._words, *words])), stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=50,
                              env=self._environment)
        assert done.returncode == 0, done.stdout.decode()

    @property
    def made(self):
        """The newest certificate and its key."""
        folder = self._folder / "certificates"
        return Credentials(folder / f"{DOMAIN}.key", folder / f"{DOMAIN}.crt")

    def obtain(self):
        # An authority may take an answered challenge for answered once more.
        self._run("run", "--always-deactivate-authorizations", "true")

    def renew(self):
        """Another certificate for the same key, although the old one is still good."""
        self._run("renew", "--reuse-key", "--days", "100000", "--no-random-sleep")
