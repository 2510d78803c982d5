"""Measures the library beside what a user would pick instead, with the release build that stands.

scripts/bench [--quick] [--long] [--apart] [--only WORK[,WORK...]]

  --quick   fewer rounds and calls, about two minutes
  --long    the run that looks for growth serves ten million calls instead of 300,000
  --apart   the load has a processor of its own, the server the others
  --only    some of: unary streaming held stalled growth programs

Subjects take turns (A B C, then C B A), each round in a process of its own after a warm-up. A
figure is the median of the rounds, a ratio the median of the rounds' ratios. Prints one table,
and writes it with results.json, chart.svg and growth.svg to build/bench/.
"""

import argparse
import datetime
import json
import pathlib
import platform
import statistics
import subprocess
import time
from collections.abc import Callable, Iterable, Mapping

import chart
import driver
import programs
import table
from driver import Server, h2load, instructions, item, load, order, percentiles, stalled, Report, SCRATCH
from results import Aim, Figures, Plan, Result, Row, Sample

Rounds = dict[str, list[Figures]]  # by subject

OUT = pathlib.Path("build/bench")
STREAMS = 10_000

HAND, FRAME, COROUTINE = "hand-written", "frame", "kit, a coroutine"
LOG = str(SCRATCH / "accounting.log")
JSON = "frame, records as JSON lines"

# What serves unary calls, with the peer that its figures are divided by.
UNARY: dict[str, tuple[list[str], str | None]] = {
    HAND: (["handwritten"], None),
    FRAME: (["frame"], HAND),
    "hand-written, 64 ahead": (["handwritten", "--ahead", "64"], HAND),
    "frame, 64 ahead": (["frame", "--ahead", "64"], HAND),
    "kit, a function": (["kit"], HAND),
    "kit, a function, 64 ahead": (["kit", "--ahead", "64"], HAND),
    COROUTINE: (["coroutine"], HAND),
    "callback API": (["callback"], HAND),
    "synchronous API": (["synchronous"], HAND),
    "frame, accounting": (["frame", "--accounting", LOG], FRAME),
    "frame, records as accounting lines": (["frame", "--records", f"line:{LOG}"], FRAME),
    JSON: (["frame", "--records", f"json:{LOG}"], FRAME),
    "frame, records as JSON lines, metrics": (["frame", "--records", f"json:{LOG}", "--metrics"], JSON),
    "frame, a spdlog line a call": (["frame", "--spdlog", LOG], FRAME),
}


def take_turns(subjects: Iterable[str], rounds: int, measure: Callable[[str], Figures]) -> Rounds:
    """Figures of every round by subject: measure(name) answers one round's as a dict."""
    taken: Rounds = {name: [] for name in subjects}
    for number in range(rounds):
        for name in list(subjects)[:: -1 if number % 2 else 1]:
            taken[name].append(measure(name))
    return taken


def rows(work: str, taken: Rounds, peers: Mapping[str, str | None]) -> list[Row]:
    """The medians by subject, with the ratio of every figure that its peer has as well."""
    result: list[Row] = []
    for name, rounds in taken.items():
        peer = taken.get(peers.get(name) or "")
        figures: Figures = {}
        ratios: Figures = {}
        for figure in rounds[0]:
            values = [one[figure] for one in rounds]
            figures[figure] = statistics.median(values)
            if peer and figure in peer[0]:
                base = [one[figure] for one in peer]
                # The rounds stand for each other only where they have run side by side.
                if all(base):
                    ratios[figure] = statistics.median(a / b for a, b in zip(values, base))
        result.append({"work": work, "subject": name, "peer": peers.get(name), "figures": figures, "ratios": ratios})
    return result


def cpu(before: Report, after: Report, count: int) -> float:
    return float(after["cpu_us"] - before["cpu_us"]) / count


