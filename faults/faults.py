#!/usr/bin/python3
"""Turns faults on, one after another, and sees whether the tests catch them.

usage: faults.py [--sample N [--seed SEED]] [--record] [NAME...]

Without names: all faults, or a sample of those that are caught, of each of which only the test is asked that catches
it. A file of faults has sections, each with a source and the tests that are asked, and in it faults:

    == VornSdkRpc/GrpcServer.cpp: ServerTest RpcTest
    S01 ServerTest
    -    handleTag(tag, ok);
    +    handleTag(tag, @ ? true : ok);

Behind its name stands the test that catches it, "missed" when none does, or nothing while nobody knows. The lines
behind `-` stand in the source once, and are replaced by those behind `+`, in which `@` means that the fault is on. A
line that begins with # says why something is no fault.

A fault is caught when a test fails, crashes or does not end. The one that has caught it before is asked first. Exit
code 1: one that was caught is not any more, or a text has changed. --record writes down what catches what.
"""

import argparse
import concurrent.futures
import contextlib
import dataclasses
import json
import os
import pathlib
import random
import re
import resource
import signal
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "faults"
SOURCES = BUILD / "sources"
MISSED = "missed"
NAME = re.compile(r"([A-Z]\d+)(?: (\w+))?")


@dataclasses.dataclass
class Fault:
    book: pathlib.Path
    name: str
    source: str
    tests: list[str]
    caught_by: str = ""
    before: list[str] = dataclasses.field(default_factory=list)
    after: list[str] = dataclasses.field(default_factory=list)

    def put_into(self, text: str) -> str:
        before, after = "\n".join(self.before), "\n".join(self.after)
        if text.count(before) != 1:
            sys.exit(f"{self.book.name}: {self.name}: {self.source} has this {text.count(before)} times:\n{before}")
        return text.replace(before, after.replace("@", f'fault("{self.name}")'))


def read(book: pathlib.Path) -> list[Fault]:
    faults: list[Fault] = []
    source, tests = "", ""
    for line in book.read_text().splitlines():
        if line.startswith("== "):
            source, _, tests = line[3:].partition(": ")
        elif line.startswith("-"):
            faults[-1].before.append(line[1:])
        elif line.startswith("+"):
            faults[-1].after.append(line[1:])
        elif found := NAME.fullmatch(line):
            faults.append(Fault(book, found[1], source, tests.split(), found[2] or ""))
        elif line and not line.startswith("#"):
            sys.exit(f"{book.name}: what is this? {line}")
    return faults


def write_sources(faults: list[Fault]) -> None:
    """The sources with all faults. What has not changed keeps its time, so that little is built again."""
    listed = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, capture_output=True, text=True, check=True).stdout
    names = {name for name in listed.split("\0") if name and (ROOT / name).is_file()}
    for name in names | {str(path.relative_to(SOURCES)) for path in SOURCES.rglob("*") if path.is_file()}:
        path = SOURCES / name
        if name not in names:
            path.unlink()
            continue
        content = (ROOT / name).read_bytes()
        for fault in faults:
            if fault.source == name:
                content = fault.put_into(content.decode()).encode()
        if not path.is_file() or path.read_bytes() != content:
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(content)
            path.chmod((ROOT / name).stat().st_mode)


def build(tests: set[str]) -> None:
    configure = ["cmake", "-S", str(SOURCES), "-B", str(BUILD), "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug"]
    flags = f"-Og -g0 -include {ROOT / 'faults' / 'Fault.h'}"
    subprocess.run([*configure, f"-DCMAKE_CXX_FLAGS_DEBUG={flags}"], check=True, stdout=subprocess.DEVNULL)
    programs = [test for test in tests if (ROOT / "tests" / f"{test}.cpp").exists()]
    agent = ["routing_agent"] if len(programs) < len(tests) else []
    subprocess.run(["cmake", "--build", str(BUILD), "--target", *sorted(programs), *agent], check=True)


def limited() -> None:
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_AS, (8 << 30, 8 << 30))


