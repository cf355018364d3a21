"""vindra-check: each message, and silence where nothing is wrong."""

import json
import os
import pathlib
import shutil
import subprocess
import tempfile

import pytest

from support.authority import openssl
from support.network import wrapper
from support.ports import HeldPort
from support.program import ROOT, program_path
from support.sandbox import wrapper as sandbox_wrapper
from support.waiting import PATIENCE

CHECK = ROOT / "packaging" / "vindra-check"
UNIT = ROOT / "packaging" / "vindra.service"
STATUS = {"OK": 0, "WARNING": 1, "CRITICAL": 2}
# A user that is neither the caller nor able to read what the caller keeps to itself.
OTHER = "nobody" if os.geteuid() == 0 else "root"


def ask(*words, before=(), **environment):
    """Runs the check and returns its lines, which have to agree with its status."""
    done = subprocess.run([*before, CHECK, *map(str, words)], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=PATIENCE,
                          env={**os.environ, **environment})
    assert done.stderr == ""
    lines = done.stdout.splitlines()
    kinds = [line.partition(": ")[0] for line in lines]
    assert done.returncode == max(STATUS[kind] for kind in kinds)
    assert kinds == sorted(kinds, key=STATUS.get, reverse=True)
    return lines


# ---- the words

LINES = [
    # arguments, what is said of them
    ("", ["CRITICAL: there are no arguments: the program prints its usage and ends"]),
    ("PORT -map app.local:PORT -1", ["OK: 1 port(s), 1 host(s)"]),
    ("PORT", ["WARNING: no host is mapped: every request gets 404"]),
    ("-map app.local:0 -1",
     ['CRITICAL: the first word is the HTTP port, and "-map" is no number: the program reads 0']),
    ("web -map a -1",
     ['CRITICAL: the first word is the HTTP port, and "web" is no number: the program reads 0']),
    ("0 -map a -1", ["CRITICAL: the HTTP port is 0 and there is no HTTPS: nothing is open"]),
    ("-5 -map a -1", ["CRITICAL: the HTTP port -5 is negative: the program ends at once"]),
    ("70000 -map a -1",
     ["CRITICAL: the HTTP port 70000 is above 65535: the program opens port 4464"]),
    ("99999999999 -map a -1", ["CRITICAL: the HTTP port is above 65535"]),
    ("PORT -ssl 8443 key -map",
     ["CRITICAL: user USER cannot read the key key",
      "CRITICAL: user USER cannot read the certificate -map",
      "WARNING: no host is mapped: every request gets 404"]),
    ("PORT -map a:PORT -1 -ssl 8443 key",
     ["CRITICAL: -ssl needs a port, a key and a certificate, and is ignored: there is no HTTPS"]),
    ("PORT -map a:PORT -1 -map b", ["WARNING: -map needs a host and a port, and is ignored"]),
    ("PORT -map a:PORT -1 -v", ['WARNING: "-v" is no option, and is ignored']),
    ("PORT -ssl 0 k c -map a:PORT -1", ["WARNING: the HTTPS port is 0: there is no HTTPS"]),
    # hosts
    ("PORT -map a:PORT -1 -map a:PORT 0 -map a:PORT -1",
     ['WARNING: host "a:PORT" is mapped more than once: the last port counts',
      'WARNING: host "a:PORT": port 0 means that the host is not mapped']),
    ("PORT -map App.local:PORT -1",
     ['WARNING: clients write hosts in small letters: "app.local:PORT" is not mapped, "App.local:PORT" is']),
    ("PORT -map A:PORT -1 -map a:PORT 0",
     ['WARNING: hosts "A:PORT" and "a:PORT" differ by letter case and lead to different ports',
      'WARNING: host "a:PORT": port 0 means that the host is not mapped']),
    ("PORT -map A:PORT -1 -map a:PORT -1", ["OK: 1 port(s), 2 host(s)"]),
    ("PORT -map a -1",
     ['WARNING: browsers ask for "a:PORT" on port PORT: it is not mapped, "a" is']),
    ("PORT -map a -1 -map a:PORT -1", ["OK: 1 port(s), 2 host(s)"]),
    ("PORT -map a:1 -1 -map a:2 -1",
     ['WARNING: browsers ask for "a:PORT" on port PORT: it is not mapped, "a:1" is']),
    # mapped ports
    ("PORT -map a:PORT web",
     ['WARNING: host "a:PORT": the port "web" is no number, so the host is not mapped']),
    ("PORT -map a:PORT -2", ['WARNING: host "a:PORT": there is no port -2']),
    ("PORT -map a:PORT 65536", ['WARNING: host "a:PORT": there is no port 65536']),
    ("PORT -map a:PORT PORT", ['WARNING: host "a:PORT": port PORT is the program\'s own']),
    ("PORT -map a:PORT CLOSED -map b:PORT CLOSED",
     ['WARNING: host "a:PORT": nothing listens on port CLOSED']),
]


