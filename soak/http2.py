"""A client that speaks just enough of HTTP/2 for what no gRPC client does: stop halfway, reset, say nonsense."""

import contextlib
import socket
from collections.abc import Iterator
from typing import NamedTuple

PREFACE = b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"
DATA, HEADERS, RST_STREAM, SETTINGS, PING, GOAWAY, WINDOW_UPDATE, CONTINUATION = 0, 1, 3, 4, 6, 7, 8, 9
END_STREAM = ACK = 1
END_HEADERS = 4


class Frame(NamedTuple):
    kind: int
    flags: int
    stream: int
    payload: bytes


def frame(kind: int, flags: int = 0, stream: int = 0, payload: bytes = b"") -> bytes:
    return len(payload).to_bytes(3, "big") + bytes([kind, flags]) + stream.to_bytes(4, "big") + payload


GREETING = PREFACE + frame(SETTINGS)


def message(payload: bytes) -> bytes:
    """As gRPC frames it."""
    return b"\0" + len(payload).to_bytes(4, "big") + payload


def headers(path: str, **metadata: str) -> bytes:
    """The header block of a call, without compression, and so the same each time; names are given with _ for -."""
    fields = {":method": "POST", ":scheme": "http", ":path": path, ":authority": "agent"}
    fields |= {"te": "trailers", "content-type": "application/grpc"}
    fields |= {name.replace("_", "-"): value for name, value in metadata.items()}
    return b"".join(
        b"\0" + bytes([len(name)]) + name.encode() + bytes([len(value)]) + value.encode()
        for name, value in fields.items()
    )


def call(path: str, stream: int, request: bytes | None = None, **metadata: str) -> bytes:
    """The frames of a call; without a request, the client has still to send one."""
    frames = frame(HEADERS, END_HEADERS, stream, headers(path, **metadata))
    if request is not None:
        frames += frame(DATA, END_STREAM, stream, message(request))
    return frames


class Connection:
    """A connection to a port of loopback, which begins with the given bytes. Ends with the with statement."""

    def __init__(self, port: int, sent: bytes = b"") -> None:
        self.socket = socket.create_connection(("127.0.0.1", port))
        self.file = self.socket.makefile("rb")
        self.send(sent)

    def send(self, sent: bytes) -> None:
        with contextlib.suppress(ConnectionError):  # the peer may hang up first, and should where it is nonsense
            self.socket.sendall(sent)

    def frames(self) -> Iterator[Frame]:
        """What the peer sends until it hangs up."""
        with contextlib.suppress(ConnectionResetError):
            while head := self.file.read(9):
                length, stream = int.from_bytes(head[:3], "big"), int.from_bytes(head[5:9], "big")
                yield Frame(head[3], head[4], stream, self.file.read(length))

    def close(self) -> None:
        self.file.close()
        self.socket.close()

    def __enter__(self) -> "Connection":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()
