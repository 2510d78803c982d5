"""Many routes at once: read from a file and sent in parts, as bytes that gRPC takes as they are. A million of them
are to take seconds, and no more memory than the parts, so the messages are put together here where a line has the
usual form; tests compare them with protobuf's."""

from __future__ import annotations

import functools
from collections.abc import Callable, Iterable, Iterator
from typing import TYPE_CHECKING, Any

if TYPE_CHECKING:
    import grpc

ROUTES_A_PART = 512
METHODS = "/routing_agent.Routing/"
HOST_BITS = [(1 << (32 - length)) - 1 for length in range(33)]


def varint(number: int) -> bytes:
    encoded = bytearray()
    while number > 127:
        encoded.append(number & 127 | 128)
        number >>= 7
    encoded.append(number)
    return bytes(encoded)


def field(key: bytes, content: bytes) -> bytes:
    return key + varint(len(content)) + content


def tag(digits: str) -> bytes:
    if not (digits.isascii() and digits.isdecimal()) or int(digits) >> 32:
        raise ValueError(digits)
    return varint(int(digits))


class Encoder:
    """Makes routes of a part of their words PREFIX GROUP [TAG]."""

    def __init__(self) -> None:
        import socket  # most commands do without it

        self._groups: dict[str, bytes] = {}  # by their words
        self._packed = functools.partial(socket.inet_pton, socket.AF_INET)

    def usual(self, words: list[str]) -> bytes:
        """The route as a field of a part. ValueError or KeyError: it has not the usual form, an IPv4 prefix and a
        group whose name was learnt, or is wrong."""
        address, _, digits = words[0].partition("/")
        packed = self._packed(address)
        length = int(digits)
        if (
            not (digits.isascii() and digits.isdecimal())
            or length > 32
            or int.from_bytes(packed, "big") & HOST_BITS[length]
        ):
            raise ValueError(words[0])
        route = b"\x0a\x08\x0a\x04" + packed + b"\x10" + bytes((length,)) + self._groups[words[1]]
        if len(words) == 3 and words[2] != "0":
            route += b"\x18" + tag(words[2])
        elif len(words) > 3:
            raise ValueError(words)
        return b"\x0a" + (bytes((len(route),)) if len(route) < 128 else varint(len(route))) + route

    def learn(self, words: list[str], route: Any) -> None:
        """That a message was made of these words."""
        if len(words) > 1 and route.nexthop_group:
            self._groups[words[1]] = field(b"\x12", route.nexthop_group.encode())


class Parts:
    """Routes as the parts that they are sent in."""

    def __init__(self) -> None:
        self.count = 0
        self._full: list[bytes] = []
        self._open: list[bytes] = []

    def add(self, route: bytes) -> None:
        self._open.append(route)
        self.count += 1
        if len(self._open) == ROUTES_A_PART:
            self._full.append(b"".join(self._open))
            self._open.clear()

    def add_message(self, route: Any) -> None:
        self.add(field(b"\x0a", route.SerializeToString()))

    def __iter__(self) -> Iterator[bytes]:
        yield from self._full
        if self._open:
            yield b"".join(self._open)


def sent(
    channel: grpc.Channel,
    method: str,
    parts: Parts,
    counted: Callable[[Iterable[bytes]], Iterator[bytes]],
    reply: Any,
    **call: Any,
) -> Any:
    """Sends the parts, and answers what the agent answers. `reply` is the class of it."""
    return channel.stream_unary(METHODS + method, response_deserializer=reply.FromString)(counted(parts), **call)
