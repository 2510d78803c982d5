"""Attacks the routing agent as somebody who can connect, and tells what it costs whom.

python3 bench/attacks.py [--short] [--agent PROGRAM] [ATTACK...]

One row an attack, each on an agent of its own: the bytes that the attacker has sent, the agent's processor time, its
memory and threads at the peak, the median and the worst of a well-behaved client from another address that calls every
10 ms meanwhile, how long the agent took to stop after it, and the answers to that client beside the records of them.
Fails when the agent has died, a call of that client has failed, a record is missing, or what is bounded
(installArguments) has grown beyond its bound. --short is for changes: the same attacks, smaller.
"""

import argparse
import contextlib
import gzip
import json
import os
import pathlib
import re
import select
import signal
import socket
import statistics
import struct
import subprocess
import tempfile
import threading
import time
from collections.abc import Callable
from typing import IO, cast

from h2frames import (
    CONTINUATION,
    DATA,
    END_HEADERS,
    END_STREAM,
    ENDLESS,
    GREETING,
    HEADERS,
    PING,
    RST_STREAM,
    SETTINGS,
    WINDOW_UPDATE,
    Caller,
    frame,
    headers,
)

AGENT = "build/release/agents/routing/routing_agent"
READ = headers("/routing_agent.State/Read")
ASK_REFLECTION = headers("/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo")
EMPTY = b"\0" * 5  # a message without a field
FIRST_WINDOW = 65535
CANCEL = (8).to_bytes(4, "big")
MIB = 1 << 20


class Attacker:
    """A connection that sends what it likes, drops what it reads, and counts."""

    sent = 0  # by all of them

    def __init__(self, port: int, greeting: bytes = GREETING + ENDLESS, source: str = "127.0.0.1") -> None:
        self.socket = socket.create_connection(("127.0.0.1", port), 30, (source, 0))
        self.socket.setblocking(False)
        self.windows = {0: FIRST_WINDOW}
        self.window = FIRST_WINDOW  # of a stream at first
        self.unread = b""
        self.ended = 0  # streams, by the agent
        self.open = self.send(greeting)

    def send(self, data: bytes) -> bool:
        """False once the agent has closed the connection, or has not taken anything for 30 s."""
        view = memoryview(data)
        try:
            while view:
                readable, writable, _ = select.select([self.socket], [self.socket], [], 30)
                if not readable and not writable:
                    return False
                if readable:
                    self.read()
                if writable:
                    count = self.socket.send(view)
                    Attacker.sent += count
                    view = view[count:]
        except OSError:
            return False
        return True

    def read(self) -> None:
        """Notes what the agent lets it send."""
        more = self.socket.recv(1 << 16)
        if not more:
            raise ConnectionError("closed")
        self.unread += more
        while len(self.unread) >= 9:
            length, kind, flags = int.from_bytes(self.unread[:3], "big"), self.unread[3], self.unread[4]
            stream, payload = int.from_bytes(self.unread[5:9], "big"), self.unread[9 : 9 + length]
            if len(payload) < length:
                break
            self.unread = self.unread[9 + length :]
            if kind == WINDOW_UPDATE:
                self.windows[stream] = self.windows.get(stream, self.window) + int.from_bytes(payload, "big")
            elif kind == RST_STREAM or (kind == HEADERS and flags & END_STREAM):
                self.ended += 1
            elif kind == SETTINGS and not flags & 1:
                self.settings(payload)

    def settings(self, payload: bytes) -> None:
        for name, value in struct.iter_unpack(">HI", payload):
            if name == 4:
                for stream in self.windows:
                    self.windows[stream] += value - self.window if stream else 0
                self.window = value

    def wait(self, seconds: float) -> None:
        """Reads for a while."""
        end = time.monotonic() + seconds
        try:
            while (left := end - time.monotonic()) > 0:
                if select.select([self.socket], [], [], left)[0]:
                    self.read()
        except OSError:
            self.open = False

    def upload(self, stream: int, size: int) -> int:
        """Sends as much of a message as its stream and the connection may; how much."""
        data = bytes(min(size, 16384, self.windows[0], self.windows.get(stream, self.window)))
        if not data or not self.send(frame(DATA, 0, stream, data)):
            return 0
        self.windows[0] -= len(data)
        self.windows[stream] = self.windows.get(stream, self.window) - len(data)
        return len(data)


