"""The plots of the page, as SVG files that are the same for the same numbers."""

import statistics

import matplotlib

from support import results as read

matplotlib.use("svg")
# Names inside the file are made of a random salt otherwise; text stays text.
matplotlib.rcParams.update({"svg.hashsalt": "vindra", "svg.fonttype": "none", "font.size": 9})

from matplotlib import pyplot  # noqa: E402: what was chosen above holds for it

COLOURS = {"vindra": "#b3432b", "nginx": "#3f7d4e", "nginx newer": "#2a5234", "nginx with log": "#8fbf9b",
           "nginx unpooled": "#c9dfcd", "nginx unbuffered": "#8fbf9b", "haproxy": "#35618f",
           "haproxy newer": "#22405e", "haproxy with log": "#90b0d0", "floor": "#999999",
           "vindra, log to /dev/null": "#d9917f", "vindra, log to a pipe": "#ecc8bf"}

# File, label of the axis, figure, and the groups of bars: rows by the words below them.
BARS = (
    ("cost_per_request", "µs of processor time a request", "us_per_request",
     {"get_64": "64 connections", "get_400": "400", "get_64k": "64 KiB, 32", "new": "a new one\na request",
      "tls": "TLS, 32"}),
    ("cost_of_one_connection", "µs of processor time a request", "us_per_request", {"get_1": ""}),
    ("cost_per_gib", "ms of processor time a GiB", "ms_per_gib",
     {"download": "256 MiB download", "upload": "96 MiB upload"}),
    ("cost_of_heavy_requests", "µs of processor time a request", "us_per_request",
     {"handshake": "a new TLS session\na request", "get_1m": "1 MiB answers\nto 100 clients"}),
    ("cost_of_the_log", "µs of processor time a request", "us_per_request",
     {"log_1": "1 connection", "log_64": "64 connections"}),
    ("start", "ms from start to first answer", "ms", {"start": ""}),
    ("memory_of_a_pair", "resident KiB a pair", "kib_per_pair",
     {"idle_memory": "idle", "burst_memory": "a minute after 1 MiB"}),
)
IDLE = (0, 1000, 5000, 9000)
IDLE_FILE = "cost_beside_idle"


def draw(results, folder):
    """Draws what there are numbers for; returns the names of the files."""
    names = [name for name, *how in BARS if bars(results, folder / f"{name}.svg", *how)]
    if beside_idle(results, folder / f"{IDLE_FILE}.svg"):
        names.append(IDLE_FILE)
    return names


def in_words(results, name):
    """What a plot shows, for those who do not see it: the medians of its main servers."""
    if name == IDLE_FILE:
        label, figure = "µs of processor time a request beside idle pairs", "us_per_request"
        groups = {f"idle_{count}": f"{count:,} pairs" for count in IDLE}
    else:
        _, label, figure, groups = next(plot for plot in BARS if plot[0] == name)
    said = []
    for row, words in groups.items():
        servers = [server for server in read.taken({row: results.get(row, {})}) if "with log" not in server]
        medians = [f"{server} {read.written(statistics.median(found))}" for server in servers
                   if (found := read.of(results, row, server, figure))]
        if medians:
            words = words.replace("\n", " ")
            said.append(f"{words}: {', '.join(medians)}" if words else ", ".join(medians))
    return f"Plot of {label}. {'; '.join(said)}"


def save(figure, path):
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)
    # matplotlib ends lines of paths with a space.
    path.write_text("\n".join(line.rstrip() for line in path.read_text().splitlines()) + "\n")


def bars(results, path, label, figure, groups):
    """One group of bars a row, one bar a server, with its smallest and largest round."""
    groups = {row: words for row, words in groups.items() if row in results}
    servers = read.taken({row: results[row] for row in groups})
    if not groups:
        return False
    width = 0.8 / len(servers)
    drawing, axes = pyplot.subplots(figsize=(max(5.5, 2.6 + 1.2 * len(groups)), 3.2))
    for number, server in enumerate(servers):
        places, heights, below, above = [], [], [], []
        for place, row in enumerate(groups):
            if found := read.of(results, row, server, figure):
                middle = statistics.median(found)
                places.append(place + (number - (len(servers) - 1) / 2) * width)
                heights.append(middle)
                below.append(middle - found[0])
                above.append(found[-1] - middle)
        axes.bar(places, heights, width * 0.92, yerr=(below, above), label=server, color=COLOURS[server],
                 error_kw={"elinewidth": 0.8, "ecolor": "#333333"})
    axes.set_xticks(range(len(groups)), groups.values())
    axes.set_ylabel(label)
    finish(axes)
    save(drawing, path)
    return True


def beside_idle(results, path):
    """Cost over the number of idle pairs."""
    there = [count for count in IDLE if f"idle_{count}" in results]
    if len(there) < 2:
        return False
    drawing, axes = pyplot.subplots(figsize=(5.5, 3.2))
    for server in read.taken({f"idle_{count}": results[f"idle_{count}"] for count in there}):
        found = [read.of(results, f"idle_{count}", server, "us_per_request") for count in there]
        middle = [statistics.median(one) for one in found]
        axes.errorbar(there, middle, yerr=([m - one[0] for m, one in zip(middle, found)],
                                           [one[-1] - m for m, one in zip(middle, found)]),
                      label=server, color=COLOURS[server], marker="o", markersize=4, capsize=2)
    axes.set_ylim(bottom=0)
    axes.set_xlabel("idle pairs beside 32 busy connections")
    axes.set_ylabel("µs of processor time a request")
    finish(axes)
    save(drawing, path)
    return True


def finish(axes):
    axes.spines[["top", "right"]].set_visible(False)
    axes.legend(frameon=False, fontsize=8, loc="upper left", bbox_to_anchor=(1, 1))
