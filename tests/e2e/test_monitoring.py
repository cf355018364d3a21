"""What docs/monitoring.md says of Debian's monitoring tools, tried against the program."""

import contextlib
import json
import pathlib
import re
import shlex
import shutil
import subprocess

import pytest

from support.curl import curl
from support.network import wrapper
from support.ports import HeldPort
from support.program import ROOT, program_path
from support.raw import connect
from support.recorder import answers
from support.texts import NOT_FOUND
from support.waiting import PATIENCE, wait_until

PAGE = (ROOT / "docs" / "monitoring.md").read_text()
EXAMPLES = ROOT / "packaging" / "examples"
PLUGINS = pathlib.Path("/usr/lib/nagios/plugins")
HOST = "www.example.org"
OK = b"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello"


@pytest.fixture(autouse=True)
def tools():
    wanted = [PLUGINS / "check_http", "mtail", "prometheus-blackbox-exporter"]
    missing = [str(tool) for tool in wanted if not shutil.which(tool)]
    if missing:
        pytest.fail(f"needs {', '.join(missing)}, of Debian's packages monitoring-plugins-basic, mtail, "
                    "prometheus-blackbox-exporter")


# ---- check_http, where the ports are the page's own

# A service that keeps its connections, the program in front of it with and without TLS, and each
# command of the page.
STAGE = """
import json, socket, subprocess, sys, threading
program, key, crt, answer, *commands = sys.argv[1:]
listener = socket.create_server(("127.0.0.1", 3000))
def serve(link):
    while link.recv(65536):
        link.sendall(answer.encode())
def accept():
    while True:
        threading.Thread(target=serve, args=(listener.accept()[0],), daemon=True).start()
threading.Thread(target=accept, daemon=True).start()
hosts = ["-map", "www.example.org", "3000", "-map", "www.example.org:8080", "3000",
         "-map", "down.example.org", "3001"]
started = [subprocess.Popen([program, *words, *hosts], stdout=subprocess.PIPE)
           for words in [["80"], ["8080"], ["0", "-ssl", "443", key, crt]]]
for one in started:
    while b"0 connections" not in one.stdout.readline():
        pass
said = []
for command in commands:
    done = subprocess.run(["sh", "-c", command], capture_output=True, text=True)
    said.append([done.returncode, done.stdout])
for one in started:
    one.kill()
    one.wait()
print(json.dumps(said))
"""


@pytest.fixture(scope="module")
def pair(tmp_path_factory):
    """A key and a certificate for the page's host, for 60 days."""
    folder = tmp_path_factory.mktemp("pair")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                    "-nodes", "-days", "60", "-subj", f"/CN={HOST}", "-addext", f"subjectAltName=DNS:{HOST}",
                    "-keyout", folder / "key", "-out", folder / "crt"], check=True, capture_output=True)
    return folder / "key", folder / "crt"


def staged(pair, *commands):
    """Status and output of each command, in a network of their own."""
    done = subprocess.run([*wrapper(), "/usr/bin/python3", "-c", STAGE, program_path(), *pair, OK.decode(),
                           *commands], capture_output=True, text=True, timeout=3 * PATIENCE)
    assert done.returncode == 0, done.stderr
    return json.loads(done.stdout)


def page_commands(start):
    """The lines of the page's samples that begin like this."""
    return re.findall(rf"(?m)^ +({re.escape(start)} .*)$", PAGE)


def test_every_check_of_the_page_is_green(pair):
    commands = page_commands("check_http") + page_commands("curl -fsS") + page_commands("openssl")
    assert len(commands) == 6
    for status, said in staged(pair, *[f"PATH=$PATH:{PLUGINS}; {command}" for command in commands]):
        assert status == 0, said


def test_check_http_without_its_flag_waits_in_vain(pair):
    check = f"{PLUGINS}/check_http -t 2 -I 127.0.0.1 -H"
    waits, unmapped, lenient, down, words = staged(
        pair, f"{check} {HOST}", f"{check} other -N -e 200", f"{check} other -N",
        f"{check} down.example.org -N -e 200", f"{check} {HOST} -N -s hello")
    assert waits == [2, "CRITICAL - Socket timeout after 2 seconds\n"]
    assert (unmapped[0], lenient[0], down[0], words[0]) == (2, 1, 2, 2)
    assert "404 Not Found" in unmapped[1]
    assert "No data received" in down[1]