@pytest.mark.parametrize("arguments, said", LINES, ids=[line for line, _ in LINES])
def test_of_a_command_line_it_says(keep, closed_port, arguments, said):
    port, user = str(keep(HeldPort()).port), subprocess.check_output(["id", "-nu"], text=True).strip()

    def filled(text):
        return text.replace("PORT", port).replace("CLOSED", str(closed_port)).replace("USER", user)

    assert ask("--", *filled(arguments).split()) == [filled(line) for line in said]


FILES = [
    # what the file holds, whether the words of it arrive
    ('VINDRA_ARGS="PORT -map a:PORT -1"\n', True),
    ("VINDRA_ARGS=PORT -map a:PORT -1", True),
    ("# VINDRA_ARGS=1\nVINDRA_ARGS=1\n  VINDRA_ARGS='PORT -map a:PORT -1' \n", True),
    ('VINDRA_ARGS="PORT \\\n  -map a:PORT \\\n  -1"\n', True),
    ('VINDRA_ARGS="PORT\n  -map a:PORT\n  -1"\nOTHER="1"\n', True),
    ("VINDRA_ARGS=PORT \\\n -map 'a:PORT' -1\n", True),
    ("OTHER=1\n", False),
    ('VINDRA_ARGS=""\n', False),
]


@pytest.mark.parametrize("text, arrives", FILES, ids=[text for text, _ in FILES])
def test_a_file_is_read_as_systemd_reads_it(keep, tmp_path, text, arrives):
    settings = tmp_path / "vindra"
    settings.write_text(text.replace("PORT", str(keep(HeldPort()).port)))
    lines = ask("-f", settings, "-u", os.geteuid())
    assert (lines == ["OK: 1 port(s), 1 host(s)"]) == arrives
    assert lines[0].startswith("CRITICAL: there are no arguments") != arrives


def test_what_is_missing_is_named():
    assert ask("-f", "/nonexistent/file", "-u", os.geteuid()) == [
        "CRITICAL: cannot read /nonexistent/file"]
    assert ask("-u", "no-such-user") == ["CRITICAL: there is no user no-such-user"]


WRONG = [
    (["8080"], '"8080" is no option; the program\'s arguments stand behind --'),
    (["-x"], '"-x" is no option; the program\'s arguments stand behind --'),
    (["-d"], "-d needs an argument"),
    (["-d", "soon"], '-d needs a number of days, not "soon"'),
    (["-f", "a", "--", "80"], "-f and arguments exclude each other"),
]


@pytest.mark.parametrize("words, text", WRONG)
def test_its_own_options_are_refused_in_one_line(words, text):
    done = subprocess.run([CHECK, *words], capture_output=True, text=True)
    assert (done.returncode, done.stdout) == (3, "")
    assert done.stderr == f"vindra-check: {text} (see vindra-check --help)\n"


# ---- the ports, in a network where nobody else listens

# Opens listeners, starts the program where it is wanted, and runs the rest of its words.
STAGE = """
import json, os, socket, subprocess, sys
wanted, program = json.loads(sys.argv[1])
held = []
for address, port, both in wanted:
    family = socket.AF_INET6 if ":" in address else socket.AF_INET
    held.append(socket.create_server((address, port), family=family, dualstack_ipv6=both))
if program:
    started = subprocess.Popen(program, stdout=subprocess.PIPE)
    while b"0 connections" not in started.stdout.readline():
        pass
status = subprocess.run(sys.argv[2:]).returncode
if program:
    started.kill()
    started.wait()
sys.exit(status)
"""


