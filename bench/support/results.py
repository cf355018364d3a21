"""What the raw numbers say: medians with their spread, goals, and the tables on standard output."""

import statistics

from support import pairs
from support.rows import EARLIER, FIGURES, ROWS

SERVERS = ("vindra", "nginx", "nginx newer", "nginx with log", "nginx unpooled", "nginx unbuffered", "haproxy",
           "haproxy newer", "haproxy with log", "floor", "vindra, log to /dev/null", "vindra, log to a pipe")


# The share of a measurement for which the server may wait for its processor. The kernel's own threads
# take about one percent; other work takes tens.
WAITED_MAX = 0.05


def written(number):
    """Three significant digits, and never fewer than the number's own before the point."""
    if abs(number) >= 100:
        return f"{number:,.0f}"
    return f"{number:.1f}" if abs(number) >= 10 else f"{number:.2f}"


def of(results, row, server, figure):
    """All rounds of one figure, in order of size."""
    return sorted(figures[figure] for figures in results.get(row, {}).get(server, []) if figure in figures)


def cell(results, row, server, figure):
    """Median and, of several rounds, the smallest and the largest."""
    found = of(results, row, server, figure)
    if not found:
        return ""
    middle = written(statistics.median(found))
    return f"{middle} ({written(found[0])}–{written(found[-1])})" if len(found) > 1 else middle


def goals(results):
    """(row, goal, what vindra reached, whether that meets it) of each goal that the run says something about."""
    found = []
    for row in ROWS:
        for goal in row.goals:
            if (value := goal.value(results)) is not None:
                found.append((row, goal, value, value <= goal.limit))
    return found


def reached(goal, value):
    """The value as a table has it."""
    return (written(value) if goal.unit else f"{value:.2f}") + goal.unit


def taken(results):
    """The servers of the results, in the order of the tables."""
    return [server for server in SERVERS if any(server in found for found in results.values())]


def aligned(lines):
    """Lines of cells, the first column to the left and the others to the right."""
    widths = [max(map(len, column)) for column in zip(*lines)]
    return "\n".join("  ".join([cells[0].ljust(widths[0])] +
                               [cell.rjust(width) for cell, width in zip(cells[1:], widths[1:])]).rstrip()
                     for cells in lines)


def row_table(results, row):
    """One row's servers by its figures."""
    servers = list(results[row.name])
    figures = [figure for figure in FIGURES if any(of(results, row.name, server, figure) for server in servers)]
    figures.sort(key=lambda figure: figure != row.figure)
    lines = [["", *(FIGURES[figure] for figure in figures)]]
    lines += [[server, *(cell(results, row.name, server, figure) for figure in figures)] for server in servers]
    return f"{row.title}\n{aligned(lines)}\n"


def pair_table(results):
    """This build beside an earlier one, figure by figure."""
    lines = [["work", "figure", "earlier", "now", "ratio", "smallest–largest", "95 % interval", "difference"]]
    for row in ROWS:
        builds = [results.get(row.name, {}).get(server, []) for server in ("vindra", EARLIER)]
        for figure in FIGURES:
            now, before = ([figures[figure] for figures in rounds if figure in figures] for rounds in builds)
            if found := pairs.ratios(now, before):
                bounds = pairs.interval(found)
                lines.append([row.name, FIGURES[figure], written(statistics.median(before)),
                              written(statistics.median(now)), f"{statistics.median(found):.3f}", span(found),
                              span(bounds) if bounds else "-", pairs.difference(found)])
    return aligned(lines) + "\n"


def span(found):
    """The first and the last of some ratios."""
    return f"{found[0]:.3f}–{found[-1]:.3f}"


def disturbed(figures):
    """Whether the server had to wait for its processor: something else ran there."""
    return figures.get("waited", 0) > WAITED_MAX


def disturbance(results):
    """What came of measurements that were disturbed, in a sentence; nothing where none was."""
    measured = [figures for row in results.values() for rounds in row.values() for figures in rounds]
    again = sum(figures.get("tries", 1) - 1 for figures in measured)
    kept = sum(map(disturbed, measured))
    if not again and not kept:
        return ""
    return (f"The server waited for its processor for more than {100 * WAITED_MAX:.0f} % of the time in {kept} of "
            f"{len(measured)} measurements; {again} had been made again.")


def goal_table(results):
    """Every goal, what was reached, and whether that is enough."""
    lines = [["work", "goal", "reached", "met"]]
    lines += [[row.title, goal.text, reached(goal, value), "yes" if met else "NO"]
              for row, goal, value, met in goals(results)]
    return aligned(lines) + "\n" if len(lines) > 1 else ""


def micro_table(found):
    """The micro-benchmarks."""
    return aligned(micro_lines(found)) + "\n"


def micro_lines(found):
    """Cells of the micro-benchmarks, the heading first."""
    lines = [["part", "ns", "GiB/s"]]
    for one in found:
        rate = one.get("bytes_per_second")
        lines.append([one["name"], written(one["cpu_time"]), written(rate / 2**30) if rate else ""])
    return lines