def test_the_certificate_is_the_one_that_is_served(pair):
    check = f"{PLUGINS}/check_http -I 127.0.0.1 -H {HOST} -S --sni -C"
    assert [status for status, _ in staged(pair, f"{check} 20,7", f"{check} 70,7", f"{check} 90,70")] == [0, 1, 2]


# ---- counters from the log

def counted(program, tmp_path):
    """What mtail makes of the program's output."""
    lines = tmp_path / "vindra.log"
    lines.write_bytes(program.output)
    done = subprocess.run(["mtail", "-port", "0", "-one_shot", "-one_shot_format", "prometheus",
                           "-progs", EXAMPLES / "mtail", "-logs", lines], stdin=subprocess.DEVNULL,
                          check=True, capture_output=True, text=True, timeout=PATIENCE)
    found = re.findall(r"(?m)^vindra_(\w+)\{(.*)\} (\d+)$", done.stdout)
    return {(name, *re.findall(r'(?:host|method|kind)="([^"]*)"', labels)): int(value)
            for name, labels, value in found}


def ask(program, host, method="GET", agent="x"):
    with connect(program.port) as client:
        client.send(f"{method} / HTTP/1.1\r\nHost: {host}\r\nUser-Agent: {agent}\r\n\r\n".encode())
        assert client.read_exactly(len(NOT_FOUND)) == NOT_FOUND


def test_mtail_counts_requests_by_the_hosts_that_it_knows(serve, tmp_path):
    program = serve({})
    for host, method in [(HOST, "GET"), (HOST, "GET"), (HOST, "POST"), (HOST, "BREW"), ("evil", "GET"),
                         ("", "GET")]:
        ask(program, host, method)
    wait_until(lambda: program.log.count(b"\n") == 6, "the lines")
    assert counted(program, tmp_path) == {
        ("requests_total", HOST, "GET"): 2, ("requests_total", HOST, "POST"): 1,
        ("requests_total", HOST, "other"): 1, ("requests_total", "other", "any"): 2, ("timeouts_total",): 0}


def test_mtail_counts_a_forged_line_too(serve, tmp_path):
    """Which the page says, and which no pattern can help."""
    program = serve({})
    ask(program, "evil", agent=f"x]\n[{HOST}] 192.0.2.1:1 GET / HTTP/1.1 [y]\naccept() failed\n[")
    wait_until(lambda: program.log.count(b"\n") == 4, "the lines")
    found = counted(program, tmp_path)
    assert found["requests_total", HOST, "GET"] == found["trouble_total", "socket"] == 1


TROUBLE = [("socket", b"accept() failed\n"), ("socket", b"select() failed! 12\n"),
           ("socket", b"bind() failed: -1 Bad value for ai_flags\n"),
           ("no_backend_address", b"getaddrinfo() failed for host localhost:3000!\n"),
           ("no_backend_address", b"No addresses worked for host localhost:3000.\n"),
           ("too_long", b"Warning! Request exceeds max length of 104857600.\n")]


@pytest.mark.parametrize("kind, line", TROUBLE)
def test_mtail_counts_lines_that_tell_of_trouble(tmp_path, kind, line):
    class Printed:
        output = b"0 connections\n" + line + b"7 has timed out.\n"
    found = counted(Printed, tmp_path)
    assert (found["trouble_total", kind], found["timeouts_total",]) == (1, 1)


# ---- the blackbox exporter

