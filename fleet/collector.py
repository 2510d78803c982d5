"""Collects the records of a fleet by watching each agent, and goes on where it was when it is started again.

usage: collector.py STUBS FOLDER NAME=ADDRESS...

Appends each message to a file of FOLDER of that name, in one write: where to go on, the
numbers that are told to be missing, and the names and numbers of the records.
"""

import json
import os
import pathlib
import sys
import threading
import time
from typing import Any

os.environ["GRPC_VERBOSITY"] = "NONE"
import grpc  # noqa: E402

sys.path.insert(0, sys.argv[1])
from VornSdkRpcProtos import Accounting_pb2 as accounting  # noqa: E402


def place(file: pathlib.Path) -> dict[str, Any] | None:
    """Where the last whole message says to go on."""
    lines = file.read_text().split("\n") if file.exists() else [""]
    return json.loads(lines[-2])["next"] if len(lines) > 1 else None


def collect(file: pathlib.Path, address: str) -> None:
    with grpc.insecure_channel(address) as channel, open(file, "ab", buffering=0) as out:
        watch = channel.unary_stream(
            "/VornSdkRpc.accounting.Accounting/Watch",
            request_serializer=accounting.watch_msg.SerializeToString,
            response_deserializer=accounting.watched_msg.FromString,
        )
        while True:
            start = place(file)
            try:
                for message in watch(accounting.watch_msg(**{"from": start} if start else {})):
                    line = {
                        "next": {"run": message.next.run, "number": message.next.number},
                        "missing": message.gap.count,
                        "records": [[record.number, record.traceparent] for record in message.records],
                    }
                    out.write(json.dumps(line).encode() + b"\n")
            except grpc.RpcError:
                time.sleep(0.2)


def main() -> None:
    for agent in sys.argv[3:]:
        name, address = agent.split("=")
        threading.Thread(target=collect, args=(pathlib.Path(sys.argv[2]) / name, address)).start()


main()
