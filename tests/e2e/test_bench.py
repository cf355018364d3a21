"""bench/run and bench/report: that they run and what they refuse, not how fast anything is."""

import contextlib
import importlib.util
import json
import os
import pathlib
import platform
import re
import signal
import subprocess
import sys

import pytest

from support.program import program_path
from support.waiting import wait_until

BENCH = pathlib.Path(__file__).resolve().parents[2] / "bench"
# By its path: tests/e2e has a package of the same name as bench.
PAIRS = importlib.util.spec_from_file_location("pairs", BENCH / "support" / "pairs.py")
SERVERS = {"vindra", "nginx", "nginx with log", "haproxy", "haproxy with log", "floor"}


def bench(script, *words):
    build = program_path().parents[1]
    return subprocess.run([BENCH / script, *map(str, words)], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=60, check=False, env={**os.environ, "VINDRA_BUILD": str(build)})


def named(pid):
    """Pid and name of a process, or nothing of one that has ended."""
    with contextlib.suppress(FileNotFoundError, ProcessLookupError):
        return [(pid, pathlib.Path(f"/proc/{pid}/comm").read_text().strip())]
    return []


def descendants(pid):
    """Pid and name of every process below one, as the kernel lists them; one that ends meanwhile is left out."""
    found = []
    with contextlib.suppress(FileNotFoundError, ProcessLookupError):
        for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
            for child in map(int, (task / "children").read_text().split()):
                found += named(child) + descendants(child)
    return found


@pytest.mark.parametrize("words", [
    ["--rounds", "0"], ["--rounds", "many"], ["--rounds"], ["--seconds", "-1"], ["--seconds", "nan"],
    ["--only", "nothing"], ["--only", "get_1", "--only", "nothing"], ["--unknown"], ["word"],
    ["--against"], ["--against", "/nowhere/at/all"], ["--against", "/"], ["--against", BENCH / "reasons.toml"],
    ["--newer"], ["--newer", "/nowhere/at/all"], ["--newer", BENCH],
    ["--repeats", "-1"], ["--repeats", "some"], ["--ours", "yes"],
    ["--json", "/nowhere/at/all.json"], ["--out", "/nowhere/at/all"],
], ids=lambda words: " ".join(map(str, words)))
def test_run_refuses_a_wrong_argument_in_one_line(words):
    refused = bench("run", *words)
    assert refused.returncode == 2
    assert refused.stdout == ""
    assert refused.stderr.startswith("run: ") and refused.stderr.count("\n") == 1, refused.stderr


def test_a_short_run_leaves_numbers_and_a_page_of_them(tmp_path):
    numbers = tmp_path / "numbers.json"
    run = bench("run", "--rounds", 1, "--seconds", 0.3, "--only", "get_64", "--json", numbers)
    assert (run.returncode, run.stderr) == (0, "")
    assert "keep-alive GET of 100 bytes, 64 connections" in run.stdout
    found = json.loads(numbers.read_text())["rows"]["get_64"]
    assert set(found) == SERVERS
    for rounds in found.values():
        assert len(rounds) == 1 and rounds[0]["requests"] > 0 and rounds[0]["us_per_request"] > 0

    pages = [tmp_path / "first", tmp_path / "second"]
    for page in pages:
        written = bench("report", numbers, page)
        assert (written.returncode, written.stderr) == (0, "")
    text = (pages[0] / "benchmarks.md").read_text()
    assert "{{" not in text and "at most 1.15 of the floor" in text
    names = sorted(path.relative_to(pages[0]) for path in pages[0].rglob("*.*"))
    assert [str(name) for name in names] == ["benchmarks.md", "pictures/cost_per_request.svg"]
    for name in names:
        assert (pages[0] / name).read_bytes() == (pages[1] / name).read_bytes()


@pytest.fixture(name="newer_root")
def a_root_with_the_peers_of_this_machine(tmp_path):
    """What bench/newer_peers makes, of links."""
    root = tmp_path / "newer"
    (root / "usr/lib").mkdir(parents=True)
    (root / "usr/sbin").symlink_to("/usr/sbin")
    name = f"{platform.machine()}-linux-gnu"
    (root / "usr/lib" / name).symlink_to(f"/usr/lib/{name}")
    return root


