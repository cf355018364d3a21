"""Curves as SVG, one panel above the other."""

import math

WIDTH, PANEL, LEFT, RIGHT, TOP, GAP = 760, 150, 90, 20, 30, 40
COLOURS = ("#1f6fb4", "#c0392b", "#2e8b57")
POINTS_MAX = 700
STEPS = 4


def _thinned(values):
    step = max(1, len(values) // POINTS_MAX)
    return values[::step]


def _path(xs, ys, x_end, y_end, top):
    def place(x, y):
        across = LEFT + (WIDTH - LEFT - RIGHT) * x / x_end
        return f"{across:.1f},{top + PANEL * (1 - y / y_end):.1f}"
    return " ".join(place(x, y) for x, y in zip(_thinned(xs), _thinned(ys)))


def _step(y_max):
    """The least of 1, 2, 2.5 and 5 times a power of ten with which the lines reach the value."""
    power = 10.0 ** math.floor(math.log10(y_max / STEPS))
    return next(power * factor for factor in (1, 2, 2.5, 5, 10) if power * factor * STEPS >= y_max)


def chart(x_name, xs, panels):
    """The text of a picture: panels are (title, [(name, values)]), all over the same `xs`."""
    height = TOP + len(panels) * (PANEL + GAP) + 10
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" '
           'font-family="sans-serif" font-size="12">',
           f'<rect width="{WIDTH}" height="{height}" fill="white"/>']
    x_end = max([*xs, 0.001])
    for number, (title, curves) in enumerate(panels):
        top = TOP + number * (PANEL + GAP)
        step = _step(max(1, max(max(values, default=0) for _, values in curves)))
        out.append(f'<text x="{LEFT}" y="{top - 8}" font-weight="bold">{title}</text>')
        for part in range(STEPS + 1):
            y = top + PANEL * (1 - part / STEPS)
            out.append(f'<line x1="{LEFT}" x2="{WIDTH - RIGHT}" y1="{y}" y2="{y}" stroke="#ddd"/>')
            out.append(f'<text x="{LEFT - 6}" y="{y + 4}" text-anchor="end">'
                       f'{step * part:,.10g}</text>')
        for index, (name, values) in enumerate(curves):
            colour = COLOURS[index]
            out.append(f'<polyline fill="none" stroke="{colour}" '
                       f'points="{_path(xs, values, x_end, step * STEPS, top)}"/>')
            out.append(f'<text x="{WIDTH - RIGHT - 90 * (len(curves) - index)}" y="{top - 8}" '
                       f'fill="{colour}">{name}</text>')
        out.append(f'<text x="{WIDTH - RIGHT}" y="{top + PANEL + 16}" text-anchor="end">'
                   f'{x_end:.3g} {x_name}</text>')
    out.append("</svg>")
    return "\n".join(out) + "\n"