def staged(words, listeners=(), program=None, capable=True, **environment):
    """What is said where sockets listen at these places and the program runs with these words."""
    running = [str(program_path()), *program] if program else None
    drop = ["--inh-caps", "-net_bind_service", "--bounding-set", "-net_bind_service"]
    return ask("--", *words.split(), before=[
        *wrapper(), "/usr/bin/python3", "-c", STAGE, json.dumps([listeners, running]),
        *([] if capable else ["setpriv", *drop])], **environment)


FINE = ["OK: 1 port(s), 1 host(s)"]


def test_a_low_port_takes_the_capability():
    assert staged("80 -map a -1") == FINE
    assert staged("80 -map a -1", capable=False) == [
        "CRITICAL: the HTTP port 80 is below 1024, and user root has no CAP_NET_BIND_SERVICE"]
    assert staged("1024 -map a:1024 -1", capable=False) == FINE


def test_the_capability_may_be_the_files(tmp_path):
    tool = tmp_path / "getcap"
    tool.write_text("#!/bin/sh\necho /usr/bin/vindra cap_net_bind_service=ep\n")
    tool.chmod(0o755)
    assert staged("80 -map a -1", capable=False, PATH=f"{tmp_path}:{os.environ['PATH']}") == FINE


@pytest.mark.parametrize("address, both, taken", [
    ("0.0.0.0", False, True), ("127.0.0.1", False, True), ("::", True, True),
    ("::", False, False), ("::1", False, False)])
def test_a_port_that_another_program_has_is_taken(address, both, taken):
    lines = staged("8080 -map a:8080 -1", [[address, 8080, both]])
    assert (lines == FINE) != taken
    assert lines[0].startswith("CRITICAL: the HTTP port 8080 is taken by python3, process ") == taken


def test_a_port_is_not_taken_by_another_process_of_the_service():
    assert staged("8080 -map a:8080 -1", program=["8080"]) == FINE
    assert staged("8081 -map a:8081 -1", program=["8080"]) == FINE


@pytest.mark.skipif(os.geteuid() != 0, reason="there is one user here")
def test_a_port_of_another_users_process_is_taken():
    lines = ask("-u", OTHER, "--", *"8080 -map a:8080 -1".split(), before=[
        *wrapper(), "/usr/bin/python3", "-c", STAGE, json.dumps([[], [str(program_path()), "8080"]])])
    assert lines[0].startswith("CRITICAL: the HTTP port 8080 is taken by vindra, process ")


@pytest.mark.parametrize("address, said", [
    ("127.0.0.1", None), ("0.0.0.0", None),
    ("::1", 'WARNING: host "a:8080": the service on port 3000 listens on IPv6 only'),
    ("127.0.0.2", 'WARNING: host "a:8080": nothing listens on port 3000')])
def test_a_service_listens_where_the_program_connects(address, said):
    assert staged("8080 -map a:8080 3000", [[address, 3000, False]]) == ([said] if said else FINE)


def test_the_usual_ports_do_not_stand_in_hosts():
    assert staged("80 -map a:80 -1") == [
        'WARNING: browsers ask for "a" on port 80: it is not mapped, "a:80" is']


# ---- key and certificate

@pytest.fixture
def folder():
    """One that every user may look into, unlike pytest's."""
    with tempfile.TemporaryDirectory() as name:
        os.chmod(name, 0o755)
        yield pathlib.Path(name)


class Pair:
    """A key and a certificate for it, valid for so many days."""

    def __init__(self, folder, name="a", days=60):
        self.key, self.crt = folder / f"{name}.key", folder / f"{name}.crt"
        openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                "-days", days, "-subj", "/CN=localhost", "-keyout", self.key, "-out", self.crt)
        self.key.chmod(0o644)


def day_of(crt):
    """The last day of a certificate."""
    text = openssl("x509", "-in", crt, "-noout", "-enddate").decode().partition("=")[2].strip()
    return subprocess.check_output(["date", "-ud", text, "+%F"], text=True).strip()


