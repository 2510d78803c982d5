"""HTTP/2 by hand: frames that no library would send, and a client that is quick and sees every answer."""

import socket
import struct
import time

DATA, HEADERS, RST_STREAM, SETTINGS, PING, GOAWAY, WINDOW_UPDATE, CONTINUATION = 0, 1, 3, 4, 6, 7, 8, 9
END_STREAM, ACK, END_HEADERS = 1, 1, 4


def frame(kind: int, flags: int, stream: int, payload: bytes = b"") -> bytes:
    return len(payload).to_bytes(3, "big") + bytes([kind, flags]) + stream.to_bytes(4, "big") + payload


def field(name: bytes, value: bytes) -> bytes:
    """A header without compression, of names and values below 127 bytes."""
    return b"\0" + bytes([len(name)]) + name + bytes([len(value)]) + value


def headers(method: str, **more: str) -> bytes:
    """A header block without compression, and so the same for every call."""
    fields = {
        ":method": "POST",
        ":scheme": "http",
        ":path": method,
        ":authority": "bench",
        "te": "trailers",
        "content-type": "application/grpc",
        **{name.replace("_", "-"): value for name, value in more.items()},
    }
    return b"".join(field(name.encode(), value.encode()) for name, value in fields.items())


GREETING = b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + frame(SETTINGS, 0, 0)
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
