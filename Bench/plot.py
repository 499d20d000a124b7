"""Plots as SVG, with logarithmic axes and one line a series."""
import math

WIDTH, HEIGHT = 720, 400
LEFT, RIGHT, TOP, BOTTOM = 76, 120, 40, 52
COLOURS = ["#888888", "#c8102e", "#1f77b4", "#2ca02c", "#9467bd", "#e08214", "#8c564b", "#17becf"]


def decades(values):
    low, high = min(values), max(values)
    return math.floor(math.log10(low)), max(math.ceil(math.log10(high)), math.floor(math.log10(low)) + 1)


def label(value):
    return f"{value:,.0f}" if value >= 1 else f"{value:g}"


def text(x, y, words, anchor="middle", extra=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" {extra}>{words}</text>'


def spread(places, gap=14):
    """The places of labels, none nearer to the next than the gap, in the order given."""
    order = sorted(range(len(places)), key=lambda i: places[i])
    moved = list(places)
    for before, after in zip(order, order[1:]):
        moved[after] = max(moved[after], moved[before] + gap)
    return moved


def write(path, title, axes, series, ticks=None):
    """Series are {name: [(x, y)...]}; `axes` the words under and beside the plot, `ticks` places on the x axis."""
    series = {name: points for name, points in series.items() if points}
    xs = [x for points in series.values() for x, _ in points]
    low, high = decades([y for points in series.values() for _, y in points])
    left, right = math.log10(min(xs)), math.log10(max(xs))

    def x_of(x):
        return LEFT + (math.log10(x) - left) / ((right - left) or 1) * (WIDTH - LEFT - RIGHT)

    def y_of(y):
        return TOP + (high - math.log10(y)) / (high - low) * (HEIGHT - TOP - BOTTOM)

    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" font-family="sans-serif" '
           'font-size="12" fill="#333333">', f'<rect width="{WIDTH}" height="{HEIGHT}" fill="#ffffff"/>',
           text(LEFT, 22, title, "start", 'font-size="14"')]
    for power in range(low, high + 1):
        y = y_of(10 ** power)
        out += [f'<path d="M{LEFT} {y:.1f}H{WIDTH - RIGHT}" stroke="#dddddd"/>',
                text(LEFT - 6, y + 4, label(10 ** power), "end")]
    for x in ticks or sorted(set(xs)):
        out += [f'<path d="M{x_of(x):.1f} {TOP}V{HEIGHT - BOTTOM}" stroke="#eeeeee"/>',
                text(x_of(x), HEIGHT - BOTTOM + 18, label(x))]
    out += [text((LEFT + WIDTH - RIGHT) / 2, HEIGHT - 12, axes[0]),
            text(0, 0, axes[1], "middle", f'transform="translate(16 {(TOP + HEIGHT - BOTTOM) / 2:.0f}) rotate(-90)"')]
    ends = spread([y_of(points[-1][1]) for points in series.values()])
    for (name, points), colour, end in zip(series.items(), COLOURS, ends):
        places = " ".join(f"{x_of(x):.1f},{y_of(y):.1f}" for x, y in points)
        out += [f'<polyline points="{places}" fill="none" stroke="{colour}" stroke-width="2"/>']
        out += [f'<circle cx="{x_of(x):.1f}" cy="{y_of(y):.1f}" r="3" fill="{colour}"/>' for x, y in points]
        out += [text(x_of(points[-1][0]) + 8, end + 4, name, "start", f'fill="{colour}"')]
    path.write_text("\n".join([*out, "</svg>\n"]))
