"""The page about a run: the text of bench/benchmarks.md.in with tables, plots and reasons in their places."""

import pathlib
import re
import statistics
import tomllib

from support import plots, results as read
from support.machine import ROOT
from support.rows import FIGURES, ROWS

TEMPLATE = ROOT / "bench/benchmarks.md.in"
REASONS = ROOT / "bench/reasons.toml"
PICTURES = "pictures"

NEWER = """\
- The columns "newer" are the peers of a later Debian (`bench/newer_peers`), with its C library and its
  OpenSSL. They take part where processor time is what counts. A goal that names the best peer means
  these too."""

# The tables: in which rows, and the servers that stand in it whether or not the rows have them.
COST = ("get_1", "get_64", "get_400", "get_64k", "get_1m", "new", "tls", "handshake")
IDLE = ("idle_0", "idle_1000", "idle_5000", "idle_9000")
BULK = ("download", "upload")
MEMORY = ("idle_memory", "burst_memory")
BACKLOG = ("backlog_64", "backlog_128", "backlog_256")
LOG = ("log_1", "log_64")
MORE_IS_BETTER = ("requests_per_second", "mib_per_second")


def write(record, folder):
    """Writes FOLDER/benchmarks.md and its pictures."""
    folder = pathlib.Path(folder)
    pictures = folder / PICTURES
    pictures.mkdir(parents=True, exist_ok=True)
    drawn = plots.draw(record["rows"], pictures)
    (folder / "benchmarks.md").write_text(text(record, drawn))


def text(record, drawn):
    """The page. A name in double braces stands alone on its line; one without content takes its line along."""
    found = record["rows"]
    parts = {
        "machine": machine(record["machine"]),
        "newer": NEWER if "newer" in record["machine"] else "",
        "rounds": str(record["options"]["rounds"]),
        "seconds": f"{record['options']['seconds']:g}",
        "goals": goals(found),
        "requests": figure_table(found, COST, "us_per_request"),
        "rates": figure_table(found, (*COST, *IDLE), "requests_per_second"),
        "latencies": figure_table(found, (*COST, *IDLE, "pieces"), "p99_ms"),
        "bulk": figure_table(found, BULK, "ms_per_gib"),
        "bulk_rates": figure_table(found, BULK, "mib_per_second"),
        "idle": figure_table(found, IDLE, "us_per_request"),
        "idle_resident": figure_table(found, IDLE, "resident_mib"),
        "memory": figure_table(found, MEMORY, "kib_per_pair"),
        "peaks": figure_table(found, (*COST, *BULK), "peak_mib"),
        "backlog": backlog(found),
        "slow_readers": figure_table(found, ("slow_readers",), "worst_wait_ms"),
        "starts": figure_table(found, ("start",), "ms"),
        "log": figure_table(found, LOG, "us_per_request"),
        "log_share": log_share(record),
        "micro": micro(record.get("micro", [])),
        "behind": behind(found),
        "disturbance": disturbance(found),
        "better_peers": better_peers(found),
        **{name: f"![{plots.in_words(found, name)}]({PICTURES}/{name}.svg)" for name in drawn},
    }
    page = re.sub(r"\{\{(\w+)\}\}", lambda match: parts.get(match.group(1), ""), TEMPLATE.read_text())
    return re.sub(r"\n{3,}", "\n\n", page)


def markdown(lines):
    """A table of cells; the first line is the heading, the first column words."""
    if len(lines) < 2:
        return ""
    rule = ["---"] + ["--:"] * (len(lines[0]) - 1)
    return "\n".join("| " + " | ".join(cells) + " |" for cells in [lines[0], rule, *lines[1:]])


def machine(found):
    """What the run has read about its machine."""
    return markdown([["what", "which"],
                     ["date", found["date"]],
                     ["processor", f"{found['processor']}, {found['processors']} of them"],
                     ["memory", f"{found['memory_gib']} GiB"],
                     ["kernel", f"Linux {found['kernel']}"],
                     ["system", found["system"]],
                     ["compiler", f"{found['compiler']}, `{found['flags']}`"],
                     ["vindra", found["vindra"]],
                     ["peers", f"nginx {found['nginx']}, HAProxy {found['haproxy']}"],
                     *([["newer peers", f"nginx {found['newer']['nginx']}, HAProxy {found['newer']['haproxy']}"]]
                       if "newer" in found else []),
                     ["load", f"wrk {found['wrk']}"],
                     ["TLS", f"OpenSSL {found['openssl']}"]]).replace("--:", "---")


def present(found, rows):
    return [row for row in ROWS if row.name in rows and found.get(row.name)]


