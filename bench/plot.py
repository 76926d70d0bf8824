"""Line charts as SVG texts, without any library."""

import math

WIDTH, HEIGHT = 720, 420
LEFT, RIGHT, TOP, BOTTOM = 80, 24, 48, 60
COLOURS = ("#0072b2", "#d55e00", "#009e73", "#999999")  # told apart by the colour-blind as well


def decades(low, high):
    """The powers of ten that enclose a range."""
    return [10.0**power for power in range(math.floor(math.log10(low)), math.ceil(math.log10(high)) + 1)]


def steps(high):
    """Round steps from 0 to above a value."""
    step = 10.0 ** math.floor(math.log10(high))
    step = next(step * part for part in (0.1, 0.2, 0.5, 1, 2) if high / (step * part) <= 6)
    return [step * count for count in range(math.ceil(high / step) + 1)]


class Axis:
    """Maps values to coordinates, evenly or by their logarithms."""

    def __init__(self, ticks, start, end, logarithmic):
        self.ticks = ticks
        self.scale = math.log10 if logarithmic else float
        self.start, self.end = start, end

    def at(self, value):
        low, high = self.scale(self.ticks[0]), self.scale(self.ticks[-1])
        return self.start + (self.scale(value) - low) / (high - low) * (self.end - self.start)


def text(x, y, words, anchor="middle", extra=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" {extra}>{words}</text>'


def frame(x_axis, y_axis, show_x, show_y):
    """Grid lines and the numbers beside them."""
    lines = []
    for tick in x_axis.ticks:
        x = x_axis.at(tick)
        lines.append(f'<path d="M{x:.1f} {TOP}V{HEIGHT - BOTTOM}" class="grid"/>')
        lines.append(text(x, HEIGHT - BOTTOM + 20, show_x(tick)))
    for tick in y_axis.ticks:
        y = y_axis.at(tick)
        lines.append(f'<path d="M{LEFT} {y:.1f}H{WIDTH - RIGHT}" class="grid"/>')
        lines.append(text(LEFT - 8, y + 4, show_y(tick), "end"))
    return lines


def curve(points, x_axis, y_axis, colour):
    places = [(x_axis.at(x), y_axis.at(y)) for x, y in points]
    path = " ".join(f"{x:.1f},{y:.1f}" for x, y in places)
    lines = [f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"/>']
    return lines + [f'<circle cx="{x:.1f}" cy="{y:.1f}" r="4" fill="{colour}"/>' for x, y in places]


def legend(names):
    lines = []
    for row, (name, colour) in enumerate(zip(names, COLOURS)):
        y = TOP + 18 + 20 * row
        lines.append(f'<path d="M{LEFT + 14} {y - 4}h24" stroke="{colour}" stroke-width="2"/>')
        lines.append(text(LEFT + 46, y, name, "start"))
    return lines


def chart(title, x_name, y_name, series, show_x, show_y, logarithmic):
    """An SVG document of named series of points."""
    xs = sorted({x for points in series.values() for x, _ in points})
    ys = [y for points in series.values() for _, y in points]
    x_ticks = decades(xs[0], xs[-1]) if logarithmic else steps(xs[-1])
    y_ticks = decades(min(ys), max(ys)) if logarithmic else steps(max(ys))
    x_axis = Axis(x_ticks, LEFT, WIDTH - RIGHT, logarithmic)
    y_axis = Axis(y_ticks, HEIGHT - BOTTOM, TOP, logarithmic)
    body = [text(WIDTH / 2, 26, title, extra='font-size="16"')]
    body += frame(x_axis, y_axis, show_x, show_y)
    for points, colour in zip(series.values(), COLOURS):
        body += curve(points, x_axis, y_axis, colour)
    body += legend(series)
    body.append(text(WIDTH / 2, HEIGHT - 16, x_name))
    body.append(text(20, HEIGHT / 2, y_name, extra=f'transform="rotate(-90 20 {HEIGHT / 2})"'))
    return "\n".join(
        [
            f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" '
            'font-family="sans-serif" font-size="13">',
            "<style>.grid{stroke:#ddd}</style>",
            '<rect width="100%" height="100%" fill="white"/>',
            *body,
            "</svg>\n",
        ]
    )
