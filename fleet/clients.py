"""The fleet's clients: a mixed load on some agents, each call with a name that its record has, too.

usage: clients.py RESULT SECONDS ADDRESS...

Writes what became of every call to RESULT, as JSON: by the agent's address the names of the calls that were answered,
and of those of which the client does not know whether they were.
"""

import json
import os
import pathlib
import random
import sys
import threading
import time

os.environ["GRPC_VERBOSITY"] = "NONE"
import grpc  # noqa: E402

CALLS = ["/routing_agent.State/Read"] * 6 + [
    "/routing_agent.Routing/GetRoutes",
    "/routing_agent.Routing/DeleteRoute",
    "/grpc.health.v1.Health/Check",
    "/no.Such/Method",
]
WATCH = "/routing_agent.Sbfd/WatchSessions"


class Client:
    """Calls one agent until the time is over or the agent has gone."""

    def __init__(self, address: str, end: float) -> None:
        self.address = address
        self.end = end
        self.answered: list[str] = []
        self.late: list[str] = []  # whether they came to the agent, the next call tells
        self.unknown: list[str] = []
        self.thread = threading.Thread(target=self.run)

    def run(self) -> None:
        count = 0
        with grpc.insecure_channel(self.address) as channel:
            while time.monotonic() < self.end and len(self.unknown) < 3:
                count += 1
                name = f"{self.address}-{count}"
                method = WATCH if count % 50 == 0 else random.choice(CALLS)
                self.call(channel, method, name, 1 if method == WATCH else 60)
                time.sleep(0.01)
        self.answered += self.late

    def call(self, channel: grpc.Channel, method: str, name: str, timeout: float) -> None:
        try:
            for _ in channel.unary_stream(method)(b"", timeout=timeout, metadata=[("traceparent", name)]):
                pass
        except grpc.RpcError as error:
            if error.code() is grpc.StatusCode.UNAVAILABLE:
                self.unknown += [*self.late, name]
                self.late = []
                return
            if error.code() is grpc.StatusCode.DEADLINE_EXCEEDED:
                self.late.append(name)
                return
        self.answered += [*self.late, name]
        self.late = []


def main() -> None:
    end = time.monotonic() + float(sys.argv[2])
    clients = [Client(address, end) for address in sys.argv[3:]]
    for client in clients:
        client.thread.start()
    for client in clients:
        client.thread.join()
    result = {client.address: {"answered": client.answered, "unknown": client.unknown} for client in clients}
    pathlib.Path(sys.argv[1]).write_text(json.dumps(result))


main()
