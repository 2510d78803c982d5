"""Starts a server of the benchmarks, loads it with h2load, and reads what it has used."""

import json
import os
import pathlib
import re
import signal
import subprocess
import tempfile
import time
from collections.abc import Callable, Sequence
from typing import IO, Any, cast

Report = dict[str, Any]  # what a server says of itself

BUILD = pathlib.Path("build/release/bench")
SCRATCH = pathlib.Path(tempfile.mkdtemp(prefix="vorn-bench-"))

# Whether the load has a processor of its own, and the server the others.
apart = False


def on_its_processors(command: list[str | pathlib.Path], is_load: bool) -> list[str | pathlib.Path]:
    processors = sorted(os.sched_getaffinity(0))
    if not apart or len(processors) == 1:
        return command
    own = processors[-1:] if is_load else processors[:-1]
    return ["taskset", "--cpu-list", ",".join(map(str, own)), *command]


def varint(value: int) -> bytes:
    encoded = bytearray()
    while value > 0x7F:
        encoded.append(value & 0x7F | 0x80)
        value >>= 7
    return bytes(encoded) + bytes([value])


def framed(message: bytes) -> bytes:
    """A message as gRPC sends it: not compressed, with its length."""
    return b"\0" + len(message).to_bytes(4, "big") + message


def item(size: int) -> bytes:
    return framed(b"\x0a" + varint(size) + b"x" * size) if size else framed(b"")


def order(count: int, size: int) -> bytes:
    return framed(b"\x08" + varint(count) + b"\x10" + varint(size))


class Server:
    """One server process: Server("frame", "--ahead", "64"). Ends with the with statement."""

    def __init__(self, *arguments: str, under: Sequence[str] = ()) -> None:
        self.errors = tempfile.TemporaryFile("w+")  # a pipe that nobody reads would hold gRPC's log up
        self.process = subprocess.Popen(
            on_its_processors([*under, BUILD / "EchoServer", *arguments], is_load=False),
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=self.errors,
            text=True,
        )
        self.commands, self.answers = cast(IO[str], self.process.stdin), cast(IO[str], self.process.stdout)
        self.port = int(self.answer())

    def answer(self) -> str:
        line = self.answers.readline()
        if not line:
            status = self.process.wait()
            self.errors.seek(0)
            raise RuntimeError(f"EchoServer ended with {status}: {self.errors.read()}")
        return line

    def ask(self, command: str) -> Report:
        self.commands.write(command + "\n")
        self.commands.flush()
        report: Report = json.loads(self.answer())
        return report

    def report(self) -> Report:
        return self.ask("report")

    def wait_for(self, reached: Callable[[Report], bool]) -> Report:
        """Waits until reached(report), and answers that report."""
        deadline = time.monotonic() + 120
        while not reached(report := self.report()):
            if time.monotonic() > deadline:
                raise RuntimeError(f"not reached: {report}")
            time.sleep(0.02)
        return report

    def stop(self) -> float:
        """Milliseconds from stop() to the end of run()."""
        took: float = self.ask("stop")["stop_ms"]
        self.process.wait()
        return took

    def __enter__(self) -> "Server":
        return self

    def __exit__(self, *_: object) -> None:
        if self.process.poll() is None:
            self.process.kill()
        self.process.communicate()


def h2load(
    port: int,
    method: str,
    body: bytes,
    calls: int,
    connections: int = 4,
    streams: int = 16,
    log: pathlib.Path | None = None,
) -> subprocess.Popen[str]:
    path = SCRATCH / "body"
    path.write_bytes(body)
    command: list[str | pathlib.Path] = [
        "h2load",
        "-n",
        str(calls),
        "-c",
        str(connections),
        "-m",
        str(streams),
        "-d",
        path,
        "-H",
        "te: trailers",
        "-H",
        "content-type: application/grpc",
        *(["--log-file", str(log)] if log else []),
        f"http://127.0.0.1:{port}/bench.Bench/{method}",
    ]
    return subprocess.Popen(
        on_its_processors(command, is_load=True), stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True
    )


def load(
    port: int,
    method: str,
    body: bytes,
    calls: int,
    answer: int,
    connections: int = 4,
    streams: int = 16,
    log: pathlib.Path | None = None,
) -> float:
    """Runs the calls and answers calls per second. Every call must bring `answer` bytes back: a
    gRPC error is a success for h2load, but one without data."""
    output = h2load(port, method, body, calls, connections, streams, log).communicate()[0]
    done = re.search(r"(\d+) succeeded, 0 failed, 0 errored, 0 timeout", output)
    data = re.search(r"\((\d+)\) data", output)
    rate = re.search(r"finished in .*, ([\d.]+) req/s", output)
    if not (done and data and rate) or int(done[1]) != calls or int(data[1]) != calls * answer:
        raise RuntimeError(f"h2load {method}:\n{output}")
    return float(rate[1])


def percentiles(log: pathlib.Path, *percents: int) -> list[int]:
    """Of the latencies, in microseconds, that h2load has logged."""
    latencies = sorted(int(line.split()[2]) for line in log.read_text().splitlines())
    return [latencies[min(len(latencies) - 1, len(latencies) * percent // 100)] for percent in percents]


def stalled(client: subprocess.Popen[str]) -> None:
    """Stops a client in its tracks: its connections stay open and it reads no more."""
    client.send_signal(signal.SIGSTOP)


def instructions(arguments: Sequence[str], method: str, body: bytes, calls: int, answer: int) -> float:
    """Instructions per call of the whole process, counted by callgrind after a warm-up."""
    for old in SCRATCH.glob("callgrind.out*"):
        old.unlink()
    with Server(
        *arguments,
        under=["valgrind", "--tool=callgrind", "--instr-atstart=no", f"--callgrind-out-file={SCRATCH}/callgrind.out"],
    ) as server:
        load(server.port, method, body, max(200, calls // 10), answer)
        control(server, "--instr=on")
        load(server.port, method, body, calls, answer)
        control(server, "--dump")
    dump = (SCRATCH / "callgrind.out.1").read_text()
    total = re.search(r"^(?:totals|summary): (\d+)", dump, re.M)
    if not total:
        raise RuntimeError("callgrind has counted nothing")
    return int(total[1]) / calls


def control(server: Server, command: str) -> None:
    subprocess.run(
        ["callgrind_control", command, str(server.process.pid)],
        check=True,
        stdout=subprocess.DEVNULL,
        stderr=subprocess.DEVNULL,
    )
