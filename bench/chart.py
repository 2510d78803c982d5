"""Two charts as SVG: the ratios of processor time and instructions, and a long run's course."""

import pathlib
from collections.abc import Sequence

from results import Row, Sample

WIDTH, BAR, LEFT = 900, 16, 430
COLOURS = {"cpu_us": "#3b6ea5", "instructions": "#9dbcd8"}
NAMES = {"cpu_us": "CPU", "instructions": "instructions"}


def text(x: float, y: float, content: str, anchor: str = "start") -> str:
    content = content.replace("&", "&amp;").replace("<", "&lt;")
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}">{content}</text>'


def line(x1: float, y1: float, x2: float, y2: float, colour: str = "#888") -> str:
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}"/>'


def box(x: float, y: float, width: float, height: float, colour: str) -> str:
    return f'<rect x="{x:.1f}" y="{y:.1f}" width="{width:.1f}" height="{height:.1f}" fill="{colour}"/>'


def write(path: pathlib.Path, width: float, height: float, parts: Sequence[str]) -> None:
    path.write_text(
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" '
        f'font-family="sans-serif" font-size="12">\n'
        f'<rect width="{width}" height="{height}" fill="white"/>\n' + "\n".join(parts) + "\n</svg>\n"
    )


def label(row: Row) -> str:
    compared = f"{row['subject']} / {row['peer']}"
    return compared if row["work"].endswith("Bench") else f"{row['work']}: {compared}"


def ratios(rows: Sequence[Row], path: pathlib.Path) -> None:
    """A bar for every ratio to a peer; the line is the peer. What is beyond 3 is cut off."""
    scale = (WIDTH - LEFT - 60) / 3
    parts: list[str] = []
    y = 40.0
    for figure, colour in COLOURS.items():
        at = LEFT + 130 * list(COLOURS).index(figure)
        parts += [box(at, 12, 12, 12, colour), text(at + 18, 23, NAMES[figure] + ", ratio")]
    for row in rows:
        figures = [figure for figure in COLOURS if figure in row["ratios"]]
        if not figures:
            continue
        parts.append(text(LEFT - 8, y + BAR / 2 * len(figures) + 4, label(row), "end"))
        for figure in figures:
            value = row["ratios"][figure]
            parts += [
                box(LEFT, y, scale * min(value, 3), BAR - 2, COLOURS[figure]),
                text(LEFT + scale * min(value, 3) + 4, y + BAR - 4, f"{value:.3f}"),
            ]
            y += BAR
        y += 8
    parts.append(line(LEFT + scale, 34, LEFT + scale, y, "#c0392b"))
    write(path, WIDTH, y + 10, parts)


def curve(
    samples: Sequence[Sample], figure: str, scale: float, top: float, height: float, title: str, unit: str
) -> list[str]:
    """One figure against the calls served, from zero."""
    left, right = 70, WIDTH - 20
    most = max(sample[figure] for sample in samples) * scale * 1.2
    calls = samples[-1]["calls"]
    points = " ".join(
        f"{left + (right - left) * sample['calls'] / calls:.1f},"
        f"{top + height - height * sample[figure] * scale / most:.1f}"
        for sample in samples
    )
    return [
        text(left, top - 6, title),
        line(left, top, left, top + height),
        line(left, top + height, right, top + height),
        text(left - 6, top + 10, f"{most:.1f}{unit}", "end"),
        text(left - 6, top + height, "0", "end"),
        text(right, top + height + 16, f"{calls:,} calls", "end"),
        f'<polyline points="{points}" fill="none" stroke="#3b6ea5" stroke-width="1.5"/>',
    ]


def growth(samples: Sequence[Sample], path: pathlib.Path) -> None:
    write(
        path,
        WIDTH,
        540,
        curve(samples, "cpu_us", 1, 30, 130, "processor time per call", " us")
        + curve(samples, "heap_bytes", 1 / 1024, 210, 130, "memory allocated", " KiB")
        + curve(samples, "resident_bytes", 1 / 2**20, 390, 130, "resident memory", " MiB"),
    )