Attack = Callable[["Agent", bool], list[Attacker]]  # short or not. What it returns stays open for the stop.


def streams(count: int) -> range:
    return range(1, 2 * count, 2)


def inflating(agent: "Agent", short: bool) -> list[Attacker]:
    size = (100 if short else 1000) * MIB
    message = gzip.compress(bytes(size))
    attackers = [Attacker(agent.port) for _ in range(8)]
    call = frame(HEADERS, END_HEADERS, 1, headers("/routing_agent.State/Read", grpc_encoding="gzip"))
    body = b"\1" + len(message).to_bytes(4, "big") + message
    for attacker in attackers:
        attacker.send(call)
        left = len(body)
        while left > 0:
            part = body[len(body) - left :][: min(16384, attacker.windows[0], attacker.windows.get(1, attacker.window))]
            if not part:
                attacker.wait(0.05)
                if not attacker.open:
                    break
                continue
            if not attacker.send(frame(DATA, 0 if len(part) < left else END_STREAM, 1, part)):
                break
            attacker.windows[0] -= len(part)
            attacker.windows[1] = attacker.windows.get(1, attacker.window) - len(part)
            left -= len(part)
    return attackers


def reflection(agent: "Agent", short: bool) -> list[Attacker]:
    attacker = Attacker(agent.port)
    for stream in streams(1000 if short else 16000):
        attacker.send(frame(HEADERS, END_HEADERS, stream, ASK_REFLECTION) + frame(DATA, 0, stream, EMPTY))
    attacker.wait(2)
    return [attacker]


def partial(agent: "Agent", short: bool) -> list[Attacker]:
    """Messages of 1 MiB that never end."""
    count, attacker = 200 if short else 4000, Attacker(agent.port)
    left = {}
    for stream in streams(count):
        attacker.send(frame(HEADERS, END_HEADERS, stream, headers("/routing_agent.Routing/SetRouteParts")))
        attacker.send(frame(DATA, 0, stream, b"\0" + MIB.to_bytes(4, "big")))
        attacker.windows[0] -= 5
        attacker.windows[stream] = attacker.windows.get(stream, attacker.window) - 5
        left[stream] = MIB - 1
    end = time.monotonic() + (5 if short else 60)
    while left and time.monotonic() < end:
        for stream in list(left):
            left[stream] -= attacker.upload(stream, left[stream])
            if left[stream] <= 0:
                del left[stream]
        attacker.wait(0.001)
    return [attacker]


def resets(agent: "Agent", short: bool) -> list[Attacker]:
    attacker = Attacker(agent.port)
    for start in range(0, 10_000 if short else 100_000, 1000):
        pairs = (
            frame(HEADERS, END_HEADERS, 2 * stream + 1, READ) + frame(RST_STREAM, 0, 2 * stream + 1, CANCEL)
            for stream in range(start, start + 1000)
        )
        if not attacker.send(b"".join(pairs)):
            break
    return [attacker]


def late_resets(agent: "Agent", short: bool) -> list[Attacker]:
    """Calls that are whole, and reset with the next packet."""
    attacker = Attacker(agent.port)
    for start in range(0, 10_000 if short else 100_000, 1000):
        batch = range(2 * start + 1, 2 * start + 2001, 2)
        calls = (frame(HEADERS, END_HEADERS, one, READ) + frame(DATA, END_STREAM, one, EMPTY) for one in batch)
        cancels = (frame(RST_STREAM, 0, one, CANCEL) for one in batch)
        if not attacker.send(b"".join(calls)) or not attacker.send(b"".join(cancels)):
            break
    return [attacker]


