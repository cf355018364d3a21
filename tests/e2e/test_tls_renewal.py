"""Renewed certificates, under way. All of it waits for one and the same minute."""

import contextlib
import os
import shutil

import pytest

from support.acme import DOMAIN, AcmeAuthority, AcmeClient
from support.authority import openssl, serial_of
from support.ports import HeldPort
from support.program import Program
from support.raw import connect, get
from support.recorder import Recorder
from support.texts import echo_answer
from support.tls import SClient
from support.waiting import wait_until

RELOADING = b"Reloading certificate...\n"

# The file is looked at once a minute, in a tenth of a second without traffic.
SECONDS_TO_THE_LOOK = 70


def shown_serial(program):
    """The serial number of the certificate that a new connection is shown."""
    with SClient(program.ssl_port) as client:
        client.read_until(b"Verify return code")
        client.leave()
        return serial_of(client.output.decode())


def await_reload(program):
    wait_until(lambda: RELOADING in program.output, "a look at the certificate",
               SECONDS_TO_THE_LOOK)


class Renewal:
    """A program whose certificate is replaced in its first minute, and a client from before."""

    def __init__(self, stack, authority):
        def keep(resource):
            return stack.enter_context(contextlib.closing(resource))

        self.made = authority.issue("renewed", serial=1)
        self.recorder = keep(Recorder())
        self.port, self.ssl_port = keep(HeldPort()).port, keep(HeldPort()).port
        self.program = Program(self.port, "-ssl", self.ssl_port, self.made.key, self.made.crt,
                               "-map", "app.local", self.recorder.port, "-map", "echo.local", "-1",
                               port=self.port)
        stack.callback(self.program.stop)
        self.program.await_start()
        self.program.ssl_port = self.ssl_port

        # With a backend attached, a client is never timed out.
        self.old_client = keep(connect(self.ssl_port, authority.trust()))
        self.old_client.send(get("app.local"))
        self.recorder.link().read_message()
        assert shown_serial(self.program) == 1
        authority.renew(self.made, serial=2)


@pytest.fixture(scope="module", autouse=True)
def renewal(authority):
    """Begins before the first test, so that its minute passes during the others."""
    with contextlib.ExitStack() as stack:
        yield Renewal(stack, authority)


def public_key(made):
    return openssl("x509", "-in", made.crt, "-noout", "-pubkey")


@pytest.mark.limit(150)
def test_a_certificate_is_had_and_renewed_from_an_acme_authority(
        launch, keep, authority, credentials, file_server, tmp_path):
    http_port, ssl_port = keep(HeldPort()).port, keep(HeldPort()).port
    folder = tmp_path / "acme"
    folder.mkdir()
    acme = keep(AcmeAuthority(folder, credentials, http_port))
    client = AcmeClient(folder, acme, authority.crt, tmp_path)
    site = file_server.port

    # The first one: the plain program leads the challenge to the site.
    plain = launch(http_port, "-map", f"{DOMAIN}:{http_port}", site)
    client.obtain()
    plain.await_output(b"[%s:%d] " % (DOMAIN.encode(), http_port))
    plain.stop()
    first = client.made
    first_serial, first_key = first.serial, public_key(first)

    # The program reads copies, so that each file is put in place whole.
    key, crt = tmp_path / "server.key", tmp_path / "server.crt"
    shutil.copyfile(first.key, key)
    shutil.copyfile(first.crt, crt)
    program = launch(http_port, "-ssl", ssl_port, key, crt, "-map", f"{DOMAIN}:{ssl_port}", site)
    program.ssl_port = ssl_port
    assert shown_serial(program) == first_serial

    # The next one: the authority follows the redirect, and the site answers over HTTPS.
    client.renew()
    program.await_output(b" GET /.well-known/acme-challenge/")
    assert b"[%s:%d] " % (DOMAIN.encode(), ssl_port) in program.output
    second = client.made
    assert second.serial != first_serial
    assert public_key(second) == first_key
    shutil.copyfile(second.crt, crt.with_suffix(".new"))
    os.rename(crt.with_suffix(".new"), crt)

    await_reload(program)
    assert shown_serial(program) == second.serial


@pytest.mark.limit(90)
def test_a_renewed_certificate_is_shown_to_new_clients_while_old_ones_live_on(renewal, authority):
    await_reload(renewal.program)
    assert shown_serial(renewal.program) == 2

    renewal.recorder.link().send(b"late")
    assert renewal.old_client.read_exactly(4) == b"late"
    with connect(renewal.ssl_port, authority.trust()) as client:
        client.send(get("echo.local"))
        answer = echo_answer(get("echo.local"))
        assert client.read_exactly(len(answer)) == answer
    assert renewal.program.output.count(RELOADING) == 1
