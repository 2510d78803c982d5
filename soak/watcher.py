"""A client of the routing agent that opens watches and then reads no more.

usage: watcher.py PORT STREAMS     opens them, says so, and reads on: a process that is there to be killed
"""

import sys

import http2

METHOD = "/routing_agent.Sbfd/WatchSessions"
USER = "watcher"


def watching(port: int, streams: int) -> http2.Connection:
    """A connection with that many watches, once something came on each of them."""
    waiting = set(range(1, 2 * streams, 2))
    request = b"\x08\x01"  # with round-trip times
    calls = (http2.call(METHOD, stream, request, username=USER) for stream in waiting)
    connection = http2.Connection(port, http2.GREETING + b"".join(calls))
    for frame in connection.frames():
        if frame.kind == http2.DATA:
            waiting.discard(frame.stream)
        if not waiting:
            return connection
    raise ConnectionError(f"the agent hung up on {len(waiting)} watches")


if __name__ == "__main__":
    victim = watching(int(sys.argv[1]), int(sys.argv[2]))
    print("watching", flush=True)
    for _ in victim.frames():
        pass
    sys.exit("the agent has hung up")
