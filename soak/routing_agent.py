"""Runs the routing agent, and reads what it uses and what it has recorded."""

import collections
import contextlib
import os
import pathlib
import re
import subprocess
import sys
import time

Statuses = collections.Counter[int]  # how often each was recorded
Usage = dict[str, int]


class Agent:
    """The agent under test, and what can be seen of it from outside."""

    def __init__(self, program: str, scratch: pathlib.Path) -> None:
        self.log = scratch / "accounting.log"
        self.errors = scratch / "agent.err"
        command = [program, "--listen", "127.0.0.1:0", "--local-credentials", "--log", str(self.log)]
        with open(self.errors, "w") as errors:
            self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=errors, text=True)
        assert self.process.stdout
        listening = re.search(r"port (\d+)", self.process.stdout.readline())
        if not listening:
            sys.exit(f"the agent does not listen: {self.errors.read_text()}")
        self.port = int(listening[1])
        self.sockets = self.count("socket:")

    def count(self, kind: str = "") -> int:
        """Its open descriptors of a kind."""
        count = 0
        for descriptor in pathlib.Path(f"/proc/{self.process.pid}/fd").iterdir():
            with contextlib.suppress(FileNotFoundError):
                count += os.readlink(descriptor).startswith(kind)
        return count

    def usage(self) -> Usage:
        """What it uses, once every connection is closed; a connection that stays shows in the descriptors."""
        until = time.monotonic() + 30
        while self.count("socket:") > self.sockets and time.monotonic() < until:
            time.sleep(0.2)
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        told = dict(re.findall(r"^(\w+):\s+(\d+)", status, re.MULTILINE))
        memory, threads = int(told["VmRSS"]), int(told["Threads"])
        return {"resident memory, KiB": memory, "descriptors": self.count(), "threads": threads}

    def stop(self) -> tuple[int, int]:
        """Its exit code, and what the sanitizer says of leaks."""
        self.process.terminate()
        code = self.process.wait()
        leaked = re.search(r"(\d+) byte\(s\) leaked in (\d+) allocation", self.errors.read_text())
        return code, int(leaked[2]) if leaked else 0

    def records(self) -> dict[str, Statuses]:
        """The statuses in the accounting log, by user."""
        records: dict[str, Statuses] = collections.defaultdict(collections.Counter)
        line = re.compile(r"VORNSDKRPC_ACCOUNTING_RPC: user: local:(\w+), .*, status: (\d+)$")
        with open(self.log) as log:
            for text in log:
                if " [warning] ROUTING_AGENT_GROUP_UNKNOWN: " in text:
                    continue  # nobody sets the group
                record = line.search(text)
                assert record, f"a line that is no record: {text}"
                records[record[1]][int(record[2])] += 1
        return records