@pytest.fixture
def tls(keep):
    """Asks about a key and a certificate: tls(key, crt, options before, more environment)."""
    port = str(keep(HeldPort()).port)

    def tls(key, crt, *options, **environment):
        return ask(*options, "--", "0", "-ssl", port, key, crt, "-map", f"a:{port}", "-1", **environment)
    return tls


def test_a_key_and_its_certificate_are_fine(tls, folder):
    pair = Pair(folder)
    assert tls(pair.key, pair.crt) == [f"OK: 1 port(s), 1 host(s), a certificate until {day_of(pair.crt)}"]


def test_http_and_https_on_one_port_are_noticed(keep, folder):
    pair, port = Pair(folder), keep(HeldPort()).port
    assert ask("--", port, "-ssl", port, pair.key, pair.crt, "-map", f"a:{port}", -1) == [
        f"CRITICAL: HTTP and HTTPS have the same port, {port}: the kernel gives each connection to either"]


def test_the_https_port_is_a_number(folder):
    pair = Pair(folder)
    assert ask("--", "0", "-ssl", "https", pair.key, pair.crt, "-map", "a", "-1") == [
        'CRITICAL: the HTTPS port "https" is no number: the program reads 0',
        "WARNING: the HTTPS port is 0: there is no HTTPS"]


def test_browsers_leave_443_out_and_name_any_other_port(folder):
    pair = Pair(folder)
    until = f"a certificate until {day_of(pair.crt)}"
    assert staged(f"0 -ssl 443 {pair.key} {pair.crt} -map a -1") == [f"OK: 1 port(s), 1 host(s), {until}"]
    assert staged(f"80 -ssl 8443 {pair.key} {pair.crt} -map a -1") == [
        'WARNING: browsers ask for "a:8443" on port 8443: it is not mapped, "a" is']


def test_a_key_of_another_certificate_is_noticed(tls, folder):
    first, second = Pair(folder, "a"), Pair(folder, "b")
    assert tls(second.key, first.crt) == [
        f"CRITICAL: the certificate {first.crt} is not for the key {second.key}: every handshake fails"]


def test_a_chain_in_the_wrong_order_is_noticed(tls, folder):
    leaf, issuer = Pair(folder, "leaf"), Pair(folder, "issuer")
    right, wrong = folder / "right.crt", folder / "wrong.crt"
    right.write_text(leaf.crt.read_text() + issuer.crt.read_text())
    wrong.write_text(issuer.crt.read_text() + leaf.crt.read_text())
    assert tls(leaf.key, right)[0].startswith("OK: ")
    assert tls(leaf.key, wrong) == [
        f"CRITICAL: the first certificate in {wrong} is not the key's, a later one is: put it first"]


@pytest.mark.parametrize("days, options, kind", [
    (60, [], "OK"), (13, [], "WARNING"), (15, [], "OK"), (60, ["-d", "61"], "WARNING")])
def test_an_end_that_is_near_is_a_warning(tls, folder, days, options, kind):
    pair = Pair(folder, days=days)
    lines = tls(pair.key, pair.crt, *options)
    if kind == "WARNING":
        assert lines == [f"WARNING: the certificate {pair.crt} expires on {day_of(pair.crt)}"]
    else:
        assert lines[0].startswith("OK: ")


@pytest.mark.parametrize("start, end, text", [
    ("20200101000000Z", "20210203000000Z", "expired on 2021-02-03"),
    ("20900304000000Z", "20910101000000Z", "is not valid before 2090-03-04")])
def test_a_certificate_out_of_its_time_is_noticed(tls, folder, start, end, text):
    pair = Pair(folder)
    (folder / "index").touch()
    (folder / "settings").write_text(
        f"[ca]\ndefault_ca=a\n[a]\ndatabase={folder}/index\nrand_serial=yes\npolicy=p\n"
        f"default_md=sha256\nnew_certs_dir={folder}\n[p]\ncommonName=supplied\n")
    request = folder / "request"
    openssl("req", "-new", "-key", pair.key, "-subj", "/CN=localhost", "-out", request)
    openssl("ca", "-config", folder / "settings", "-batch", "-selfsign", "-keyfile", pair.key,
            "-in", request, "-startdate", start, "-enddate", end, "-out", pair.crt, "-notext")
    assert tls(pair.key, pair.crt) == [f"CRITICAL: the certificate {pair.crt} {text}"]