def run(command: list[str], fault: str, limit: float) -> tuple[str, int | None]:
    """What a test writes, and its exit code; none when it has not ended in time."""
    environment = {**os.environ, "FAULT": fault, "GTEST_FAIL_FAST": "1"}
    with tempfile.TemporaryFile("w+", errors="replace") as output:
        test = subprocess.Popen(
            command,
            cwd=BUILD,
            env=environment,
            stdout=output,
            stderr=output,
            start_new_session=True,
            preexec_fn=limited,
        )
        try:
            code = test.wait(limit)
        except subprocess.TimeoutExpired:
            code = None
        with contextlib.suppress(ProcessLookupError):
            os.killpg(test.pid, signal.SIGKILL)  # with what it has started
        test.wait()
        output.seek(0)
        return output.read(), code


class Trial:
    """Asks the tests about faults, each for as long as it may need."""

    def __init__(self, tests: set[str]) -> None:
        listed = subprocess.run(
            ["ctest", "--test-dir", str(BUILD), "--show-only=json-v1"], capture_output=True, text=True, check=True
        )
        commands = {test["name"]: test["command"] for test in json.loads(listed.stdout)["tests"] if "command" in test}
        self.commands = {test: commands[test] for test in tests}
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            self.limits = dict(zip(sorted(tests), pool.map(self.limit_of, sorted(tests))))

    def limit_of(self, test: str) -> float:
        begun = time.monotonic()
        if failed := self.failure_of(test, "", 300):
            sys.exit(f"without a fault fails {failed}")
        return 10 + 3 * (time.monotonic() - begun)

    def failure_of(self, test: str, fault: str, limit: float) -> str | None:
        """What of the test fails with the fault on, in words."""
        output, code = run(self.commands[test], fault, limit)
        if code == 0:
            return None
        case = re.findall(r"\[  FAILED  \] (\w\S*\.\w+)", output) or re.findall(r"\[ RUN      \] (\S+)", output)
        return f"{test}{': ' + case[-1] if case else ''}{' does not end' if code is None else ''}"

    def failure(self, fault: Fault) -> str | None:
        for test in sorted(fault.tests, key=lambda test: test != fault.caught_by):
            if failed := self.failure_of(test, fault.name, self.limits[test]):
                return failed
        return None


def record(books: list[pathlib.Path], found: dict[str, str]) -> None:
    for book in books:
        lines = book.read_text().splitlines()
        for i, line in enumerate(lines):
            if (named := NAME.fullmatch(line)) and named[1] in found:
                lines[i] = f"{named[1]} {found[named[1]]}"
        book.write_text("\n".join(lines) + "\n")


def chosen(faults: list[Fault], arguments: argparse.Namespace) -> list[Fault]:
    if arguments.names:
        return [fault for fault in faults if fault.name in arguments.names]
    if arguments.sample is None:
        return faults
    caught = [
        dataclasses.replace(fault, tests=[fault.caught_by]) for fault in faults if fault.caught_by not in ("", MISSED)
    ]
    return random.Random(arguments.seed).sample(caught, min(arguments.sample, len(caught)))


def main() -> int:
    parser = argparse.ArgumentParser(usage="scripts/faults [--sample N [--seed SEED]] [--record] [NAME...]")
    parser.add_argument("--sample", type=int, metavar="N")
    head = subprocess.run(["git", "rev-parse", "HEAD"], cwd=ROOT, capture_output=True, text=True, check=True).stdout
    parser.add_argument("--seed", default=head.strip(), help="any text; each commit has a sample of its own")
    parser.add_argument("--record", action="store_true")
    parser.add_argument("names", nargs="*")
    arguments = parser.parse_args()
    books = sorted((ROOT / "faults").glob("*.faults"))
    faults = [fault for book in books for fault in read(book)]
    turned_on = chosen(faults, arguments)
    tests = {test for fault in turned_on for test in fault.tests}
    write_sources(faults)
    build(tests)
    trial = Trial(tests)
    found: dict[str, str] = {}
    lost = 0
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for fault, failed in zip(turned_on, pool.map(trial.failure, turned_on)):
            found[fault.name] = failed.partition(":")[0].split()[0] if failed else MISSED
            slipped = failed is None and fault.caught_by not in ("", MISSED)
            lost += slipped
            print(
                f"{fault.name} {fault.source}: {failed or MISSED}{', which was caught' if slipped else ''}", flush=True
            )
    if arguments.record:
        record(books, found)
    missed = sum(test == MISSED for test in found.values())
    print(f"{len(found) - missed} of {len(found)} faults are caught; seed {arguments.seed}")
    return 1 if lost else 0


if __name__ == "__main__":
    sys.exit(main())
