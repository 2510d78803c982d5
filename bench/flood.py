"""Floods a server of the benchmarks with what costs its client little, and stops it meanwhile.

python3 bench/flood.py [--rate N] [--seconds N] [--connections N] [--server grpc|listener] [KIND...]

Each kind of flood goes on at the rate, over several connections, while the server is stopped. One row a flood: what
was sent in a second, the longest dequeue() (its poll is to end after 200 ms), the time from stop()
to the end of run(), and the server's memory before the stop. A kind that ends in "-deaf" never reads an answer.
Needs the release build of bench's EchoServer.
"""

import argparse
import contextlib
import multiprocessing
import socket
import struct
import time
from typing import Any
from collections.abc import Callable, Iterator

from driver import Server
from h2frames import END_HEADERS, END_STREAM, GREETING, HEADERS, PING, RST_STREAM, SETTINGS, frame, headers

Batch = Callable[["Connection", int], bytes]

BATCHES = 100  # a second
UNKNOWN, SAY, HOLD = headers("/no.such/Method"), headers("/bench.Bench/Say"), headers("/bench.Bench/Hold")
CANCEL = (8).to_bytes(4, "big")


class Connection:
    """A connection that is made anew whenever the server has closed it."""

    def __init__(self, port: int, deaf: bool) -> None:
        self.port, self.deaf = port, deaf
        self.socket: socket.socket | None = None
        self.stream = -1

    def streams(self, count: int) -> Iterator[int]:
        for _ in range(count):
            self.stream += 2
            yield self.stream

    def open(self) -> socket.socket:
        if not self.socket:
            self.socket = socket.create_connection(("127.0.0.1", self.port))
            self.socket.setblocking(False)
            self.stream = -1
            self.socket.send(GREETING)
        return self.socket

    def close(self) -> None:
        if self.socket:
            self.socket.close()
        self.socket = None

    def send(self, batch: Batch, count: int) -> int:
        """Answers how many were sent: none while the server takes no more."""
        try:
            connection = self.open()
            data = batch(self, count)
            sent = connection.send(data)
            while sent < len(data):
                time.sleep(0.001)
                with contextlib.suppress(BlockingIOError):
                    sent += connection.send(data[sent:])
                if not self.deaf:
                    self.read(connection)
            if not self.deaf:
                self.read(connection)
            return count
        except BlockingIOError:
            return 0
        except OSError:
            self.close()
            return 0

    def read(self, connection: socket.socket) -> None:
        with contextlib.suppress(BlockingIOError):
            while connection.recv(1 << 16):
                pass
            self.close()


def unknown(to: Connection, count: int) -> bytes:
    return b"".join(frame(HEADERS, END_HEADERS | END_STREAM, stream, UNKNOWN) for stream in to.streams(count))


def cancelled(to: Connection, count: int) -> bytes:
    """Calls that are cancelled with the same packet."""
    return b"".join(
        frame(HEADERS, END_HEADERS, stream, SAY) + frame(RST_STREAM, 0, stream, CANCEL) for stream in to.streams(count)
    )


def cancelled_late(to: Connection, count: int) -> bytes:
    """Calls that are cancelled with the next packet, when they are in progress."""
    late = to.stream - 2 * count
    cancels = b"".join(frame(RST_STREAM, 0, stream, CANCEL) for stream in range(late + 2, to.stream + 2, 2) if late > 0)
    return cancels + b"".join(frame(HEADERS, END_HEADERS, stream, HOLD) for stream in to.streams(count))


def pings(_: Connection, count: int) -> bytes:
    return frame(PING, 0, 0, b"are you?") * count


def settings(_: Connection, count: int) -> bytes:
    return frame(SETTINGS, 0, 0) * count


def connect(to: Connection, count: int) -> int:
    """New connections that greet and go."""
    return sum(_connect(to, b"", False) for _ in range(count))


def reset(to: Connection, count: int) -> int:
    """New connections that are reset with a call in progress."""
    return sum(_connect(to, frame(HEADERS, END_HEADERS, 1, HOLD), True) for _ in range(count))


def _connect(to: Connection, more: bytes, resets: bool) -> int:
    try:
        with socket.create_connection(("127.0.0.1", to.port), timeout=1) as made:
            if resets:
                made.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            made.sendall(GREETING + more)
        return 1
    except OSError:
        return 0


FRAMES: dict[str, Batch] = {
    "unknown": unknown,
    "cancelled": cancelled,
    "cancelled-late": cancelled_late,
    "pings": pings,
    "settings": settings,
}
CONNECTIONS: dict[str, Callable[[Connection, int], int]] = {"connect": connect, "reset": reset}
KINDS = [*FRAMES, *(f"{name}-deaf" for name in FRAMES), *CONNECTIONS]


def flood(port: int, kind: str, connections: int, rate: int, sent: Any) -> None:
    """Until the process is ended."""
    name = kind.removesuffix("-deaf")
    peers = [Connection(port, kind.endswith("-deaf")) for _ in range(connections)]
    count = max(1, rate // BATCHES // connections)
    pause = count * connections / rate
    due = time.monotonic()
    while True:
        for peer in peers:
            done = peer.send(FRAMES[name], count) if name in FRAMES else CONNECTIONS[name](peer, count)
            with sent.get_lock():
                sent.value += done
        due = max(due + pause, time.monotonic() - 1)
        time.sleep(max(0, due - time.monotonic()))


def measure(kind: str, options: argparse.Namespace) -> str:
    arguments = ["--time-polls", *(["--listener"] if options.server == "listener" else [])]
    if options.keepalive:
        arguments.append("--keepalive")
    with Server("frame", *arguments) as server:
        sent: Any = multiprocessing.Value("q", 0)
        each = options.connections // options.processes
        flooders = [
            multiprocessing.Process(
                target=flood, args=(server.port, kind, each, options.rate // options.processes, sent), daemon=True
            )
            for _ in range(options.processes)
        ]
        for flooder in flooders:
            flooder.start()
        time.sleep(options.seconds)
        rate = sent.value / options.seconds
        report = server.report()
        took = server.stop()
        for flooder in flooders:
            flooder.kill()
            flooder.join()
    poll, memory = report["longest_poll_ms"], report["resident_bytes"] / 2**20
    return f"| {kind} | {rate:,.0f} | {poll:.0f} ms | {took:.0f} ms | {memory:.0f} MiB |"


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rate", type=int, default=10000)
    parser.add_argument("--seconds", type=float, default=5)
    parser.add_argument("--connections", type=int, default=8)
    parser.add_argument("--processes", type=int, default=2)
    parser.add_argument("--server", choices=("grpc", "listener"), default="listener", help="who listens")
    parser.add_argument("--keepalive", action="store_true", help="with installArguments()")
    parser.add_argument("kinds", metavar="KIND", nargs="*", help=", ".join(KINDS))
    options = parser.parse_args()
    print(f"{options.server} listens, {options.connections} connections, {options.rate:,} a second wanted\n")
    print("| flood | sent a second | longest poll | stop | memory |\n|---|---|---|---|---|")
    for kind in options.kinds or KINDS:
        print(measure(kind, options), flush=True)


if __name__ == "__main__":
    main()
