"""How long a quiet client waits beside one that has many calls in flight.

python3 bench/fairness.py [--seconds N] [--server MODE] [--deaf] [SERVER-OPTION...]

One row for what the other client does: the quiet client, from an address of its own, makes a call every 2 ms, and its
median, 99th percentile and worst are told, with the calls a second of the other client. First without and then with
turns (GrpcServer::clientsTakeTurnsIs), in a server process of its own each. Needs the release build of bench's
EchoServer.
"""

import argparse
import re
import statistics
import subprocess
import time

from driver import SCRATCH, Server, item
from h2frames import Caller, headers

SAY = headers("/bench.Bench/Say")
BODY = item(32)

# What the other client does: connections, streams of each, and microseconds that a call takes.
SCENES = {
    "nothing": (0, 0, 0),
    "1 x 16 echo calls": (1, 16, 0),
    "1 x 4096 echo calls": (1, 4096, 0),
    "64 x 64 echo calls": (64, 64, 0),
    "1 x 256 calls of 200 us": (1, 256, 200),
    "16 x 16 calls of 200 us": (16, 16, 200),
}


def busy(port: int, connections: int, streams: int, seconds: int) -> "subprocess.Popen[str]":
    path = SCRATCH / "body"
    path.write_bytes(BODY)
    return subprocess.Popen(
        ["h2load", "-D", str(seconds), "-c", str(connections), "-m", str(streams), "-d", str(path)]
        + ["-H", "te: trailers", "-H", "content-type: application/grpc"]
        + [f"http://127.0.0.1:{port}/bench.Bench/Say"],
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
    )


def measure(scene: str, options: argparse.Namespace, *more: str) -> tuple[list[float], str]:
    connections, streams, work = SCENES[scene]
    with Server(options.server, "--keepalive", "--work", str(work), *more) as server:
        quiet = Caller(server.port, "127.0.0.2")
        quiet.call(SAY, BODY)
        other = busy(server.port, connections, streams, options.seconds + 2) if connections else None
        time.sleep(1)  # h2load has opened its connections
        took = []
        end = time.monotonic() + options.seconds
        while time.monotonic() < end:
            took.append(quiet.call(SAY, BODY) * 1000)
            time.sleep(0.002)
        said = other.communicate()[0] if other else ""
    if not other:
        return sorted(took), ""
    rate = re.search(r"finished in .*, ([\d.]+) req/s", said)
    if not rate:
        raise RuntimeError(f"h2load:\n{said}")
    return sorted(took), f"{float(rate[1]):,.0f}"


def row(scene: str, options: argparse.Namespace, name: str, *more: str) -> str:
    took, rate = measure(scene, options, *more)
    p99 = took[len(took) * 99 // 100]
    return f"| {scene} | {name} | {statistics.median(took):.2f} | {p99:.2f} | {took[-1]:.2f} | {rate} |"


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seconds", type=int, default=5)
    parser.add_argument("--server", default="kit", help="kit or coroutine")
    options, more = parser.parse_known_args()
    print("| the other client | served | median ms | p99 ms | worst ms | its calls a second |")
    print("|---|---|--:|--:|--:|--:|")
    for scene in SCENES:
        print(row(scene, options, "as they come", *more), flush=True)
        print(row(scene, options, "in turn", "--turns", *more), flush=True)


if __name__ == "__main__":
    main()