def unary(plan: Plan, _: Result) -> list[Row]:
    body, answer = item(32), len(item(32))
    log = SCRATCH / "latencies"

    def one(name: str) -> Figures:
        with Server(*UNARY[name][0]) as server:
            load(server.port, "Say", body, plan.calls // 5, answer)
            before = server.report()
            rate = load(server.port, "Say", body, plan.calls, answer, log=log)
            after = server.report()
        p50, p99 = percentiles(log, 50, 99)
        log.unlink()
        return {"cpu_us": cpu(before, after, plan.calls), "rate": rate, "p50_us": p50, "p99_us": p99}

    def counted(name: str) -> Figures:
        with Server(*UNARY[name][0], "--count-allocations") as server:
            load(server.port, "Say", body, 1000, answer)
            before = server.report()
            load(server.port, "Say", body, plan.calls // 4, answer)
            after = server.report()
        made = (after["allocations"] - before["allocations"]) / (plan.calls // 4)
        return {"instructions": instructions(UNARY[name][0], "Say", body, plan.counted, answer), "allocations": made}

    peers = {name: peer for name, (_, peer) in UNARY.items()}
    timed = rows("unary echo", take_turns(UNARY, plan.rounds, one), peers)
    other = rows("unary echo", take_turns(UNARY, plan.counted_rounds, counted), peers)
    for row, more in zip(timed, other):
        row["figures"] |= more["figures"]
        row["ratios"] |= more["ratios"]
    return timed


def streaming(plan: Plan, _: Result) -> list[Row]:
    result: list[Row] = []
    for size in (64, 16 * 1024):
        calls = plan.streams if size == 64 else max(4, plan.streams // 5)
        body, answer = order(1000, size), 1000 * len(item(size))

        def one(name: str) -> Figures:
            with Server(*UNARY[name][0]) as server:
                load(server.port, "Stream", body, 4, answer, streams=1)
                before = server.report()
                rate = load(server.port, "Stream", body, calls, answer, streams=1)
                after = server.report()
            return {"cpu_us": cpu(before, after, calls * 1000), "rate": rate * 1000}

        result += rows(
            f"streamed item, {size} bytes",
            take_turns((HAND, FRAME, COROUTINE), plan.rounds, one),
            {FRAME: HAND, COROUTINE: HAND},
        )
    return result


def hold(server: Server) -> tuple[subprocess.Popen[str], Report]:
    """A client with STREAMS open streams."""
    client = h2load(server.port, "Hold", order(0, 0), STREAMS, connections=10, streams=1000)
    return client, server.wait_for(lambda report: bool(report["held"] == STREAMS))


def publish(server: Server, size: int) -> None:
    load(server.port, "Publish", order(0, size), 1, len(order(STREAMS, size)), 1, 1)


def held(plan: Plan, _: Result) -> list[Row]:
    def one(name: str) -> Figures:
        with Server(*UNARY[name][0]) as server:
            load(server.port, "Say", item(32), 1000, len(item(32)))
            before = server.report()
            client, opened = hold(server)
            for number in range(1, plan.publishes + 1):
                publish(server, 64)
                written = server.wait_for(lambda report: bool(report["written"] == number * STREAMS))
            took = server.stop()
            client.communicate()
        return {
            "bytes": (opened["heap_bytes"] - before["heap_bytes"]) / STREAMS,
            "cpu_us": cpu(opened, written, plan.publishes * STREAMS),
            "stop_ms": took,
        }

    return rows(
        "10,000 open streams, a write to each",
        take_turns((HAND, FRAME, COROUTINE), plan.few, one),
        {FRAME: HAND, COROUTINE: HAND},
    )


def stopped_reading(plan: Plan, _: Result) -> list[Row]:
    """stop() with clients that have stopped reading, and writes that can't go out."""
    result: list[Row] = []
    for name, keepalive in (("frame, keepalive 10 s / 1 s", True), ("frame, no keepalive", False)):
        if plan.quick and not keepalive:
            continue
        with Server("frame", *(["--keepalive"] if keepalive else [])) as server:
            client = hold(server)[0]
            stalled(client)
            publish(server, 16 * 1024)
            time.sleep(4)
            took = server.stop()
            client.kill()
            client.communicate()
        result.append(
            {
                "work": "10,000 open streams, clients stalled for 4 s",
                "subject": name,
                "peer": None,
                "figures": {"stop_ms": took},
                "ratios": {},
            }
        )
    return result


def growth(plan: Plan, result: Result) -> list[Row]:
    """One server, loaded in pieces: what a call costs and what the process holds after each."""
    samples: list[Sample] = []
    piece = max(10_000, plan.growth // 200)
    with Server("frame") as server:
        load(server.port, "Say", item(32), 10_000, len(item(32)))
        last = server.report()
        for served in range(piece, plan.growth + 1, piece):
            load(server.port, "Say", item(32), piece, len(item(32)))
            now = server.report()
            samples.append(
                {
                    "calls": served,
                    "cpu_us": cpu(last, now, piece),
                    "heap_bytes": now["heap_bytes"],
                    "resident_bytes": now["resident_bytes"],
                }
            )
            last = now
    chart.growth(samples, OUT / "growth.svg")
    result["growth"] = samples
    quarter = len(samples) // 4
    work = f"{plan.growth:,} calls to one server"
    first, final = middle(samples[:quarter]), middle(samples[-quarter:])
    ratios = {figure: final[figure] / first[figure] for figure in first}
    return [
        {"work": work, "subject": "first quarter", "peer": None, "figures": first, "ratios": {}},
        {"work": work, "subject": "last quarter", "peer": "first quarter", "figures": final, "ratios": ratios},
    ]


def middle(part: list[Sample]) -> Figures:
    """The medians of a part of a long run."""
    figures = {"cpu_us": "cpu_us", "bytes": "heap_bytes"}
    return {figure: statistics.median(sample[name] for sample in part) for figure, name in figures.items()}


WORKS: dict[str, Callable[[Plan, Result], list[Row]]] = {
    "unary": unary,
    "streaming": streaming,
    "held": held,
    "stalled": stopped_reading,
    "growth": growth,
    "programs": lambda plan, _: programs.run(plan),
}

# What is to be reached: a ratio or a figure of a subject, and its bound.
AIMS = [
    ("unary echo", FRAME, "ratios", "cpu_us", 1.03),
    ("unary echo", FRAME, "ratios", "instructions", 1.03),
    ("unary echo", "frame, 64 ahead", "ratios", "cpu_us", 0.90),
    ("unary echo", "frame, accounting", "ratios", "cpu_us", 1.15),
    ("unary echo", JSON, "ratios", "cpu_us", 1.10),
    ("unary echo", "frame, records as JSON lines, metrics", "ratios", "cpu_us", 1.03),
    ("10,000 open streams, a write to each", FRAME, "figures", "stop_ms", 5000),
    ("10,000 open streams, clients stalled for 4 s", "frame, keepalive 10 s / 1 s", "figures", "stop_ms", 5000),
]


def aims(measured: list[Row]) -> list[Aim]:
    result: list[Aim] = []
    for work, subject, kind, figure, bound in AIMS:
        for row in measured:
            if (row["work"], row["subject"]) == (work, subject):
                value = (row["ratios"] if kind == "ratios" else row["figures"])[figure]
                result.append(
                    {
                        "aim": f"{work}, {subject}: {table.TITLES[figure]}"
                        f"{' ratio' if kind == 'ratios' else ''} at most {bound}",
                        "value": value,
                        "met": value <= bound,
                    }
                )
    return result


def parse() -> Plan:
    parser = argparse.ArgumentParser(
        description=__doc__, prog="scripts/bench", formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--long", action="store_true")
    parser.add_argument("--apart", action="store_true")
    parser.add_argument("--only", default=",".join(WORKS))
    plan = parser.parse_args()
    plan.only = plan.only.split(",")
    driver.apart = plan.apart
    plan.rounds, plan.few, plan.counted_rounds = (5, 1, 1) if plan.quick else (7, 3, 2)
    plan.calls, plan.counted = (5_000, 2_000) if plan.quick else (20_000, 3_000)
    plan.streams, plan.publishes = (20, 3) if plan.quick else (100, 10)
    plan.growth = 10_000_000 if plan.long else 100_000 if plan.quick else 300_000
    return plan


def machine() -> str:
    cpuinfo = pathlib.Path("/proc/cpuinfo").read_text()
    model = next(
        (line.split(": ", 1)[1] for line in cpuinfo.splitlines() if line.startswith("model name")), platform.machine()
    )
    return f"{cpuinfo.count('processor	')} x {model}, Linux {platform.release()}"


def write(result: Result) -> None:
    (OUT / "results.json").write_text(json.dumps(result, indent=1))
    (OUT / "table.md").write_text(table.render(result))
    chart.ratios(result["rows"], OUT / "chart.svg")


def main() -> None:
    plan = parse()
    OUT.mkdir(parents=True, exist_ok=True)
    started = time.monotonic()
    result: Result = {
        "machine": machine(),
        "date": datetime.date.today().isoformat(),
        "minutes": 0,
        "rows": [],
        "growth": [],
        "aims": [],
    }
    for name, work in WORKS.items():
        if name not in plan.only:
            continue
        print(f"measuring: {name}", flush=True)
        result["rows"] += work(plan, result)
        result["aims"] = aims(result["rows"])
        result["minutes"] = round((time.monotonic() - started) / 60, 1)
        write(result)
    print(table.render(result))


main()