def test_what_is_no_key_and_no_certificate_is_noticed(tls, folder):
    pair = Pair(folder)
    assert tls(pair.crt, pair.key) == [
        f"CRITICAL: {pair.crt} holds no private key that can be read without a passphrase",
        f"CRITICAL: {pair.key} holds no certificate in PEM form"]


def test_a_passphrase_is_noticed(tls, folder):
    pair = Pair(folder)
    openssl("pkey", "-in", pair.key, "-aes128", "-passout", "pass:secret", "-out", folder / "locked")
    assert tls(folder / "locked", pair.crt) == [
        f"CRITICAL: {folder}/locked holds no private key that can be read without a passphrase"]


def test_files_are_read_as_the_services_user(tls, folder):
    pair = Pair(folder)
    if os.geteuid() == 0:
        assert tls(pair.key, pair.crt, "-u", OTHER)[0].startswith("OK: ")
        pair.key.chmod(0o600)
        assert tls(pair.key, pair.crt)[0].startswith("OK: ")
        assert tls(pair.key, pair.crt, "-u", OTHER) == [
            f"CRITICAL: user {OTHER} cannot read the key {pair.key}"]
    else:
        pair.key.chmod(0)
        assert tls(pair.key, pair.crt)[0].endswith(f" cannot read the key {pair.key}")


def test_one_user_cannot_tell_what_another_can_read(folder):
    pair = Pair(folder)
    before = ["setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups"] if os.geteuid() == 0 else []
    done = subprocess.run([*before, "bash", "-c", CHECK.read_text(), "vindra-check", "-u", "root", "--",
                           "0", "-ssl", "8443", pair.key, pair.crt, "-map", "a:8443", "-1"],
                          capture_output=True, text=True, cwd="/")
    assert f"WARNING: only root can find out whether user root can read the key {pair.key}" in (
        done.stdout.splitlines())


@pytest.mark.parametrize("place", ["/home", "/root", "/tmp", "/var/tmp", "/run/user/0"])
def test_folders_that_the_unit_hides_are_named(keep, tmp_path, place):
    settings, port = tmp_path / "vindra", keep(HeldPort()).port
    settings.write_text(f'VINDRA_ARGS="0 -ssl {port} {place}/k {place}/c -map a:{port} -1"\n')
    assert ask("-f", settings, "-u", OTHER) == [
        f"CRITICAL: the key {place}/k lies in a folder that the unit hides from the program",
        f"CRITICAL: the certificate {place}/c lies in a folder that the unit hides from the program"]


def test_a_missing_tls_library_is_noticed(tls, folder, tmp_path):
    pair, tool = Pair(folder), tmp_path / "ldconfig"
    tool.write_text("#!/bin/sh\necho '	libcrypto.so.3 (libc6,x86-64) => /lib/libcrypto.so.3'\n")
    tool.chmod(0o755)
    assert tls(pair.key, pair.crt, PATH=f"{tmp_path}:{os.environ['PATH']}") == [
        "CRITICAL: the loader's cache has no libssl.so: with -ssl the program ends at once"]


def test_without_openssl_the_rest_is_still_looked_at(tls, folder, tmp_path):
    pair = Pair(folder)
    for tool in "awk cat cut date find getcap grep id printf sed test timeout xargs".split():
        if path := shutil.which(tool):
            (tmp_path / tool).symlink_to(path)
    assert tls(pair.key, pair.crt, PATH=str(tmp_path)) == [
        "WARNING: without the command openssl the key and the certificate cannot be compared"]


# ---- as the unit runs it

def test_it_works_under_the_filters_of_the_unit(folder, keep):
    pair, port = Pair(folder), keep(HeldPort()).port
    before = sandbox_wrapper(UNIT)
    assert ask("--", 0, "-ssl", port, pair.key, pair.crt, "-map", f"a:{port}", "-1",
               before=before)[0].startswith("OK: ")
    assert ask("--", port, "-map", f"a:{port}", keep(HeldPort()).port,
               before=before)[0].startswith("WARNING: host ")


def test_the_manual_is_clean():
    done = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", f"{CHECK}.1"], capture_output=True)
    assert (done.returncode, done.stdout) == (0, b"")