class Exporter:
    """The exporter with the modules of the example, for a certificate of the tests'."""

    def __init__(self, folder, crt):
        settings = folder / "blackbox.yml"
        text = (EXAMPLES / "blackbox" / "vindra.yml").read_text()
        settings.write_text(text.replace("/etc/vindra/intermediate.pem", str(crt)))
        with contextlib.closing(HeldPort()) as held:
            self._port = held.port
        self._log = (folder / "blackbox.log").open("wb")
        self._process = subprocess.Popen(
            ["prometheus-blackbox-exporter", "--config.file", settings,
             f"--web.listen-address=127.0.0.1:{self._port}"], stdin=subprocess.DEVNULL, stdout=self._log,
            stderr=self._log)
        wait_until(lambda: b"Listening" in pathlib.Path(self._log.name).read_bytes(), "the exporter")

    def probe(self, module, target):
        """The figures of a probe by their names."""
        text = curl(f"http://127.0.0.1:{self._port}/probe?module={module}&target={target}").decode()
        return {name: float(value) for name, value in re.findall(r"(?m)^(probe_\w+) (\S+)$", text)}

    def close(self):
        self._process.terminate()
        self._process.wait(PATIENCE)
        self._log.close()


def test_the_exporter_sees_the_service_and_the_certificate(keep, serve, launch, record, pair, tmp_path):
    exporter, ssl_port = keep(Exporter(tmp_path, pair[1])), keep(HeldPort()).port
    plain = serve({HOST: record(answers(OK))})
    launch("0", "-ssl", ssl_port, *pair, "-map", HOST, record(answers(OK)).port)
    found = exporter.probe("vindra_http", f"http://127.0.0.1:{plain.port}/")
    assert (found["probe_success"], found["probe_http_status_code"]) == (1, 200)
    found = exporter.probe("vindra_https", f"https://127.0.0.1:{ssl_port}/")
    assert found["probe_success"] == 1
    end = subprocess.check_output(["openssl", "x509", "-in", pair[1], "-noout", "-enddate"], text=True)
    date = subprocess.check_output(["date", "-d", end.strip().partition("=")[2], "+%s"], text=True)
    assert found["probe_ssl_earliest_cert_expiry"] == int(date)


def test_the_exporter_sees_what_is_down(keep, serve, closed_port, pair, tmp_path):
    exporter = keep(Exporter(tmp_path, pair[1]))
    down, unmapped = serve({HOST: closed_port}), serve({})
    for program in [down, unmapped]:
        assert exporter.probe("vindra_http", f"http://127.0.0.1:{program.port}/")["probe_success"] == 0


# ---- the watch

@pytest.fixture
def watch(tmp_path):
    """Runs the command of vindra-watch.service for a port; says what it asked of systemctl."""
    unit = (EXAMPLES / "systemd" / "vindra-watch.service").read_text()
    words = shlex.split(re.search(r"(?m)^ExecStart=(.*)$", unit)[1])
    tool = tmp_path / "systemctl"
    tool.write_text(f"#!/bin/sh\necho $* >>{tmp_path}/asked\n")
    tool.chmod(0o755)

    def watch(port):
        (tmp_path / "asked").write_text("")
        subprocess.run([word.replace(":80/", f":{port}/").replace("--max-time 5", "--max-time 1")
                        for word in words], check=True, capture_output=True,
                       env={"PATH": f"{tmp_path}:/usr/bin:/bin"})
        return (tmp_path / "asked").read_text()
    return watch


RESTART = "try-restart vindra.service vindra@*.service\n"


def test_the_watch_leaves_a_program_that_answers_alone(serve, watch):
    assert watch(serve({}).port) == ""


def test_the_watch_restarts_what_does_not_answer(keep, watch, closed_port):
    silent = keep(HeldPort())
    silent._socket.listen()
    assert watch(silent.port) == RESTART
    assert watch(closed_port) == RESTART


# ---- ufw

def test_ufw_reads_the_profile(tmp_path):
    shutil.copyfile(EXAMPLES / "ufw", tmp_path / "vindra")
    done = subprocess.run(["/usr/bin/python3", "-c", """
import gettext, sys, ufw.applications
gettext.install("ufw")
profiles = ufw.applications.get_profiles(sys.argv[1])
assert ufw.applications.verify_profile("vindra", profiles["vindra"])
print(ufw.applications.get_ports(profiles["vindra"]))
""", tmp_path], capture_output=True, text=True)
    assert (done.stdout, done.stderr) == ("['80,443/tcp']\n", "")