def figure_table(found, rows, figure):
    """Rows by servers."""
    rows = [row for row in present(found, rows)
            if any(read.of(found, row.name, server, figure) for server in found[row.name])]
    servers = read.taken({row.name: found[row.name] for row in rows})
    lines = [[FIGURES[figure], *servers]]
    lines += [[row.title, *(read.cell(found, row.name, server, figure) or "-" for server in servers)] for row in rows]
    return markdown(lines)


def goals(found):
    """What vindra is meant to reach, and has."""
    return markdown([["work", "goal", "reached", "met"]] +
                    [[row.title, goal.text, read.reached(goal, value), "yes" if met else "**no**"]
                     for row, goal, value, met in read.goals(found)])


def backlog(found):
    """The rows of the backlog by their three figures."""
    figures = ("bytes_per_byte", "ms_per_gib", "kept_per_byte")
    return markdown([["backlog", *(FIGURES[figure] for figure in figures)]] +
                    [[f"{row.name.partition('_')[2]} MiB",
                      *(read.cell(found, row.name, "vindra", figure) for figure in figures)]
                     for row in present(found, BACKLOG)])


def log_share(record):
    """What a line costs before it reaches the sink, and what the sink adds, in words."""
    said = []
    for row, words in zip(LOG, ("With 1 connection", "With 64 connections")):
        costs = [read.of(record["rows"], row, server, "us_per_request")
                 for server in ("vindra", "vindra, log to /dev/null")]
        if all(costs):
            file, nothing = map(statistics.median, costs)
            line = [one["cpu_time"] / 1e3 for one in record.get("micro", []) if one["name"] == "log_line"]
            made = (f"; making the line takes {line[0]:.2f} µs of both, "
                    f"{100 * line[0] / file:.0f} % of the request") if line else ""
            said.append(f"- {words} a request costs {file:.1f} µs with its line in a file and {nothing:.1f} µs with it "
                        f"in `/dev/null`: {100 * (file - nothing) / file:.0f} % for the file{made}.")
    return "\n".join(said)


def micro(found):
    """The parts by themselves."""
    heading, *lines = read.micro_lines(found)
    return markdown([heading] + [[f"`{name}`", *numbers] for name, *numbers in lines])


def behind(found):
    """A paragraph for each row with a goal that is missed, with the reason where one is known."""
    reasons = tomllib.loads(REASONS.read_text())
    missed = {}
    for row, goal, value, met in read.goals(found):
        if not met:
            missed.setdefault(row.name, (row, []))[1].append(f"{read.reached(goal, value)}, wanted {goal.text}")
    if not missed:
        return "Nowhere: every goal is met."
    return "\n".join(f"- **{row.title}**: {'; '.join(texts)}. {reasons.get(name, '').strip()}".rstrip()
                     for name, (row, texts) in missed.items())


def disturbance(found):
    """Whether something else ran on the server's processor; nothing where that was not recorded."""
    recorded = any("waited" in figures for row in found.values() for rounds in row.values() for figures in rounds)
    said = read.disturbance(found) or "No server of this run waited for more than that."
    return ("- The kernel counts how long a process waits for its processor. A measurement whose server\n"
            f"  waited for more than {100 * read.WAITED_MAX:.0f} % of the time is made again, a few times at most.\n"
            f"  {said}") if recorded else ""


def best_peer(found, row, figure):
    """The peer with the best median, and that median; None where no peer has the figure."""
    medians = {server: statistics.median(values) for server in found[row]
               if server.startswith(("nginx", "haproxy")) and (values := read.of(found, row, server, figure))}
    best = max if figure in MORE_IS_BETTER else min
    return best(medians.items(), key=lambda item: item[1]) if medians else None


def better_peers(found):
    """Each figure of each row in which a peer is better than vindra."""
    lines = [["work", "figure", "vindra", "best peer"]]
    for row in ROWS:
        # Memory is that of the row's own table: at the end for those who wait, else the most under load.
        other = "peak_mib" if row.name in (*IDLE, *MEMORY) else "resident_mib"
        for figure, words in FIGURES.items():
            if figure == other:
                continue
            ours = read.of(found, row.name, "vindra", figure)
            peer = best_peer(found, row.name, figure) if ours else None
            if not peer:
                continue
            ratio = peer[1] / statistics.median(ours)
            if ratio > 1 if figure in MORE_IS_BETTER else ratio < 1:
                lines.append([row.title, words, read.cell(found, row.name, "vindra", figure),
                              f"{read.cell(found, row.name, peer[0], figure)} {peer[0]}"])
    return markdown(lines) or "None."
