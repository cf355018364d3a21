"""What docs/logs.md says of other programs, tried on lines that the program has printed."""

import gzip
import json
import re
import shlex
import shutil
import subprocess
import time

import pytest

from support.curl import curl, url
from support.ports import HeldPort
from support.program import ROOT, program_path
from support.raw import connect
from support.texts import NOT_FOUND
from support.waiting import PATIENCE, wait_until

PAGE = (ROOT / "docs" / "logs.md").read_text()
EXAMPLES = ROOT / "packaging" / "examples"
# As `journalctl -o short-iso` shows a line: with the machine's name or, on request, without it.
NAMED = "2026-11-21T03:32:13+0000 debian vindra[4711]: "
NAMELESS = "2026-11-21T03:32:13+0000 vindra[4711]: "
# As fail2ban itself reads the journal, which has the time elsewhere.
UNDATED = "debian vindra[4711]: "

BROWSER = "Mozilla/5.0 (X11; Linux x86_64; rv:128.0) Gecko/20100101 Firefox/128.0"


@pytest.fixture(autouse=True)
def tools():
    tools = ["goaccess", "fail2ban-regex", "logrotate", "/lib/systemd/systemd-journal-remote"]
    missing = [tool for tool in tools if not shutil.which(tool)]
    if missing:
        pytest.fail(f"needs {', '.join(missing)}, of Debian's packages goaccess, fail2ban, logrotate, "
                    "systemd-journal-remote")


def ask(program, host="app.local", target="/", agent="curl/7.88.1", forwarded=None):
    """A request with exactly these values; the host is mapped to nothing."""
    lines = [f"GET {target} HTTP/1.1", f"Host: {host}", f"User-Agent: {agent}"]
    if forwarded:
        lines.append(f"X-Forwarded-For: {forwarded}")
    with connect(program.port) as client:
        client.send("\r\n".join([*lines, "", ""]).encode())
        assert client.read_exactly(len(NOT_FOUND)) == NOT_FOUND


def journal(program, path, stamp):
    """Writes the output to `path` as it looks in the journal."""
    path.write_bytes(b"".join(stamp.encode() + line + b"\n" for line in program.output.splitlines()))
    return path


def goaccess_options():
    command, = re.findall(r"(?m)^ +goaccess - ((?:.*\\\n)*.*)$", PAGE)
    return shlex.split(command.replace("\\\n", " "))


def goaccess(lines, report):
    options = goaccess_options()
    options[options.index("-o") + 1] = str(report)
    with open(lines) as stream:
        subprocess.run(["goaccess", "-", *options], stdin=stream, check=True, capture_output=True,
                       env={"LC_ALL": "C.UTF-8", "PATH": "/usr/bin:/bin", "TERM": "dumb"})
    return report.read_text()


def test_goaccess_counts_what_was_asked(serve, tmp_path):
    program = serve({"app.local": "-1"})
    for target in ["/a", "/a", "/b?c=1"]:
        ask(program, "one.local", target)
    ask(program, "two.local:8080", "/a", BROWSER)
    wait_until(lambda: program.log.count(b"\n") == 4, "four lines")
    report = json.loads(goaccess(journal(program, tmp_path / "journal", NAMELESS), tmp_path / "report.json"))

    def hits(panel):
        return {entry["data"]: entry["hits"]["count"] for entry in report[panel]["data"]}

    assert report["general"]["valid_requests"] == 4
    assert hits("vhosts") == {"one.local": 3, "two.local:8080": 1}
    assert hits("requests") == {"/a": 3, "/b?c=1": 1}
    assert hits("hosts") == {"127.0.0.1": 4}
    assert hits("browsers") == {"Others": 3, "Firefox": 1}
    assert hits("visitors") == {"20261121": 4}
    # What is no request: the start and the count of connections.
    assert report["general"]["failed_requests"] == len(program.output.splitlines()) - 4


def test_goaccess_makes_a_page(serve, tmp_path):
    program = serve({})
    ask(program, "one.local", "/a-page")
    wait_until(lambda: program.log, "a line")
    assert "/a-page" in goaccess(journal(program, tmp_path / "journal", NAMELESS), tmp_path / "report.html")


def banned(lines, tmp_path):
    """The lines that the filter takes for a scanner's."""
    kept = EXAMPLES / "fail2ban" / "vindra-scan.conf"
    done = subprocess.run(["fail2ban-regex", "--print-all-matched", lines, kept], cwd=tmp_path,
                          capture_output=True, text=True)
    assert "Failregex: " in done.stdout, done.stdout + done.stderr
    matched = done.stdout.partition("Matched line(s):")[2].partition("`-")[0]
    return re.findall(r"(?m)^\|  (.*)$", matched)


SCANS = ["/wp-login.php", "/xmlrpc.php?rsd", "/.env", "/.git/config"]
HARMLESS = ["/", "/wp-login", "/blog/wp-login.php", "/environment", "/.gitignore"]


