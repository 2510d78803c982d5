"""What the user sees: tables, JSON, messages and a progress bar."""

import itertools
import json
import os
import sys
import time
from collections.abc import Callable, Iterable, Iterator, Sequence
from typing import Any, TypeVar

Item = TypeVar("Item")
HELD = 4096  # lines that are looked at before the first is printed


def printable(text: str) -> str:
    """The text on one line, whatever an agent has put into it: no control character reaches a terminal."""
    if text.isprintable():
        return text
    return "".join(c if c.isprintable() else c.encode("unicode_escape").decode() for c in text)


def complain(text: str) -> None:
    print(f"vornctl: {printable(text)}", file=sys.stderr)


def print_json(document: Any) -> None:
    print(json.dumps(document, ensure_ascii=False), flush=True)


def print_json_list(name: str, items: Iterable[Any], rest: Callable[[], dict[str, Any]]) -> None:
    """The document {name: items, **rest()}, printed as the items come: however many they are, few are held."""
    texts = (json.dumps(item, ensure_ascii=False) for item in items)
    held = list(itertools.islice(texts, HELD))
    print(f"{{{json.dumps(name)}: [", end="")
    for position, text in enumerate(itertools.chain(held, texts)):
        print(f", {text}" if position else text, end="")
    print("]" + "".join(f", {json.dumps(key)}: {json.dumps(value)}" for key, value in rest().items()) + "}", flush=True)


def print_table(header: Sequence[str], rows: Iterable[Sequence[Any]]) -> None:
    """Prints the rows as they come, in columns as wide as the first of them need; a later one widens them."""
    lines: Iterator[Sequence[str]] = ([printable(str(cell)) for cell in row] for row in rows)
    held = [header, *itertools.islice(lines, HELD)]
    widths = [max(map(len, column)) for column in zip(*held)]
    for line in itertools.chain(held, lines):
        widths = [max(width, len(cell)) for width, cell in zip(widths, line)]
        print("  ".join(map(str.ljust, line, widths)).rstrip())


class Progress:
    """A bar on standard error that counts items as they are taken, when it is shown at all. Where the total is not
    known (0), it is the count and `word` alone."""

    def __init__(self, total: int, shown: bool, each: int = 1, word: str = "") -> None:
        import threading  # most commands do without it

        self._total = total
        self._word = word
        self._each = each  # how many of the total an item is, but the last
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
                self.draw(count * self._each)
            yield item
        if self._total:
            self.draw(self._total)

    def draw(self, count: int) -> None:
        with self._lock:
            if not self._shown:
                return
            self._drawn = time.monotonic()
            if not self._total:
                print(f"\r{count} {self._word}\x1b[K", end="", file=sys.stderr, flush=True)
                return
            rate = count / max(self._drawn - self._begun, 0.001)
            columns = os.get_terminal_size(sys.stderr.fileno()).columns or 80
            text = f" {100 * count // self._total:3}%  {count}/{self._total}  {rate:.0f}/s"
            width = min(50, columns - len(text) - 3)
            bar = ("#" * (width * count // self._total)).ljust(width, ".") if width > 0 else ""
            print(f"\r[{bar}]{text}\x1b[K", end="", file=sys.stderr, flush=True)