def again(agent: "Agent", short: bool) -> list[Attacker]:
    """The same over a new connection whenever one is closed."""
    attacker, stream, end = Attacker(agent.port), 1, time.monotonic() + (3 if short else 20)
    while time.monotonic() < end:
        batch = range(stream, stream + 2000, 2)
        calls = (frame(HEADERS, END_HEADERS, one, READ) + frame(DATA, END_STREAM, one, EMPTY) for one in batch)
        cancels = (frame(RST_STREAM, 0, one, CANCEL) for one in batch)
        if attacker.send(b"".join(calls)) and attacker.send(b"".join(cancels)):
            stream += 2000
        else:
            attacker, stream = Attacker(agent.port), 1
    return [attacker]


def endless(agent: "Agent", short: bool) -> list[Attacker]:
    """A header whose text does not end, over as many frames as it takes."""
    attacker = Attacker(agent.port)
    attacker.send(frame(HEADERS, 0, 1, READ + b"\0\1x\x7f\xff\xff\xff\x7f"))
    for _ in range((2 if short else 18) * MIB // 16384):
        if not attacker.send(frame(CONTINUATION, 0, 1, b"y" * 16384)):
            break
    return [attacker]


def blocks(agent: "Agent", short: bool) -> list[Attacker]:
    """Names of a megabyte, each over several frames."""
    attacker = Attacker(agent.port)
    size = MIB - 16
    length = size - 127
    text = b"\0\x7f"
    while length > 0x7F:
        text += bytes([length & 0x7F | 0x80])
        length >>= 7
    text += bytes([length]) + b"n" * size + b"\1v"
    for stream in streams(4 if short else 64):
        attacker.send(frame(HEADERS, END_STREAM, stream, READ))
        parts = [text[at : at + 16384] for at in range(0, len(text), 16384)]
        for part in parts:
            attacker.send(frame(CONTINUATION, END_HEADERS if part is parts[-1] else 0, stream, part))
    attacker.wait(0.5)
    return [attacker]


def connections(agent: "Agent", short: bool) -> list[Attacker]:
    attackers = []
    for _ in range(1000 if short else 20_000):
        with contextlib.suppress(OSError):
            attackers.append(Attacker(agent.port))
        while len(attackers) > 400:
            attackers.pop(300).socket.close()
    return attackers


def unknown(agent: "Agent", short: bool) -> list[Attacker]:
    """Methods that nobody has, 4,000 of them outstanding."""
    attacker = Attacker(agent.port)
    call = headers("/no.such/Method")
    for sent, stream in enumerate(streams(10_000 if short else 100_000)):
        if not attacker.send(frame(HEADERS, END_HEADERS | END_STREAM, stream, call)):
            break
        while sent - attacker.ended >= 4000 and attacker.open:
            attacker.wait(0.01)
    return [attacker]


def deadlines(agent: "Agent", short: bool) -> list[Attacker]:
    attacker = Attacker(agent.port)
    blocks_of = [headers("/routing_agent.State/Read", grpc_timeout=time) for time in ("1n", "99999999H", "0n")]
    for stream in streams(5_000 if short else 50_000):
        call = blocks_of[stream // 2 % 3]
        if not attacker.send(frame(HEADERS, END_HEADERS, stream, call) + frame(DATA, END_STREAM, stream, EMPTY)):
            break
    attacker.wait(1)
    return [attacker]


def malformed_shapes() -> dict[str, bytes]:
    """What no client sends, each behind a greeting."""
    call = frame(HEADERS, END_HEADERS, 1, READ)
    shapes = {
        "a call on stream 0": frame(HEADERS, END_HEADERS, 0, READ),
        "a call on an even stream": frame(HEADERS, END_HEADERS, 2, READ),
        "a call on a stream that has been": frame(HEADERS, END_HEADERS, 5, READ) + frame(HEADERS, END_HEADERS, 3, READ),
        "headers twice": call + call,
        "headers in the middle of headers": frame(HEADERS, 0, 1, READ) + frame(HEADERS, END_HEADERS, 3, READ),
        "a message in the middle of headers": frame(HEADERS, 0, 1, READ) + frame(DATA, 0, 1, EMPTY),
        "a continuation of nothing": frame(CONTINUATION, END_HEADERS, 1, READ),
        "no headers": frame(HEADERS, END_HEADERS, 1, b""),
        "padding that is longer than its frame": frame(HEADERS, END_HEADERS | 8, 1, b"\xff" + READ),
        "padding of nothing": frame(DATA, 8, 1, b""),
        "a priority that is cut off": frame(HEADERS, END_HEADERS | 0x20, 1, b"\0\0"),
        "a call that depends on itself": frame(HEADERS, END_HEADERS | 0x20, 1, b"\0\0\0\1\x10" + READ),
        "a message on no stream": frame(DATA, 0, 0, EMPTY),
        "a message on a stream that is idle": frame(DATA, 0, 9, EMPTY),
        "a message after its end": call + frame(DATA, END_STREAM, 1, EMPTY) * 2,
        "more than the window": call + frame(DATA, 0, 1, bytes(16384)) * 8,
        "a message of 4 GiB": call + frame(DATA, 0, 1, b"\0\xff\xff\xff\xff"),
        "a message of no known kind": call + frame(DATA, END_STREAM, 1, b"\7\0\0\0\0"),
        "a message that is cut off": call + frame(DATA, END_STREAM, 1, b"\0\0\0\0\x20x"),
        "bytes that are no message": call + frame(DATA, END_STREAM, 1, b"\0\0\0\0\4\xff\xff\xff\xff"),
        "a window of 0 more": frame(WINDOW_UPDATE, 0, 0, bytes(4)),
        "a window of 0 more for a stream": call + frame(WINDOW_UPDATE, 0, 1, bytes(4)),
        "a window that overflows": frame(WINDOW_UPDATE, 0, 0, b"\x7f\xff\xff\xff") * 2,
        "settings that push": frame(SETTINGS, 0, 0, struct.pack(">HI", 2, 7)),
        "settings of a window that is too large": frame(SETTINGS, 0, 0, struct.pack(">HI", 4, 1 << 31)),
        "settings of frames that are too small": frame(SETTINGS, 0, 0, struct.pack(">HI", 5, 1)),
        "settings on a stream": frame(SETTINGS, 0, 1, b""),
        "settings that are agreed to with more": frame(SETTINGS, 1, 0, bytes(6)),
        "settings that nobody knows": frame(SETTINGS, 0, 0, struct.pack(">HI", 0xFEFE, 1)),
        "a reset of no stream": frame(RST_STREAM, 0, 0, CANCEL),
        "a reset of an idle stream": frame(RST_STREAM, 0, 77, CANCEL),
        "a ping on a stream": frame(PING, 0, 1, bytes(8)),
        "a promise": frame(5, END_HEADERS, 1, b"\0\0\0\2" + READ),
        "a goodbye that is cut off": frame(7, 0, 0, b"\0"),
        "a goodbye on a stream": frame(7, 0, 1, bytes(8)),
        "a kind that nobody knows": frame(0xEE, 0xFF, 1, b"what?"),
        "a frame of 16 MiB": b"\xff\xff\xff" + bytes([DATA, 0, 0, 0, 0, 1]) + bytes(1 << 20),
        "a stream beyond 31 bits": b"\0\0\5" + bytes([DATA, 0, 0xFF, 0xFF, 0xFF, 0xFF]) + EMPTY,
        "a table of 4 GiB": frame(HEADERS, END_HEADERS, 1, b"\x3f\xe1\xff\xff\xff\x0f" + READ),
        "an index that is not in the table": frame(HEADERS, END_HEADERS, 1, b"\xff\xff\x7f"),
        "an index that overflows": frame(HEADERS, END_HEADERS, 1, b"\xff" * 12),
        "index 0": frame(HEADERS, END_HEADERS, 1, b"\x80"),
        "Huffman's end in a text": frame(HEADERS, END_HEADERS, 1, b"\0\x84\xff\xff\xff\xff\1x"),
        "capital letters": frame(HEADERS, END_HEADERS, 1, READ + b"\0\1A\1b"),
        "control bytes": frame(HEADERS, END_HEADERS, 1, READ + b"\0\1a\3\0\r\n"),
        "a pseudo-header at the end": frame(HEADERS, END_HEADERS, 1, READ + b"\0\5:what\1x"),
        "no path": frame(HEADERS, END_HEADERS | END_STREAM, 1, b"\x83\x86"),
        "a path without a slash": frame(HEADERS, END_HEADERS | END_STREAM, 1, headers("what")),
        "a timeout that is none": frame(
            HEADERS, END_HEADERS, 1, headers("/routing_agent.State/Read", grpc_timeout="x")
        ),
        "an encoding that nobody knows": frame(
            HEADERS, END_HEADERS, 1, headers("/routing_agent.State/Read", grpc_encoding="what")
        ),
        "a second greeting": GREETING,
    }
    sizes = {SETTINGS: 5, PING: 7, RST_STREAM: 3, WINDOW_UPDATE: 3, 2: 4}
    return shapes | {f"{size} bytes of a frame {kind}": frame(kind, 0, 0, bytes(size)) for kind, size in sizes.items()}


def malformed(agent: "Agent", short: bool) -> list[Attacker]:
    """Each shape on a connection of its own, whole, and cut off in the middle."""
    attackers = []
    for shape in malformed_shapes().values():
        for part in [shape, shape[: len(shape) // 2]] if short else [shape[:size] for size in cuts(len(shape))]:
            attackers.append(Attacker(agent.port))
            attackers[-1].send(part)
            attackers[-1].wait(0.002)
            if len(attackers) > 100:
                attackers.pop(0).socket.close()
    for start in (b"GET / HTTP/1.1\r\n\r\n", b"\x16\3\1\2\0\1\0\1\xfc\3\3", bytes(24), GREETING[:16] + b"XX"):
        attackers.append(Attacker(agent.port, start))
        attackers[-1].wait(0.01)
    return attackers


def cuts(size: int) -> list[int]:
    return sorted({*range(1, min(size, 20)), size // 2, size - 1, size})


def handshakes(agent: "Agent", short: bool) -> list[Attacker]:
    """Greetings that come a byte at a time, and ones that don't: each is given up in time."""
    attackers = [Attacker(agent.port, b"") for _ in range(50 if short else 200)]
    given_up = agent.keepalive + 2
    end = time.monotonic() + given_up
    for at in range(1000):
        for attacker in attackers[::2]:
            attacker.open = attacker.open and attacker.send(GREETING[at : at + 1])
        time.sleep(0.5)
        for attacker in attackers:
            attacker.wait(0)
        if time.monotonic() > end:
            break
    for attacker in attackers:
        attacker.wait(0.001)
    still = sum(attacker.open for attacker in attackers)
    if still:
        raise RuntimeError(f"{still} connections have not begun to speak in {given_up:.0f} s, and are open")
    return attackers


def descriptors(agent: "Agent", short: bool) -> list[Attacker]:
    """Connections from several addresses, far beyond the descriptors that the agent may have."""
    attackers = []
    for at in range(1000 if short else 20_000):
        with contextlib.suppress(OSError):
            attackers.append(Attacker(agent.port, source=f"127.0.1.{at % 200 + 1}"))
        if len(attackers) > 900:
            attackers.pop(0).socket.close()
    return attackers


def stopped(agent: "Agent", short: bool) -> list[Attacker]:
    """The agent stands still (SIGSTOP) while calls come, and goes on."""
    attackers = [Attacker(agent.port) for _ in range(10)]
    for _ in range(1 if short else 3):
        agent.process.send_signal(signal.SIGSTOP)
        for attacker in attackers:
            attacker.send(b"".join(frame(HEADERS, END_HEADERS, stream, READ) for stream in streams(500)))
        time.sleep(2 if short else 15)
        agent.process.send_signal(signal.SIGCONT)
        time.sleep(0.5)
        attackers = [Attacker(agent.port) for _ in range(10)]
    return attackers


def clock(agent: "Agent", short: bool) -> list[Attacker]:
    """The agent's wall clock jumps by years, there and back, while calls with deadlines come."""
    attacker = Attacker(agent.port)
    call = headers("/routing_agent.State/Read", grpc_timeout="5S")
    for at, jump in enumerate(["+10y", "-10y", "+0", "+1d", "-1d", "+0"] * (1 if short else 5)):
        agent.clock.write_text(jump)
        for stream in range(200 * at + 1, 200 * at + 201, 2):
            attacker.send(frame(HEADERS, END_HEADERS, stream, call) + frame(DATA, END_STREAM, stream, EMPTY))
        attacker.wait(0.5)
    if not attacker.open or attacker.ended < 100:
        raise RuntimeError(f"{attacker.ended} calls have ended")
    return [attacker]


def frames(kind: int, payload: bytes) -> Attack:
    def attack(agent: "Agent", short: bool) -> list[Attacker]:
        attacker = Attacker(agent.port)
        for _ in range(20 if short else 500):
            if not attacker.send(frame(kind, 0, 0 if kind != DATA else 1, payload) * 1000):
                break
        return [attacker]

    return attack


ATTACKS: dict[str, Attack] = {
    "inflating": inflating,
    "reflection": reflection,
    "partial": partial,
    "resets": resets,
    "late-resets": late_resets,
    "again": again,
    "endless": endless,
    "blocks": blocks,
    "connections": connections,
    "unknown": unknown,
    "deadlines": deadlines,
    "settings": frames(SETTINGS, b""),
    "pings": frames(PING, b"are you?"),
    "malformed": malformed,
    "handshakes": handshakes,
    "descriptors": descriptors,
    "stopped": stopped,
    "clock": clock,
}

# What installArguments() and the listener bound, whatever the attack: MiB and threads.
BOUNDED = {
    "inflating": (150, 64),
    "reflection": (400, 64),
    "connections": (150, 64),
    "descriptors": (150, 64),
    "late-resets": (900, 64),
    "endless": (80, 64),
}
# What an attack needs the agent to be started with: a program before it, and options.
UNDER = {"descriptors": ["prlimit", "--nofile=300"]}
OPTIONS = {"handshakes": ["--keepalive-ms", "3000"]}


class Agent:
    def __init__(self, program: str, folder: str, attack: str) -> None:
        self.records, self.clock = pathlib.Path(folder, "records"), pathlib.Path(folder, "clock")
        options = OPTIONS.get(attack, [])
        self.keepalive = int(options[1]) / 1000 if options else 10
        command = [*UNDER.get(attack, []), program, "--listen", "127.0.0.1:0", "--accounting", f"json:{self.records}"]
        environment = dict(os.environ)
        if attack == "clock":
            self.clock.write_text("+0")
            library = next(pathlib.Path("/usr/lib").glob("*/faketime/libfaketimeMT.so.1"))
            environment |= {"LD_PRELOAD": str(library), "FAKETIME_TIMESTAMP_FILE": str(self.clock)}
            environment |= {"FAKETIME_DONT_FAKE_MONOTONIC": "1", "FAKETIME_NO_CACHE": "1"}
        self.process = subprocess.Popen(
            [*command, *options], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, env=environment
        )
        said = re.search(r"port (\d+)", cast(IO[str], self.process.stdout).readline())
        if not said:
            raise RuntimeError("the agent has not started")
        self.port = int(said[1])
        self.threads = 0

    def status(self, name: str) -> int:
        found = re.search(rf"{name}:\s+(\d+)", pathlib.Path(f"/proc/{self.process.pid}/status").read_text())
        return int(found[1]) if found else 0

    def seconds(self) -> float:
        """Processor time so far."""
        fields = pathlib.Path(f"/proc/{self.process.pid}/stat").read_text().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def stop(self) -> float:
        started = time.monotonic()
        self.process.send_signal(signal.SIGTERM)
        self.process.wait(120)
        return time.monotonic() - started


class Quiet(threading.Thread):
    """The well-behaved client. While it waits, it looks how many threads the agent has."""

    def __init__(self, agent: Agent) -> None:
        super().__init__()
        self.agent, self.caller = agent, Caller(agent.port, "127.0.0.2")
        self.took: list[float] = []
        self.failure: Exception | None = None
        self.over = threading.Event()
        self.start()

    def run(self) -> None:
        try:
            while not self.over.wait(0.01):
                self.took.append(self.caller.call(READ, EMPTY))
                self.agent.threads = max(self.agent.threads, self.agent.status("Threads"))
        except OSError as error:
            self.failure = error


def settled(agent: Agent) -> None:
    """Waits until the agent has worked off what it was sent."""
    for _ in range(120):
        before = agent.seconds()
        time.sleep(0.5)
        if agent.seconds() - before < 0.1:
            return


def records_of(path: pathlib.Path, address: str) -> int:
    with open(path) as lines:
        return sum(1 for line in lines if json.loads(line)["peer"].startswith(f"ipv4:{address}:"))


def row(name: str, options: argparse.Namespace) -> tuple[str, list[str]]:
    Attacker.sent = 0
    wrong, attackers = [], []
    with tempfile.TemporaryDirectory() as folder:
        agent = Agent(options.agent, folder, name)
        try:
            quiet = Quiet(agent)
            time.sleep(0.2)
            before = agent.seconds()
            try:
                attackers = ATTACKS[name](agent, options.short)
            except RuntimeError as error:
                wrong.append(f"{name}: {error}")
            settled(agent)
            quiet.over.set()
            quiet.join()
            cpu, memory = agent.seconds() - before, agent.status("VmHWM") / 1024
            stop = agent.stop()
            del attackers
        finally:
            agent.process.kill()
            agent.process.wait()
        answered, recorded = len(quiet.took), records_of(agent.records, "127.0.0.2")
    if quiet.failure:
        wrong.append(f"{name}: the well-behaved client: {quiet.failure}")
    if agent.process.returncode != 0:
        wrong.append(f"{name}: the agent ended with {agent.process.returncode}")
    if recorded != answered:
        wrong.append(f"{name}: {answered} answers, {recorded} records")
    most_memory, most_threads = BOUNDED.get(name, (memory, agent.threads))
    if memory > most_memory or agent.threads > most_threads:
        wrong.append(f"{name}: {memory:.0f} MiB, {agent.threads} threads")
    median, worst = statistics.median(quiet.took) * 1000, max(quiet.took) * 1000
    figures = f"{Attacker.sent / 1e6:.1f} MB | {cpu:.1f} s | {memory:.0f} MiB | {agent.threads}"
    return f"| {name} | {figures} | {median:.1f} ms | {worst:.0f} ms | {stop:.1f} s | {answered}/{recorded} |", wrong


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--short", action="store_true")
    parser.add_argument("--agent", default=AGENT)
    parser.add_argument("attacks", metavar="ATTACK", nargs="*", help=", ".join(ATTACKS))
    options = parser.parse_args()
    print("| attack | sent | processor | memory | threads | median | worst | stop | answers/records |")
    print("|---|--:|--:|--:|--:|--:|--:|--:|--:|", flush=True)
    wrong = []
    for name in options.attacks or ATTACKS:
        line, found = row(name, options)
        wrong += found
        print(line, flush=True)
    for line in wrong:
        print(line)
    return 1 if wrong else 0


if __name__ == "__main__":
    raise SystemExit(main())