def test_later_peers_take_part_where_costs_are_compared(tmp_path, newer_root):
    numbers = tmp_path / "numbers.json"
    run = bench("run", "--newer", newer_root, "--rounds", 1, "--seconds", 0.2, "--repeats", 0, "--only", "tls",
                "--only", "start", "--json", numbers, "--out", tmp_path)
    assert (run.returncode, run.stderr) == (0, "")
    record = json.loads(numbers.read_text())
    assert set(record["rows"]["tls"]) == {"vindra", "nginx", "haproxy", "nginx newer", "haproxy newer"}
    assert set(record["rows"]["start"]) == {"vindra", "nginx", "haproxy", "floor"}
    assert set(record["machine"]["newer"]) == {"nginx", "haproxy"}
    assert "newer peers" in (tmp_path / "benchmarks.md").read_text()


def test_a_goal_of_the_best_peer_means_the_later_ones_too(tmp_path):
    record = json.loads((BENCH / "results" / "latest.json").read_text())
    record["rows"] = {"tls": {name: [{"us_per_request": cost}] for name, cost in
                              [("vindra", 8), ("nginx", 16), ("haproxy", 20), ("haproxy newer", 10)]}}
    numbers = tmp_path / "numbers.json"
    numbers.write_text(json.dumps(record))
    assert bench("report", numbers, tmp_path).returncode == 0
    text = (tmp_path / "benchmarks.md").read_text()
    assert "| at most 0.90 of the best peer | 0.80 | yes |" in text


@pytest.mark.parametrize("words, status", [
    ([], 2), (["trixie"], 2), (["a b", "new"], 2), (["http://x", "new"], 2), (["trixie", BENCH], 1)],
    ids=lambda words: " ".join(map(str, words)) if isinstance(words, list) else str(words))
def test_newer_peers_refuses_a_wrong_argument_in_one_line(words, status):
    refused = bench("newer_peers", *words)
    assert (refused.returncode, refused.stdout) == (status, "")
    assert refused.stderr.startswith("newer_peers: ") and refused.stderr.count("\n") == 1, refused.stderr


@pytest.fixture(name="pairs", scope="module")
def the_arithmetic_of_pairs():
    pairs = importlib.util.module_from_spec(PAIRS)
    PAIRS.loader.exec_module(pairs)
    return pairs


def test_a_pair_is_two_measurements_of_one_round(pairs):
    assert pairs.ratios([2, 9, 3], [4, 3, 2]) == [0.5, 1.5, 3]
    assert pairs.ratios([2, 9], [0, 3, 2]) == [3]


@pytest.mark.parametrize("rounds, bounds", [
    # By the binomial distribution: 2 (1 + n + ...) / 2^n is at most 0.05.
    (1, None), (5, None), (6, (1, 6)), (8, (1, 8)), (9, (2, 8)), (10, (2, 9)), (12, (3, 10)), (15, (4, 12)),
    (20, (6, 15)), (60, (22, 39)),
])
def test_an_interval_of_ratios_is_cut_by_the_count_of_rounds(pairs, rounds, bounds):
    assert pairs.interval(list(range(1, rounds + 1))) == bounds


@pytest.mark.parametrize("ordered, words", [
    ([0.9] * 5, "too few rounds"),
    ([0.90, 0.97, 0.98, 0.98, 0.98, 0.99], "-2.0 %"),
    ([0.90, 0.97, 0.98, 0.98, 0.98, 1.00], "none shown"),
    ([1.01, 1.02, 1.02, 1.03, 1.03, 1.10], "+2.5 %"),
    # Two outliers in a dozen decide nothing.
    ([0.5, 0.6] + [1.02] * 10, "+2.0 %"),
])
def test_a_difference_is_named_only_beyond_the_spread(pairs, ordered, words):
    assert pairs.difference(ordered) == words


def test_two_builds_are_compared_round_by_round(tmp_path):
    numbers = tmp_path / "numbers.json"
    run = bench("run", "--against", program_path().parents[1], "--ours", "--rounds", 2, "--seconds", 0.2,
                "--repeats", 0, "--only", "log_1", "--json", numbers)
    assert (run.returncode, run.stderr) == (0, "")
    found = json.loads(numbers.read_text())["rows"]["log_1"]
    assert set(found) == {"vindra", "earlier", "vindra, log to /dev/null", "vindra, log to a pipe"}
    ratios = sorted(now["us_per_request"] / before["us_per_request"]
                    for now, before in zip(found["vindra"], found["earlier"]))
    shown = f"{sum(ratios) / 2:.3f} +{ratios[0]:.3f}–{ratios[1]:.3f} +- +too few rounds"
    assert re.search(rf"^log_1 +µs of processor time a request .* {shown}$", run.stdout, re.M), run.stdout
    assert re.search(r"^log_1 +requests/s ", run.stdout, re.M), run.stdout


