"""Charts over time as SVG: panels below each other with one time axis. Needs nothing but a browser to look at."""

import math
from dataclasses import dataclass
from xml.sax.saxutils import escape

_WIDTH, _LEFT, _RIGHT, _TOP = 960, 74, 150, 44
_HEIGHT, _GAP = 120, 44  # of a panel, and between two
_COLOURS = ("#1f5fa8", "#d9822b", "#b3261e")
_STYLE = (
    "text{font:12px sans-serif;fill:#333}.title{font-size:16px;font-weight:bold}.name{font-weight:bold}"
    ".grid{stroke:#e4e4e4}.axis{stroke:#888}.mark{stroke:#888;stroke-dasharray:4 3}"
)


@dataclass
class Series:
    label: str  # empty for the only one
    points: list[tuple[float, float]]


@dataclass
class Panel:
    name: str
    series: list[Series]


def _ticks(highest: float, count: int) -> list[float]:
    """Round numbers from 0 to `highest` or a little above, about `count` of them."""
    raw = max(highest, 1e-9) / count
    power = 10 ** math.floor(math.log10(raw))
    step = next(factor * power for factor in (1, 2, 2.5, 5, 10) if factor * power >= raw * 0.999)
    return [step * i for i in range(math.ceil(highest / step * 0.999) + 1)]


def _panel(panel: Panel, top: float, last: float, mark: float) -> list[str]:
    highest = max((y for series in panel.series for _, y in series.points), default=1.0)
    ticks = _ticks(highest, 3)
    width = _WIDTH - _LEFT - _RIGHT

    def at(x: float, y: float) -> tuple[float, float]:
        return _LEFT + x / last * width, top + _HEIGHT * (1 - y / ticks[-1])

    parts = [f'<text class="name" x="{_LEFT}" y="{top - 8}">{escape(panel.name)}</text>']
    for tick in ticks:
        y = at(0, tick)[1]
        kind = "grid" if tick else "axis"
        parts.append(f'<line class="{kind}" x1="{_LEFT}" y1="{y:.1f}" x2="{_WIDTH - _RIGHT}" y2="{y:.1f}"/>')
        parts.append(f'<text x="{_LEFT - 8}" y="{y + 4:.1f}" text-anchor="end">{tick:,g}</text>')
    x = at(mark, 0)[0]
    parts.append(f'<line class="mark" x1="{x:.1f}" y1="{top}" x2="{x:.1f}" y2="{top + _HEIGHT}"/>')
    for number, (series, colour) in enumerate(zip(panel.series, _COLOURS)):
        points = " ".join("{:.1f},{:.1f}".format(*at(*point)) for point in series.points)
        parts.append(f'<polyline fill="none" stroke="{colour}" stroke-width="1.5" points="{points}"/>')
        parts.append(
            f'<text x="{_WIDTH - _RIGHT + 10}" y="{top + 12 + 16 * number}" style="fill:{colour}">'
            f"{escape(series.label)}</text>"
        )
    return parts


def svg(panels: list[Panel], title: str, unit: str, mark: float) -> str:
    """The picture, with a dashed line at `mark` of the time axis in every panel."""
    last = max(x for panel in panels for series in panel.series for x, _ in series.points)
    height = _TOP + len(panels) * (_HEIGHT + _GAP) + 24
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{_WIDTH}" height="{height}" viewBox="0 0 {_WIDTH} {height}">',
        f"<style>{_STYLE}</style>",
        f'<rect width="{_WIDTH}" height="{height}" fill="#fff"/>',
        f'<text class="title" x="{_LEFT}" y="24">{escape(title)}</text>',
    ]
    for number, panel in enumerate(panels):
        parts += _panel(panel, _TOP + 20 + number * (_HEIGHT + _GAP), last, mark)
    bottom = _TOP + 20 + len(panels) * (_HEIGHT + _GAP) - _GAP + 18
    for tick in _ticks(last, 8):
        if tick <= last * 1.001:
            x = _LEFT + tick / last * (_WIDTH - _LEFT - _RIGHT)
            parts.append(f'<text x="{x:.1f}" y="{bottom}" text-anchor="middle">{tick:g}</text>')
    parts.append(f'<text x="{_WIDTH - _RIGHT + 10}" y="{bottom}">{escape(unit)}</text></svg>')
    return "\n".join(parts) + "\n"
