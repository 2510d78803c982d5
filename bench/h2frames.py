"""The frames of soak/http2.py, and a client that is quick and sees every answer."""

import pathlib
import socket
import struct
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "soak"))

from http2 import (  # noqa: E402
    ACK,
    CONTINUATION,
    DATA,
    END_HEADERS,
    END_STREAM,
    GOAWAY,
    GREETING,
    HEADERS,
    PING,
    RST_STREAM,
    SETTINGS,
    WINDOW_UPDATE,
    frame,
    headers,
)

__all__ = ["ACK", "CONTINUATION", "DATA", "END_HEADERS", "END_STREAM", "ENDLESS", "GOAWAY", "GREETING", "HEADERS"]
__all__ += ["PING", "RST_STREAM", "SETTINGS", "WINDOW_UPDATE", "Caller", "frame", "headers"]

ENDLESS = frame(WINDOW_UPDATE, 0, 0, struct.pack(">I", 2**31 - 1 - 65535))  # room for all that will be sent


class Caller:
    """A client that makes one call after another, over a connection from an address of this host's loopback."""

    def __init__(self, port: int, source: str = "127.0.0.1", timeout: float = 60) -> None:
        self.socket = socket.create_connection(("127.0.0.1", port), timeout, (source, 0))
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.socket.sendall(GREETING + ENDLESS)
        self.stream = -1
        self.read = b""

    def call(self, block: bytes, body: bytes) -> float:
        """The seconds that a call took; one without a message in its answer raises ConnectionError."""
        self.stream += 2
        started = time.perf_counter()
        self.socket.sendall(
            frame(HEADERS, END_HEADERS, self.stream, block) + frame(DATA, END_STREAM, self.stream, body)
        )
        answered = False
        while True:
            kind, flags, stream, payload = self._frame()
            if kind == PING and not flags & ACK:
                self.socket.sendall(frame(PING, ACK, 0, payload))
            elif kind == SETTINGS and not flags & ACK:
                self.socket.sendall(frame(SETTINGS, ACK, 0))
            elif kind == GOAWAY or (kind == RST_STREAM and stream == self.stream):
                raise ConnectionError(f"frame {kind}: {payload!r}")
            elif stream == self.stream:
                answered = answered or kind == DATA
                if kind == HEADERS and flags & END_STREAM:
                    break
        if not answered:
            raise ConnectionError("the call has failed")
        return time.perf_counter() - started

    def close(self) -> None:
        self.socket.close()

    def _frame(self) -> tuple[int, int, int, bytes]:
        header = self._bytes(9)
        length = int.from_bytes(header[:3], "big")
        return header[3], header[4], int.from_bytes(header[5:], "big"), self._bytes(length)

    def _bytes(self, count: int) -> bytes:
        while len(self.read) < count:
            more = self.socket.recv(1 << 16)
            if not more:
                raise ConnectionError("closed")
            self.read += more
        taken, self.read = self.read[:count], self.read[count:]
        return taken
