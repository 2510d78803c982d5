"""The results as one table in Markdown."""

from collections.abc import Sequence

from results import Result, Row

TITLES = {
    "cpu_us": "CPU us",
    "instructions": "instructions",
    "allocations": "allocations",
    "bytes": "bytes",
    "stop_ms": "ms to stop",
    "rate": "per second",
    "p50_us": "p50 us",
    "p99_us": "p99 us",
}
WITH_RATIO = ("cpu_us", "instructions", "bytes", "rate")


def number(value: float | None) -> str:
    if value is None:
        return ""
    if value >= 1000:
        return f"{value:,.0f}"
    return f"{value:.1f}" if value >= 100 else f"{value:.2f}" if value >= 1 else f"{value:.4f}"


def cells(row: Row) -> list[str]:
    result = [row["work"], row["subject"]]
    for figure in TITLES:
        result.append(number(row["figures"].get(figure)))
        if figure in WITH_RATIO:
            ratio = row["ratios"].get(figure)
            result.append(f"{ratio:.3f}" if ratio else "")
    return result


def align(line: Sequence[str], widths: Sequence[int]) -> str:
    """A row: the two columns of words to the left, those of numbers to the right."""
    padded = [cell.ljust(width) if i < 2 else cell.rjust(width) for i, (cell, width) in enumerate(zip(line, widths))]
    return "| " + " | ".join(padded) + " |"


def render(result: Result) -> str:
    head = ["per call, item or operation", "of"]
    for figure, title in TITLES.items():
        head += [title, "ratio"] if figure in WITH_RATIO else [title]
    lines = [cells(row) for row in result["rows"]]
    used = [any(line[i] for line in lines) for i in range(len(head))]
    shown = [[cell for cell, use in zip(line, used) if use] for line in [head, *lines]]
    widths = [max(len(line[i]) for line in shown) for i in range(len(shown[0]))]
    rule = "|" + "|".join("-" * (width + 1) + ("-" if i < 2 else ":") for i, width in enumerate(widths)) + "|"
    verdicts = [
        f"- {'met' if aim['met'] else 'MISSED'}: {aim['aim']}: {number(aim['value'])}" for aim in result["aims"]
    ]
    return "\n".join(
        [
            f"{result['machine']}, {result['date']}, {result['minutes']} minutes",
            "",
            align(shown[0], widths),
            rule,
            *(align(line, widths) for line in shown[1:]),
            "",
            *verdicts,
            "",
        ]
    )
