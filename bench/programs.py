"""Runs the Google Benchmark programs that have been built and reads their results."""

import json
import pathlib
import re
import subprocess
from collections.abc import Container
from typing import Any

from driver import BUILD
from results import Plan, Row

Benchmark = dict[str, Any]  # as Google Benchmark writes it

# The words by which a benchmark's name and that of its peer differ.
PEERS = [
    ("Registry", "Map"),
    ("Backlog", "Asio"),
    ("Accounting", "SpdlogAsync"),
    ("toString", "ShortDebugString"),
    ("Kit", "CallbackApi"),
    ("Alarm", "CallbackApi"),
]


def benchmarks(program: pathlib.Path, plan: Plan) -> dict[str, Benchmark]:
    """The medians of a program's benchmarks by name."""
    output = subprocess.run(
        [
            program,
            "--benchmark_format=json",
            "--benchmark_enable_random_interleaving=true",
            f"--benchmark_repetitions={3 if plan.quick else 5}",
            f"--benchmark_min_time={0.02 if plan.quick else 0.1}",
        ],
        check=True,
        stdout=subprocess.PIPE,
        stderr=subprocess.DEVNULL,
    ).stdout
    medians = [one for one in json.loads(output)["benchmarks"] if one.get("aggregate_name") == "median"]
    medians.sort(key=lambda one: (one["family_index"], one["per_family_instance_index"]))
    return {one["run_name"]: one for one in medians}


def peer_of(name: str, among: Container[str]) -> str | None:
    for ours, peer in PEERS:
        if ours in name and name.replace(ours, peer) in among:
            return name.replace(ours, peer)
    return None


def row(program: pathlib.Path, name: str, found: dict[str, Benchmark]) -> Row:
    one, peer = found[name], peer_of(name, found)
    figures = {"cpu_us": microseconds(one)}
    if "allocs" in one:
        figures["allocations"] = one["allocs"]
    if "bytes" in one:
        figures["bytes"] = one["bytes"]
    ratios = {"cpu_us": figures["cpu_us"] / microseconds(found[peer])} if peer else {}
    return {
        "work": program.name,
        "subject": short(name),
        "peer": peer and short(peer),
        "figures": figures,
        "ratios": ratios,
    }


def short(name: str) -> str:
    return re.sub(r"^BM_|/iterations:\d+|/real_time", "", name)


def microseconds(one: Benchmark) -> float:
    time: float = one["real_time" if "real_time" in one["run_name"] else "cpu_time"]
    return time / {"ns": 1000, "us": 1, "ms": 0.001}[one["time_unit"]]


def run(plan: Plan) -> list[Row]:
    result: list[Row] = []
    for program in sorted(BUILD.glob("*Bench")):
        found = benchmarks(program, plan)
        result += [row(program, name, found) for name in found]
    return result
