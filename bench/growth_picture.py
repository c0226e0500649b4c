# Draws curves of growth, a column for each: its time above its memory, all axes logarithmic.

import math

COLUMN, ROW, LEFT, TOP, SIDE = 190, 205, 64, 62, 150  # SIDE is that of a panel.
DECADES = ("1", "10", "100", "1k", "10k", "100k", "1M", "10M", "100M")


def _text(x, y, words, more=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" {more}>{words}</text>'


def _line(places, more):
    return f'<polyline points="{" ".join(f"{x:.1f},{y:.1f}" for x, y in places)}" fill="none" {more}/>'


# A panel at that corner; its vertical axis goes over the decades from low to high.
def _panel(left, top, low, high, colour, sizes, values, caption):
    first, last = math.log10(sizes[0]), math.ceil(math.log10(sizes[-1]))
    bottom = top + SIDE

    def place(size, value):
        return (left + SIDE * (math.log10(size) - first) / (last - first),
                bottom - SIDE * (math.log10(value) - low) / (high - low))

    for decade in range(low, high + 1):
        y = place(sizes[0], 10 ** decade)[1]
        yield _line([(left, y), (left + SIDE, y)], 'stroke="#d5d8dc"')
        if left == LEFT:
            yield _text(left - 6, y + 4, DECADES[decade], 'text-anchor="end"')
    for decade in range(math.ceil(first), last + 1):
        x = place(10 ** decade, 10 ** low)[0]
        yield _line([(x, top), (x, bottom)], 'stroke="#d5d8dc"')
        yield _text(x, bottom + 15, DECADES[decade], 'text-anchor="middle"')
    yield _text(left, bottom + 31, caption, f'fill="{colour}"')
    # Linear growth from the first point on, as far as the panel goes.
    far = min(10 ** last / sizes[0], 10 ** high / values[0])
    yield _line([place(sizes[0], values[0]), place(sizes[0] * far, values[0] * far)],
                'stroke="#6b7280" stroke-dasharray="3 3"')
    places = [place(*pair) for pair in zip(sizes, values)]
    yield _line(places, f'stroke="{colour}" stroke-width="2"')
    for x, y in places:
        yield f'<circle cx="{x:.1f}" cy="{y:.1f}" r="2.5" fill="{colour}"/>'


# The picture as SVG, with a background of its own for pages light and dark.
def draw(curves):
    width, height = LEFT + COLUMN * len(curves), TOP + 2 * ROW
    blue, brown, upright = "#0b5cad", "#a8450b", 'text-anchor="middle" transform="rotate(-90 14 {0})"'
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}" '
             f'height="{height}" font-family="sans-serif" font-size="13" fill="#22262c">',
             f'<rect width="{width}" height="{height}" fill="#ffffff"/>',
             _text(LEFT, 24, "How cost grows. All axes are logarithmic; the broken line is linear growth "
                   "from the first point.", 'font-size="15"')]
    for row, (label, colour) in enumerate((("time, first point = 1", blue), ("memory, bytes", brown))):
        middle = TOP + row * ROW + SIDE / 2
        parts.append(_text(14, middle, label, f'fill="{colour}" ' + upright.format(middle)))
    for number, curve in enumerate(curves):
        left = LEFT + number * COLUMN
        sizes, seconds, grown = zip(*curve.points)
        times = [each / seconds[0] for each in seconds]
        parts.append(_text(left, TOP - 10, curve.grows, 'font-weight="bold"'))
        parts += _panel(left, TOP, 0, 4, blue, sizes, times, curve.time)
        parts += _panel(left, TOP + ROW, 3, 8, brown, sizes, grown, curve.memory)
    return "\n".join([*parts, "</svg>", ""])
