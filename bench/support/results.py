"""What the raw numbers say: medians with their spread, goals, and the tables on standard output."""

import statistics

from support.rows import FIGURES, ROWS

SERVERS = ("vindra", "nginx", "nginx with log", "nginx unpooled", "nginx unbuffered", "haproxy", "haproxy with log",
           "floor", "vindra, log to /dev/null", "vindra, log to a pipe")


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
    servers = [server for server in row.servers if server in results[row.name]]
    figures = [figure for figure in FIGURES if any(of(results, row.name, server, figure) for server in servers)]
    figures.sort(key=lambda figure: figure != row.figure)
    lines = [["", *(FIGURES[figure] for figure in figures)]]
    lines += [[server, *(cell(results, row.name, server, figure) for figure in figures)] for server in servers]
    return f"{row.title}\n{aligned(lines)}\n"


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
