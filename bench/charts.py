"""Charts as SVG texts, without anything but Python: small panels that read well on light and on dark pages. The
same figures always give the same bytes."""
import math
from xml.sax.saxutils import escape

LIGHT = {"paper": "#ffffff", "ink": "#1f2328", "soft": "#656d76", "grid": "#d8dee4"}
DARK = {"paper": "#0d1117", "ink": "#e6edf3", "soft": "#9198a1", "grid": "#30363d"}
# For each series: its colour on light pages, its colour on dark pages, and whether its line is broken.
SERIES = {
    "lumora": ("#0969da", "#58a6ff", False),
    "tcp-framed": ("#424a53", "#c9d1d9", False),
    "tcp-direct": ("#424a53", "#c9d1d9", True),
    "tcp-pair": ("#424a53", "#c9d1d9", True),
    "tcp-unframed": ("#424a53", "#c9d1d9", True),
    "zmq-pushpull": ("#bc4c00", "#f0883e", False),
    "zmq-pair": ("#bc4c00", "#f0883e", True),
    "nng-pushpull": ("#1a7f37", "#3fb950", False),
    "nng-pair": ("#1a7f37", "#3fb950", True),
    "dds": ("#8250df", "#bc8cff", False),
    "mqtt": ("#bf3989", "#f778ba", False),
}
LABELS = {
    "lumora": "Lumora", "tcp-framed": "plain TCP, framed", "tcp-direct": "plain TCP, same thread",
    "tcp-pair": "two TCP connections",
    "tcp-unframed": "plain TCP, no frames", "zmq-pushpull": "ZeroMQ PUSH/PULL", "zmq-pair": "ZeroMQ PAIR",
    "nng-pushpull": "nng push/pull", "nng-pair": "nng pair", "dds": "Cyclone DDS", "mqtt": "MQTT, mosquitto",
}


def style():
    rules = ["text{font-family:system-ui,'DejaVu Sans',Verdana,sans-serif;font-size:12px}",
             ".title{font-size:15px;font-weight:600}.head{font-weight:600}",
             ".line{fill:none;stroke-width:2}.broken{stroke-dasharray:5 3;stroke-width:1.5}"]
    for number, colours in enumerate((LIGHT, DARK)):
        lines = [f".{name}{{fill:{colour}}}.{name}-line{{stroke:{colour}}}" for name, colour in colours.items()]
        lines += [f".{name}{{fill:{both[number]}}}.{name}-line{{stroke:{both[number]}}}"
                  for name, both in SERIES.items()]
        text = "".join(lines)
        rules.append(text if number == 0 else f"@media(prefers-color-scheme:dark){{{text}}}")
    return "".join(rules)


def short(value):
    """A number for an axis."""
    for limit, letter in ((1e6, "M"), (1e3, "k")):
        if abs(value) >= limit:
            return f"{value / limit:g}{letter}"
    return f"{value:g}"


class Drawing:
    def __init__(self, width, height, title):
        self.width, self.height, self.parts = width, height, []
        self.text(16, 26, title, "title ink")

    def text(self, x, y, words, css="ink", anchor="start"):
        place = f'x="{x:.1f}" y="{y:.1f}" class="{css}" text-anchor="{anchor}"'
        self.parts.append(f"<text {place}>{escape(words)}</text>")

    def line(self, x1, y1, x2, y2, css):
        self.parts.append(f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" class="{css}"/>')

    def dot(self, x, y, radius, css, hollow=False):
        ring = ' stroke-width="1.5"' if hollow else ""
        self.parts.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="{radius}" class="{css}"{ring}/>')

    def path(self, points, css):
        coordinates = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
        self.parts.append(f'<polyline points="{coordinates}" class="{css}"/>')

    def legend(self, names, y):
        x = 16
        for name in names:
            broken = " broken" if SERIES[name][2] else ""
            self.line(x, y - 4, x + 22, y - 4, f"line {name}-line{broken}")
            self.text(x + 27, y, LABELS[name])
            x += 42 + 6.5 * len(LABELS[name])

    def svg(self):
        return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {self.width} {self.height}">\n'
                f"<style>{style()}</style>\n"
                f'<rect width="{self.width}" height="{self.height}" class="paper"/>\n'
                + "\n".join(self.parts) + "\n</svg>\n")


class LinePanel:
    """Values over named places on a linear axis that begins at 0."""

    def __init__(self, drawing, x, y, width, height, head, places, top):
        self.drawing, self.x, self.y, self.width, self.height = drawing, x, y, width, height
        self.places, self.top = places, top
        drawing.text(x, y - 8, head, "head ink")
        step = nice_step(top)
        for number in range(int(top / step + 1e-9) + 1):
            at = self.at(0, number * step)[1]
            drawing.line(x, at, x + width, at, "grid-line")
            drawing.text(x - 6, at + 4, short(number * step), "soft", "end")
        for number, place in enumerate(places):
            drawing.text(self.at(number, 0)[0], y + height + 16, place, "soft", "middle")

    def at(self, place, value):
        inset = self.width / (2 * len(self.places))
        return (self.x + inset + place * self.width / len(self.places),
                self.y + self.height * (1 - value / self.top))

    def series(self, name, values):
        points = [self.at(place, value) for place, value in enumerate(values) if value is not None]
        self.drawing.path(points, f"line {name}-line" + (" broken" if SERIES[name][2] else ""))
        for point in points:
            self.drawing.dot(*point, 3 if name == "lumora" else 2, name)


class RangePanel:
    """Rows with marks on a logarithmic axis: a dot for the first, a ring for the second, a bar for the last,
    and a line over all of them and what they span."""

    ROW = 17

    def __init__(self, drawing, x, y, width, head, low, high, rows):
        self.drawing, self.x, self.y, self.width, self.low, self.high = drawing, x, y, width, low, high
        bottom = y + self.ROW * rows + 4
        drawing.text(x, y - 8, head, "head ink")
        for exponent in range(round(math.log10(low)), round(math.log10(high)) + 1):
            at = self.at(10 ** exponent)
            drawing.line(at, y, at, bottom, "grid-line")
            drawing.text(at, bottom + 14, short(10 ** exponent), "soft", "middle")
        self.rows = 0

    def at(self, value):
        value = min(max(value, self.low), self.high)
        return self.x + self.width * math.log10(value / self.low) / math.log10(self.high / self.low)

    def heading(self, words):
        self.drawing.text(self.x - 8, self.next_row() + 4, words, "soft", "end")

    def row(self, label, name, marks, span=()):
        at = self.next_row()
        self.drawing.text(self.x - 8, at + 4, label, "ink", "end")
        places = [self.at(value) for value in marks]
        reach = places + [self.at(value) for value in span]
        self.drawing.line(min(reach), at, max(reach), at, f"line {name}-line")
        self.drawing.dot(places[0], at, 4, name)
        if len(places) > 1:
            self.drawing.dot(places[1], at, 3.5, f"paper {name}-line", hollow=True)
            self.drawing.line(places[-1], at - 4, places[-1], at + 4, f"line {name}-line")

    def next_row(self):
        self.rows += 1
        return self.y + self.ROW * (self.rows - 0.5) + 2


def nice_step(top):
    """At most seven steps of 1, 2 or 5 times a power of ten."""
    power = 10 ** math.floor(math.log10(top / 7))
    return next(power * factor for factor in (1, 2, 5, 10) if power * factor * 7 >= top)


def decades(values):
    """The powers of ten around them, which are not the same."""
    low = math.floor(math.log10(min(values)))
    return 10 ** low, 10 ** max(math.ceil(math.log10(max(values))), low + 1)
