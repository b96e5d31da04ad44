"""Pictures as SVG: rows of bars, and lines through points, in panels one below the other."""

import math
from collections.abc import Sequence
from html import escape

WIDTH = 760
LEFT = 190  # of the bars: the names stand before it
COLOURS = ("#1f77b4", "#ff7f0e", "#2ca02c", "#9467bd", "#d62728", "#8c564b")
GREY = "#bbbbbb"

Panel = tuple[int, list[str]]  # height, elements that begin at height 0


def _text(x: float, y: float, text: str, anchor: str = "start", weight: str = "normal") -> str:
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" font-weight="{weight}">{escape(text)}</text>'


def number(value: float) -> str:
    """A figure with three digits, or all that stand before the point."""
    digits = 0 if value >= 100 else 1 if value >= 10 else 2
    return f"{value:,.{digits}f}"


def _legend(parts: Sequence[str], y: float) -> list[str]:
    drawn, x = [], WIDTH - 10.0
    for colour, part in reversed(list(zip(COLOURS, parts))):
        x -= 7.0 * len(part)
        drawn.append(_text(x, y, part))
        drawn.append(f'<rect x="{x - 15:.1f}" y="{y - 9}" width="10" height="10" fill="{colour}"/>')
        x -= 30
    return drawn


def bars(title: str, parts: Sequence[str], rows: Sequence[tuple[str, Sequence[float]]], stacked: bool) -> Panel:
    """A bar per row from the values of its parts, end to end when stacked or else over each other."""
    totals = [sum(values) if stacked else max(values) for _, values in rows]
    scale = (WIDTH - LEFT - 100) / max(max(totals), 1e-9)
    drawn = [_text(10, 18, title, weight="bold"), *(_legend(parts, 18) if len(parts) > 1 else [])]
    y = 30
    for (name, values), total in zip(rows, totals):
        drawn.append(_text(LEFT - 8, y + 12, name, "end"))
        x, height = float(LEFT), 16 if stacked else 16 // len(parts)
        for i, value in enumerate(values):
            top = y if stacked else y + i * height
            drawn.append(
                f'<rect x="{x:.1f}" y="{top}" width="{value * scale:.1f}" height="{height}" fill="{COLOURS[i]}"/>'
            )
            x += value * scale if stacked else 0
        figures = [number(total)] if stacked else [number(value) for value in values]
        drawn.append(_text(LEFT + total * scale + 6, y + 12, " / ".join(figures)))
        y += 22
    return y + 12, drawn


def _round_above(value: float) -> float:
    """The least of 1, 2, 4 or 8 times a power of ten that the value does not exceed; 1 for nothing."""
    power = 10.0 ** math.floor(math.log10(value)) if value > 0 else 1
    return next(power * step for step in (1, 2, 4, 8, 10) if value <= power * step)


def lines(title: str, x_name: str, y_name: str, series: dict[str, Sequence[tuple[float, float]]]) -> Panel:
    """Lines through points; the axis below has the points' places, at even distances."""
    places = sorted({x for points in series.values() for x, _ in points})
    top = _round_above(max(y for points in series.values() for _, y in points))
    left, right, up, down = 70, WIDTH - 40, 34, 214

    def at(x: float, y: float) -> tuple[float, float]:
        across = places.index(x) / max(1, len(places) - 1)
        return left + across * (right - left), down - y / top * (down - up)

    drawn = [_text(10, 18, title, weight="bold"), *(_legend(list(series), 18) if len(series) > 1 else [])]
    for i in range(5):
        x, y = at(places[0], top * i / 4)
        drawn.append(f'<line x1="{left}" y1="{y:.1f}" x2="{right}" y2="{y:.1f}" stroke="{GREY}"/>')
        drawn.append(_text(x - 6, y + 4, number(top * i / 4), "end"))
    for place in places:
        drawn.append(_text(at(place, 0)[0], down + 16, f"{place:,g}", "middle"))
    drawn.append(_text((left + right) / 2, down + 34, x_name, "middle"))
    drawn.append(_text(left + 4, up - 2, y_name))
    for colour, points in zip(COLOURS, series.values()):
        path = " ".join(f"{x:.1f},{y:.1f}" for x, y in (at(*point) for point in points))
        drawn.append(f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"/>')
        for point in points:
            x, y = at(*point)
            drawn.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>')
    return down + 48, drawn


def picture(panels: Sequence[Panel]) -> str:
    """The panels as one SVG file."""
    drawn, y = [], 0
    for height, elements in panels:
        drawn += [f'<g transform="translate(0 {y})">', *elements, "</g>"]
        y += height
    return "\n".join(
        [
            f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{y}" viewBox="0 0 {WIDTH} {y}"'
            ' font-family="sans-serif" font-size="12">',
            f'<rect width="{WIDTH}" height="{y}" fill="white"/>',
            *drawn,
            "</svg>\n",
        ]
    )