@pytest.mark.parametrize("stamp", [NAMED, NAMELESS, UNDATED, ""])
def test_fail2ban_bans_scanners_and_nobody_else(serve, tmp_path, stamp):
    program = serve({})
    for target in SCANS + HARMLESS:
        ask(program, target=target)
    wait_until(lambda: program.log.count(b"\n") == len(SCANS + HARMLESS), "the lines")
    found = banned(journal(program, tmp_path / "journal", stamp), tmp_path)
    assert [re.search(r"GET (\S+)", line)[1] for line in found] == SCANS


# A scanner's line of another address, for a place within a line of one's own.
FORGED = "[a] 192.0.2.1:1 GET /.env HTTP/1.1 [x]"


@pytest.mark.parametrize("place", ["host", "target", "agent", "forwarded"])
def test_fail2ban_bans_nobody_for_what_stands_within_a_line(serve, tmp_path, place):
    program = serve({})
    ask(program, **{place: FORGED})
    wait_until(lambda: program.log, "a line")
    assert b"192.0.2.1" in program.log
    assert banned(journal(program, tmp_path / "journal", NAMED), tmp_path) == []


def test_fail2ban_takes_a_forged_line_for_a_strangers(serve, tmp_path):
    """Which the page says, and which no pattern can help."""
    program = serve({})
    ask(program, agent=f"x]\n{FORGED}\n")
    wait_until(lambda: program.log.count(b"\n") == 3, "the lines")
    found = banned(journal(program, tmp_path / "journal", NAMED), tmp_path)
    assert [line.removeprefix(NAMED) for line in found] == [FORGED]


# Lines of the journal, in the form that systemd-journal-remote reads.
ENTRY = """\
__REALTIME_TIMESTAMP={time}
_BOOT_ID=00000000000000000000000000000001
_TRANSPORT=stdout
_SYSTEMD_UNIT={unit}
SYSLOG_IDENTIFIER={identifier}
_COMM={identifier}
_PID=4711
_HOSTNAME=debian
MESSAGE={line}

"""


def identifier(unit):
    """What the unit gives as SyslogIdentifier=, which the journal keeps as SYSLOG_IDENTIFIER."""
    return re.search(r"(?m)^SyslogIdentifier=(.*)$", (ROOT / "packaging" / unit).read_text())[1]


def test_fail2ban_finds_the_lines_of_every_instance_and_of_nobody_else(tmp_path):
    entries = [("vindra.service", identifier("vindra.service"), "192.0.2.1"),
               ("vindra@1.service", identifier("vindra@.service"), "192.0.2.2"),
               ("vindra@b.service", identifier("vindra@.service"), "192.0.2.3"),
               ("other.service", "other", "192.0.2.4")]
    now = int(time.time() * 1e6)
    text = "".join(ENTRY.format(time=now + number, unit=unit, identifier=name,
                                line=f"[a] {address}:1 GET /.env HTTP/1.1 [x]")
                   for number, (unit, name, address) in enumerate(entries))
    journal_file = tmp_path / "lines.journal"
    subprocess.run(["/lib/systemd/systemd-journal-remote", "-o", journal_file, "-"],
                   input=text.encode(), check=True, capture_output=True)
    done = subprocess.run(["fail2ban-regex", "--print-all-matched",
                           f"systemd-journal[journalfiles='{journal_file}', journalflags=0]",
                           EXAMPLES / "fail2ban" / "vindra-scan.conf"],
                          cwd=tmp_path, capture_output=True, text=True)
    assert re.findall(r"192\.0\.2\.\d", done.stdout) == [address for *_, address in entries[:3]], (
        done.stdout + done.stderr)


class Appending:
    """The program with its output at the end of a file, as the unit's append: has it."""

    def __init__(self, path, port):
        with open(path, "ab") as stream:
            self.process = subprocess.Popen([program_path(), str(port), "-map", "app.local", "-1"],
                                            stdin=subprocess.DEVNULL, stdout=stream)

    def close(self):
        self.process.terminate()
        self.process.wait(PATIENCE)


@pytest.mark.parametrize("name", ["vindra.log", "vindra-1.log"])
def test_logrotate_takes_the_file_away_under_the_program(keep, tmp_path, name):
    log, port = tmp_path / name, keep(HeldPort()).port
    keep(Appending(log, port))
    wait_until(lambda: b"0 connections" in log.read_bytes(), "the first turn")

    def visit(target):
        curl("-H", "Host: app.local", url(port, target))
        wait_until(lambda: target.encode() in log.read_bytes(), f"the line of {target}")

    visit("/before")
    settings = tmp_path / "settings"
    settings.write_text((EXAMPLES / "logrotate").read_text().replace("/var/log/", f"{tmp_path}/"))
    settings.chmod(0o644)
    subprocess.run(["logrotate", "--force", "--state", tmp_path / "state", settings], check=True,
                   capture_output=True)
    with gzip.open(f"{log}.1.gz") as kept:
        assert b"/before" in kept.read()
    assert log.read_bytes() == b""
    visit("/behind")
    # No zeros in front, as there would be in a file that is not opened for appending.
    line = rb"\[app\.local\] 127\.0\.0\.1:\d+ GET /behind .*\n"
    assert re.fullmatch(rb"(\d+ connections\n)*" + line, log.read_bytes())
