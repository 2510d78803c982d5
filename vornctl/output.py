"""What the user sees: tables, JSON, messages and a progress bar."""

import json
import os
import sys
import threading
import time
from collections.abc import Iterable, Iterator, Sequence
from typing import Any, TypeVar

Item = TypeVar("Item")


def printable(text: str) -> str:
    """The text on one line, whatever an agent has put into it: no control character reaches a terminal."""
    if text.isprintable():
        return text
    return "".join(c if c.isprintable() else c.encode("unicode_escape").decode() for c in text)


def complain(text: str) -> None:
    print(f"vornctl: {printable(text)}", file=sys.stderr)


def print_json(document: Any) -> None:
    print(json.dumps(document, ensure_ascii=False), flush=True)


def print_table(header: Sequence[str], rows: Iterable[Sequence[Any]]) -> None:
    lines = [header, *([printable(str(cell)) for cell in row] for row in rows)]
    widths = [max(map(len, column)) for column in zip(*lines)]
    for line in lines:
        print("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip())


class Progress:
    """A bar on standard error that counts items as they are taken, when it is shown at all."""

    def __init__(self, total: int, shown: bool) -> None:
        self._total = total
        self._shown = shown
        self._begun = time.monotonic()
        self._drawn = 0.0
        self._lock = threading.Lock()  # gRPC takes items on a thread of its own

    def __enter__(self) -> "Progress":
        return self

    def __exit__(self, *_: object) -> None:
        """Wipes the bar: what is printed next stands on a clean line."""
        with self._lock:
            if self._shown and self._drawn:
                print("\r\x1b[K", end="", file=sys.stderr, flush=True)
            self._shown = False

    def counted(self, items: Iterable[Item]) -> Iterator[Item]:
        for count, item in enumerate(items):
            if self._shown and time.monotonic() - self._drawn > 0.1:
                self._draw(count)
            yield item
        self._draw(self._total)

    def _draw(self, count: int) -> None:
        with self._lock:
            if not self._shown:
                return
            self._drawn = time.monotonic()
            rate = count / max(self._drawn - self._begun, 0.001)
            columns = os.get_terminal_size(sys.stderr.fileno()).columns or 80
            text = f" {100 * count // self._total:3}%  {count}/{self._total}  {rate:.0f}/s"
            width = min(50, columns - len(text) - 3)
            bar = ("#" * (width * count // self._total)).ljust(width, ".") if width > 0 else ""
            print(f"\r[{bar}]{text}\x1b[K", end="", file=sys.stderr, flush=True)
