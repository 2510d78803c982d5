#!/usr/bin/python3
"""Soaks one agent: mixed load and faults for a while, then a table, and exit code 1 when it doesn't add up.

usage: soak.py STUBS AGENT SECONDS leaks|growth

STUBS is the folder of the generated stubs. With `leaks`, AGENT is built with the address sanitizer, which counts
at the agent's exit what was never released; with `growth`, resident memory, descriptors and threads at the end
are held against those after the first sixth of the time, each taken when every client had left.

Every client calls under a user name of its own, so that the accounting log tells their calls apart:

  steady   calls of every kind by python3-grpcio, which wait for their answer
  volume   unary calls by h2load, the same
  watcher  streams whose first item came, and which the client then ended: cancelled, cut off with nobody reading,
           or with its process killed. The agent answers each with CANCELLED, which nobody hears: what counts as
           an answer is the item.
  faulty   calls that were cancelled or cut off before anything came back. Those that the agent has not seen when
           they are cancelled are never calls to it, so all that holds is: answers heard <= records <= calls.

For the others, calls = answers = records, and each status was written as often as it was answered.
"""

import collections
import pathlib
import sys
import tempfile
import time

sys.path.insert(0, sys.argv[1])  # before the clients, which use the stubs
from routing_agent import Agent, Statuses, Usage  # noqa: E402
from load import Load  # noqa: E402


def reckon(load: Load, records: dict[str, Statuses], problems: list[str]) -> None:
    """Prints the table of calls."""
    print(f"  {'':24}{'calls':>12}{'answers':>12}{'records':>12}")
    for user in load.USERS:
        calls, answers, written = load.calls[user], load.answers[user], records.pop(user, collections.Counter())
        print(f"  {user:24}{calls:12}{answers.total():12}{written.total():12}")
        if not calls:
            problems.append(f"no calls of {user}")
        if user == "faulty":
            if not answers.total() <= written.total() <= calls:
                problems.append("faulty: not answers <= records <= calls")
        elif calls != answers.total() or answers != written:
            problems.append(f"{user}: answered {dict(answers)}, recorded {dict(written)}")
    if records:
        problems.append(f"records of nobody: {dict(records)}")


def growth(start: Usage, end: Usage) -> list[str]:
    """Prints what the agent used after the first part and at the end; returns what grew."""
    print(f"\n  {'':24}{'start':>12}{'end':>12}")
    for name in start:
        print(f"  {name:24}{start[name]:12}{end[name]:12}")
    # The allocator keeps what a burst took, and gRPC's threads come and go with its work.
    bounds = {"resident memory, KiB": start["resident memory, KiB"] + 16384}
    bounds |= {"descriptors": start["descriptors"], "threads": start["threads"] + 4}
    return [f"{name}: {end[name]} is above {most}" for name, most in bounds.items() if end[name] > most]


def soak(program: str, seconds: float, mode: str) -> list[str]:
    """Runs the agent under load, and returns what was wrong."""
    with tempfile.TemporaryDirectory() as folder:
        scratch = pathlib.Path(folder)
        agent = Agent(program, scratch)
        load = Load(agent.port, scratch)
        usages = []  # after a first part, which fills every table and cache, and at the end
        for part in (seconds / 6, seconds * 5 / 6):
            load.start()
            time.sleep(part)
            load.stop()
            usages.append(agent.usage())
        code, leaks = agent.stop()
        problems = load.problems
        reckon(load, agent.records(), problems)
        if code:
            problems.append(f"the agent's exit code is {code}: {agent.errors.read_text()[-4000:]}")
    if mode == "leaks":
        print(f"  {'leaks':24}{leaks:12}")
        return problems
    return problems + growth(*usages)


def main(program: str, seconds: float, mode: str) -> None:
    problems = soak(program, seconds, mode)
    for problem in problems[:20]:
        print(f"  WRONG: {problem}")
    sys.exit(1 if problems else 0)


main(sys.argv[2], float(sys.argv[3]), sys.argv[4])