@contextlib.contextmanager
def busy_processor():
    """Somebody else's work on the processor of the servers."""
    with subprocess.Popen([sys.executable, "-c", "import os; os.sched_setaffinity(0, {0})\nwhile True: pass"]) as other:
        try:
            yield
        finally:
            other.kill()


def test_a_disturbed_measurement_is_made_again_and_reported(tmp_path):
    numbers = tmp_path / "numbers.json"
    with busy_processor():
        run = bench("run", "--ours", "--rounds", 1, "--seconds", 0.2, "--repeats", 1, "--only", "get_64",
                    "--only", "start", "--json", numbers)
    assert (run.returncode, run.stderr) == (0, "")
    found = json.loads(numbers.read_text())["rows"]
    assert found["get_64"]["vindra"][0]["waited"] > 0.05 and found["get_64"]["vindra"][0]["tries"] == 2
    assert found["start"]["vindra"][0]["tries"] == 1
    assert run.stdout.count("The server waited for its processor for more than 5 % of the time in 1 of 1 measurements; "
                            "1 had been made again.") == 1, run.stdout
    assert bench("report", numbers, tmp_path).returncode == 0
    assert "in 1 of 2 measurements; 1 had been made again." in (tmp_path / "benchmarks.md").read_text()


def test_the_page_names_each_figure_in_which_a_peer_is_better(tmp_path):
    record = json.loads((BENCH / "results" / "latest.json").read_text())
    record["rows"] = {
        "get_1": {"vindra": [{"us_per_request": 9, "requests_per_second": 100, "p99_ms": 2}],
                  "nginx": [{"us_per_request": 8, "requests_per_second": 99, "p99_ms": 2}],
                  "haproxy": [{"us_per_request": 10, "requests_per_second": 110, "p99_ms": 3}],
                  "floor": [{"us_per_request": 1, "requests_per_second": 200, "p99_ms": 1}]},
        "start": {"vindra": [{"ms": 5}], "nginx": [{"ms": 6}]}}
    numbers = tmp_path / "numbers.json"
    numbers.write_text(json.dumps(record))
    assert bench("report", numbers, tmp_path).returncode == 0
    text = (tmp_path / "benchmarks.md").read_text()
    title = "keep-alive GET of 100 bytes, 1 connection"
    assert [line for line in text.splitlines() if line.startswith(f"| {title} | ") and line.count("|") == 5
            and "| at most " not in line] == [
        f"| {title} | µs of processor time a request | 9.00 | 8.00 nginx |",
        f"| {title} | requests/s | 100 | 110 haproxy |"]
    assert "| start to first answer | 5.00 | 6.00 |" in text
    assert "![Plot of ms from start to first answer. vindra 5.00, nginx 6.00](pictures/start.svg)" in text


@pytest.mark.parametrize("words", [[], ["/nowhere/at/all.json"], ["a", "b", "c"], [BENCH / "reasons.toml"]],
                         ids=["none", "missing", "three", "not numbers"])
def test_report_refuses_what_is_no_run_in_one_line(words, tmp_path):
    refused = bench("report", *words)
    assert refused.returncode != 0
    assert refused.stderr.startswith("report: ") and refused.stderr.count("\n") == 1, refused.stderr


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT], ids=lambda number: number.name)
def test_a_run_that_is_ended_ends_what_it_started(number):
    build = program_path().parents[1]
    with subprocess.Popen([BENCH / "run", "--only", "get_1", "--seconds", "60"], stdin=subprocess.DEVNULL,
                          stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                          env={**os.environ, "VINDRA_BUILD": str(build)}) as run:
        try:
            wait_until(lambda: {"vindra", "wrk"} <= {name for _, name in descendants(run.pid)}, "the load", 40)
            started = descendants(run.pid)
        finally:
            run.send_signal(number)
        assert run.wait(30) == 1
        assert run.stderr.read() == b""
    assert not [process for process in started if named(process[0])]
