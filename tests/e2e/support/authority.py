"""A certificate authority of the tests' own, made with the openssl command."""

import pathlib
import ssl
import subprocess

NEW_KEY = {
    "rsa": ["-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048"],
    "ecdsa": ["-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256"],
}


def openssl(*words):
    """Run the openssl command and return its output."""
    done = subprocess.run(["openssl", *map(str, words)], stdin=subprocess.DEVNULL,
                          capture_output=True, timeout=60)
    assert done.returncode == 0, done.stderr
    return done.stdout


class Credentials:
    """A private key and the certificate for it, each in a file."""

    def __init__(self, key, crt):
        self.key, self.crt = pathlib.Path(key), pathlib.Path(crt)

    @property
    def serial(self):
        """The certificate's serial number."""
        return serial_of(self.crt.read_text())


def serial_of(pem):
    """The serial number of a certificate's text."""
    done = subprocess.run(["openssl", "x509", "-noout", "-serial"], input=pem.encode(),
                          capture_output=True, check=True, timeout=60)
    return int(done.stdout.decode().partition("=")[2], 16)


class Authority:
    """Issues certificates for localhost and 127.0.0.1; keeps everything in `folder`."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.crt = self.folder / "authority.crt"
        self._key = self.folder / "authority.key"
        openssl("genpkey", *NEW_KEY["ecdsa"], "-out", self._key)
        openssl("req", "-x509", "-key", self._key, "-days", 2, "-subj",
                "/CN=An authority for tests", "-out", self.crt)
        self._extensions = self.folder / "extensions"
        self._extensions.write_text("subjectAltName=DNS:localhost,IP:127.0.0.1\n")

    def issue(self, name, kind="ecdsa", serial=1):
        """A new key and a certificate for it, in files called after `name`."""
        made = Credentials(self.folder / f"{name}.key", self.folder / f"{name}.crt")
        openssl("genpkey", *NEW_KEY[kind], "-out", made.key)
        self.renew(made, serial)
        return made

    def renew(self, made, serial):
        """Put another certificate for the same key in place, by rename."""
        request = openssl("req", "-new", "-key", made.key, "-subj", "/CN=localhost")
        waiting = self.folder / "request"
        waiting.write_bytes(request)
        fresh = made.crt.with_suffix(".new")
        openssl("x509", "-req", "-in", waiting, "-CA", self.crt, "-CAkey", self._key, "-days", 2,
                "-set_serial", serial, "-extfile", self._extensions, "-out", fresh)
        fresh.rename(made.crt)

    def trust(self, version=None):
        """A context for clients that trust this authority and speak `version` alone."""
        context = ssl.create_default_context(cafile=str(self.crt))
        if version:
            context.minimum_version = context.maximum_version = version
        return context
