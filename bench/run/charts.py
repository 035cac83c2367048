"""The two charts of docs/benchmarks as SVG text: bars of the rows, and curves."""

import math
import xml.sax.saxutils

import common
import rows
import scale

FONT = 'font-family="DejaVu Sans, Verdana, sans-serif"'
DARK, GREY, LINE = "#222222", "#6b6b6b", "#d0d0d0"
COLOURS = {"tolk": "#c2410c", "bare socket": "#9a9a9a", "floor": "#6b6b6b",
           "floor, yielding": "#3f3f3f", "tolk, C": "#ea8a4f", "tolk, C, inline": "#ea8a4f"}
PEER = "#8fb4d8"
BARS = ["A", "A busy", "S", "B", "C", "D1", "D2", "E", "H"]
UNITS = {"p50_us": "µs", "calls_s": "calls/s", "msg_s": "messages/s", "mb_s": "MB/s", "kib": "KiB",
         "connect_us": "µs"}
MORE_IS_BETTER = {"calls_s", "msg_s", "mb_s"}


def text(x, y, words, size=11, colour=DARK, anchor="start", weight="normal"):
    words = xml.sax.saxutils.escape(words)
    return (f'<text x="{x:.1f}" y="{y:.1f}" {FONT} font-size="{size}" fill="{colour}" '
            f'text-anchor="{anchor}" font-weight="{weight}">{words}</text>')


def document(width, height, parts):
    head = (f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
            f'viewBox="0 0 {width} {height}">')
    return "\n".join([head, f'<rect width="{width}" height="{height}" fill="white"/>', *parts,
                      "</svg>\n"])


def grid(count, columns, width, height):
    """The top left corners of panels."""
    return [(width * (i % columns), height * (i // columns)) for i in range(count)]


# --- bars

BAR_PANEL = (330, 270)
NAMES_WIDTH, BARS_WIDTH, BAR_STEP = 104, 150, 16


def bar_panel(x, y, name, result):
    key = result["figures"][0]
    better = "more" if key in MORE_IS_BETTER else "less"
    parts = [text(x + 12, y + 22, f"{name}: {result['title']}", 12, weight="bold"),
             text(x + 12, y + 38, f"{UNITS[key]}, {better} is better", 10, GREY)]
    values = {one: rows.median_of(result, one, key) for one in rows.names_in(result)}
    longest = max((value for value in values.values() if value), default=1)
    for i, (contestant, value) in enumerate(values.items()):
        top = y + 48 + i * BAR_STEP
        weight = "bold" if contestant == "tolk" else "normal"
        parts.append(text(x + NAMES_WIDTH, top + 10, contestant, 10.5, anchor="end", weight=weight))
        left = x + NAMES_WIDTH + 6
        length = BARS_WIDTH * (value or 0) / longest
        parts.append(f'<rect x="{left}" y="{top}" width="{max(length, 0.5):.1f}" height="12" '
                     f'fill="{COLOURS.get(contestant, PEER)}"/>')
        label = "failed" if value is None else common.figure(value)
        parts.append(text(left + length + 4, top + 10, label, 10, weight=weight))
    return parts


def bars(results):
    shown = [name for name in BARS if name in results]
    width, height = BAR_PANEL
    parts = []
    for (x, y), name in zip(grid(len(shown), 3, width, height), shown):
        parts += bar_panel(x, y, name, results[name])
    return document(3 * width, height * math.ceil(len(shown) / 3) + 8, parts)


# --- curves

CURVE_PANEL = (330, 236)
LEFT, TOP, RIGHT, BOTTOM = 58, 48, 14, 30


def short(value):
    for limit, unit in ((1 << 20, "Mi"), (1 << 10, "Ki")):
        if value >= limit and value % limit == 0:
            return f"{value // limit:g}{unit}"
    return f"{value:,.0f}"


def nice(value):
    """The next round number above."""
    power = 10 ** math.floor(math.log10(value))
    return next(step * power for step in (1, 2, 3, 4, 5, 6, 8, 10) if step * power >= value)


class Axes:
    """Points are evenly apart: each is about the same factor above the one before."""

    def __init__(self, x, y, points, values, logarithmic):
        self.left, self.right = x + LEFT, x + CURVE_PANEL[0] - RIGHT
        self.top, self.bottom = y + TOP, y + CURVE_PANEL[1] - BOTTOM
        self.points, self.logarithmic = points, logarithmic
        self.most = nice(max(values))
        self.least = 10 ** math.floor(math.log10(min(values))) if logarithmic else 0

    def x(self, point):
        part = self.points.index(point) / max(len(self.points) - 1, 1)
        return self.left + part * (self.right - self.left)

    def y(self, value):
        if self.logarithmic:
            part = math.log(value / self.least) / math.log(self.most / self.least)
        else:
            part = value / self.most
        return self.bottom - part * (self.bottom - self.top)

    def ticks(self):
        if not self.logarithmic:
            return [self.most * i / 4 for i in range(5)]
        powers = range(round(math.log10(self.least)), math.floor(math.log10(self.most)) + 1)
        return [10**power for power in powers]

    def drawn(self):
        parts = []
        for tick in self.ticks():
            y = self.y(tick)
            parts.append(f'<path d="M{self.left} {y:.1f}H{self.right}" stroke="{LINE}"/>')
            label = f"{tick:,.0f}" if tick >= 1 or tick == 0 else f"{tick:g}"
            parts.append(text(self.left - 5, y + 3.5, label, 9.5, GREY, "end"))
        for point in self.points:
            parts.append(text(self.x(point), self.bottom + 14, short(point), 9.5, GREY, "middle"))
        return parts


def curve_panel(x, y, name, result):
    curves = {one: scale.points_of(result, one) for one in result["turns"]}
    pairs = [pair for curve in curves.values() for pair in curve]
    if not pairs:
        return []
    points = sorted({point for point, _ in pairs})
    axes = Axes(x, y, points, [value for _, value in pairs], name == "payload")
    parts = [text(x + 12, y + 20, result["title"], 12, weight="bold"), *axes.drawn()]
    for i, (contestant, curve) in enumerate(curves.items()):
        colour = COLOURS[contestant]
        path = "L".join(f"{axes.x(point):.1f} {axes.y(value):.1f}" for point, value in curve)
        parts.append(f'<path d="M{path}" fill="none" stroke="{colour}" stroke-width="2"/>')
        parts += [f'<circle cx="{axes.x(point):.1f}" cy="{axes.y(value):.1f}" r="3" '
                  f'fill="{colour}"/>' for point, value in curve]
        parts.append(text(x + 12 + 60 * i, y + 37, contestant, 10.5, colour, weight="bold"))
    return parts


def curves(results):
    width, height = CURVE_PANEL
    parts = []
    for (x, y), name in zip(grid(len(results), 3, width, height), results):
        parts += curve_panel(x, y, name, results[name])
    return document(3 * width, height * math.ceil(len(results) / 3) + 4, parts)
