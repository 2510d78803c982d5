"""How an agent is: its status, all of it for a report, and a live picture."""

from __future__ import annotations

import argparse
import collections
import contextlib
import datetime
import sys
import time
from typing import TYPE_CHECKING, Any

import commands
import policy
import values
from output import print_json, print_table
from values import Refused, UsageError

if TYPE_CHECKING:
    from agent import Agent

TABLES = ("routes", "groups", "mpls_routes", "redirects", "sessions", "state_entries")
STATES = ("programmed", "waiting", "failed", "adopted")
EXPIRING = ("certificate_expires", "authorities_expire", "revocations_expire")
CURVE = 240  # samples of the backlog that are kept
BARS = " ▁▂▃▄▅▆▇█"


def read(agent: Agent) -> Any:
    return agent.status.Get(agent.messages.get_status_msg(), **agent.unary)


def show(agent: Agent, args: argparse.Namespace) -> None:
    status = read(agent)
    if args.json:
        print_json(as_json(status))
    else:
        print_table(["WHAT", "VALUE"], rows(status))


def as_json(status: Any) -> dict[str, Any]:
    def when(field: str) -> str | None:
        time_ = getattr(status, field)
        return values.time_text(time_) if time_ else None

    backlog = status.backlog
    return {
        "version": status.version,
        "started": when("started"),
        "uptime_seconds": uptime(status),
        "tables": {table: getattr(status, table) for table in TABLES},
        "programs_kernel": status.programs_kernel,
        "kernel": {state: getattr(status.kernel, state) for state in STATES} if status.programs_kernel else None,
        "backlog": {field.name: getattr(backlog, field.name) for field in backlog.DESCRIPTOR.fields},
        "records_lost": status.records_lost,
        "primary": primary(status),
        **{field: when(field) for field in EXPIRING},
    }


def primary(status: Any) -> str | None:
    """The primary's election id, if there is one."""
    if not status.HasField("primary"):
        return None
    high, low = status.primary.high, status.primary.low
    return f"{high}:{low}" if high else str(low)


def uptime(status: Any) -> int:
    return int((status.time - status.started) // 10**9)


def rows(status: Any) -> list[tuple[str, Any]]:
    up = datetime.timedelta(seconds=uptime(status))
    found: list[tuple[str, Any]] = [
        ("version", status.version),
        ("started", f"{values.time_text(status.started)} ({up} ago)"),
        *((table.replace("_", " "), getattr(status, table)) for table in TABLES),
    ]
    if status.programs_kernel:
        found += [(f"in the kernel: {state}", getattr(status.kernel, state)) for state in STATES]
    else:
        found.append(("in the kernel", "this agent programs none"))
    found += [
        ("changes waiting", status.backlog.waiting),
        ("the oldest waits", f"{status.backlog.oldest / 1e9:.3f} s"),
        ("changes without room", status.backlog.refused),
        ("changes that failed", status.backlog.failed),
        ("changes of former primaries dropped", status.backlog.dropped),
        ("primary's election id", primary(status) or "none: all may change"),
        ("records lost", status.records_lost),
    ]
    for field in EXPIRING:
        if getattr(status, field):
            found.append((field.replace("_", " "), values.time_text(getattr(status, field))))
    return found


# ----------------------------------------------------------------------------------------------------------
# Everything


def show_tech(agent: Agent, args: argparse.Namespace) -> None:
    """One section after another; one that can't be had says why, and the rest follows."""
    import grpc

    print(f"vornctl show tech of {agent.server}, {values.time_text(time.time_ns())}")
    everything = argparse.Namespace(**{**vars(args), "json": False, "failed": False})
    for title, run in (
        ("status", show),
        ("policy", policy.show),
        ("sessions", commands.list_sessions),
        ("groups", commands.list_groups),
        ("MPLS routes", commands.list_mpls),
        ("redirects", commands.list_redirects),
        ("state", lambda agent, args: commands.state_get(agent, argparse.Namespace(**{**vars(args), "keys": []}))),
        ("routes", commands.list_routes),
    ):
        print(f"\n=== {title}", flush=True)
        try:
            run(agent, everything)
        except grpc.RpcError as error:
            if agent.out_of_reach(error):
                raise
            print(f"not to be had: {error.code().name}: {error.details()}")
        except Refused as error:
            print(f"not to be had: {error}")


# ----------------------------------------------------------------------------------------------------------
# The live picture


class Picture:
    """What was seen of an agent, as a picture for a terminal."""

    def __init__(self, server: str) -> None:
        self._server = server
        self._waiting: collections.deque[int] = collections.deque(maxlen=CURVE)
        self._last: Any = None
        self._rate = 0.0

    def add(self, status: Any) -> None:
        if self._last is not None and status.time > self._last.time:
            self._rate = (status.backlog.done - self._last.backlog.done) * 1e9 / (status.time - self._last.time)
        self._waiting.append(status.backlog.waiting)
        self._last = status

    def draw(self, width: int) -> Any:
        from rich.console import Group
        from rich.panel import Panel
        from rich.table import Table

        table = Table(box=None, show_header=False, padding=(0, 2))
        for what, value in rows(self._last):
            table.add_row(what, str(value))
        table.add_row("done a second", f"{self._rate:.0f}")
        curve = f"[cyan]{self.curve(width - 4)}[/cyan]\nhighest: {max(self._waiting)}"
        return Group(
            Panel(table, title=f"{self._server}, {values.time_text(self._last.time)}"),
            Panel(curve, title="changes waiting"),
        )

    def curve(self, width: int) -> str:
        """A column for each of the last samples, as high as the highest is."""
        shown = list(self._waiting)[-max(width, 1) :]
        highest = max(*shown, 1)
        return "".join(BARS[-(-sample * (len(BARS) - 1) // highest)] for sample in shown)


def top(agent: Agent, args: argparse.Namespace) -> None:
    try:
        from rich.console import Console
        from rich.live import Live
    except ImportError as error:
        raise UsageError(f"top needs a package: {error} (apt-get install python3-rich)") from error
    picture = Picture(agent.server)
    picture.add(read(agent))
    console = Console()
    with Live(picture.draw(console.width), console=console, screen=sys.stdout.isatty(), auto_refresh=False) as live:
        with contextlib.suppress(KeyboardInterrupt):
            for _ in range(1, args.count) if args.count else iter(int, 1):
                time.sleep(args.interval)
                picture.add(read(agent))
                live.update(picture.draw(console.width), refresh=True)
