"""A fleet of routing agents, each in a network namespace of its own, under a mixed load, with what operators have
beside it: Prometheus, which scrapes them all; rsyslog, which follows their files of records and sends them over RELP to
another one, which writes one file; and a collector that watches them, is killed, and goes on. On the way one agent is
killed and one is drained. Ends with a table of calls and of what each has of them, by the calls' names, and fails when
they differ by more than what the killed agent has taken with it.

usage: fleet.py SCRATCH AGENT N SECONDS NAMESPACE [PICTURE]

Runs in the namespace NAMESPACE-hub, where 10.77.0.254 is; agent i is to run in NAMESPACE-i, at 10.77.0.i.
"""

import contextlib
import json
import pathlib
import signal
import subprocess
import sys
import time
import urllib.parse
import urllib.request
from collections.abc import Callable
from typing import Any

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent
SCRATCH = pathlib.Path(sys.argv[1])
PROMETHEUS = "http://127.0.0.1:9090"
LOADERS = 4
WAIT = 60  # seconds, for what must come
CALLS = 'grpc_server_handled_total{grpc_service!~"VornSdkRpc.*",grpc_code!="Unavailable"}'

SHIPPER = """
global(workDirectory="{scratch}/shipper")
module(load="imfile")
module(load="omrelp")
input(type="imfile" file="{scratch}/calls-*.json" tag="routing_agent")
action(type="omrelp" target="127.0.0.1" port="2514" template="RSYSLOG_SyslogProtocol23Format"
       queue.type="LinkedList" action.resumeRetryCount="-1")
"""
CENTRAL = """
global(workDirectory="{scratch}/central")
module(load="imrelp")
input(type="imrelp" port="2514" address="127.0.0.1")
template(name="record" type="string" string="%msg%\\n")
action(type="omfile" file="{scratch}/records.json" template="record")
"""
SCRAPE = """
global: {{scrape_interval: 1s, evaluation_interval: 5s}}
rule_files: [{root}/agents/routing/prometheus/alerts.yml]
scrape_configs:
  - job_name: routing_agent
    static_configs: [{{targets: {targets}}}]
"""


class Fleet:
    def __init__(self, agent: str, count: int, namespace: str, processes: contextlib.ExitStack) -> None:
        self.processes = processes
        self.addresses = [f"10.77.0.{i}:50051" for i in range(1, count + 1)]
        self.agents = {}
        for i, address in enumerate(self.addresses, 1):
            words = [
                "--listen",
                address,
                "--listen",
                self.socket(address),
                "--metrics",
                f"10.77.0.{i}:9464",
                "--log",
                "-",
                "--grace",
                "5",
            ]
            words += ["--accounting", f"json:{SCRATCH}/calls-{i}.json"]
            self.agents[address] = self.start("ip", "netns", "exec", f"{namespace}-{i}", agent, *words)
        self.prometheus()
        for name, text in (("central", CENTRAL), ("shipper", SHIPPER)):
            (SCRATCH / name).mkdir()
            (SCRATCH / f"{name}.conf").write_text(text.format(scratch=SCRATCH))
            self.start("rsyslogd", "-n", "-f", f"{SCRATCH}/{name}.conf", "-i", f"{SCRATCH}/{name}.pid")
        (SCRATCH / "watched").mkdir()
        self.collector = self.collect()

    @staticmethod
    def socket(address: str) -> str:
        """Where the agent knows its callers, and lets them watch."""
        return f"unix:{SCRATCH}/{address}.sock"

    def start(self, *command: str) -> subprocess.Popen[bytes]:
        log = self.processes.enter_context(open(SCRATCH / "processes.log", "ab"))
        process = subprocess.Popen(command, stdout=log, stderr=log)
        self.processes.callback(process.wait)
        self.processes.callback(process.kill)
        return process

    def prometheus(self) -> None:
        targets = json.dumps([address.replace("50051", "9464") for address in self.addresses])
        (SCRATCH / "prometheus.yml").write_text(SCRAPE.format(root=ROOT, targets=targets))
        words = [f"--config.file={SCRATCH}/prometheus.yml", f"--storage.tsdb.path={SCRATCH}/data"]
        words += ["--web.listen-address=127.0.0.1:9090", f"--web.console.templates={ROOT}/agents/routing/prometheus"]
        self.start("prometheus", *words)

    def collect(self) -> subprocess.Popen[bytes]:
        command = ["/usr/bin/python3", str(HERE / "collector.py"), f"{SCRATCH}/stubs", f"{SCRATCH}/watched"]
        return self.start(*command, *(f"{address}={self.socket(address)}" for address in self.addresses))

    def load(self, seconds: float) -> dict[str, dict[str, list[str]]]:
        """Calls for so long, with everything that happens meanwhile. Answers what became of the calls, by agent."""
        loaders = []
        for i in range(LOADERS):
            if mine := self.addresses[i::LOADERS]:
                command = ["/usr/bin/python3", str(HERE / "clients.py"), f"{SCRATCH}/load-{i}", str(seconds), *mine]
                loaders.append(self.start(*command))
        time.sleep(seconds * 0.3)
        self.collector.send_signal(signal.SIGKILL)
        time.sleep(seconds * 0.2)
        self.collector = self.collect()
        time.sleep(seconds * 0.1)
        self.agents[self.addresses[0]].send_signal(signal.SIGKILL)
        self.agents[self.addresses[1]].send_signal(signal.SIGTERM)
        for loader in loaders:
            if loader.wait() != 0:
                sys.exit("a client has failed: see processes.log")
        results: dict[str, dict[str, list[str]]] = {}
        for i in range(len(loaders)):
            results |= json.loads((SCRATCH / f"load-{i}").read_text())
        return results


def query(expression: str) -> dict[str, float]:
    """The values of an expression, by the agent's address."""
    url = f"{PROMETHEUS}/api/v1/query?" + urllib.parse.urlencode({"query": expression})
    with urllib.request.urlopen(url) as answer:
        result = json.load(answer)["data"]["result"]
    return {one["metric"]["instance"].replace("9464", "50051"): float(one["value"][1]) for one in result}


def eventually(what: str, holds: Callable[[], bool]) -> None:
    end = time.monotonic() + WAIT
    while not holds():
        if time.monotonic() > end:
            sys.exit(f"fleet: {what}: not within {WAIT} s")
        time.sleep(0.2)


def records(file: pathlib.Path) -> list[dict[str, Any]]:
    """The whole records of a file, of the load's calls."""
    lines = file.read_text().split("\n")[:-1] if file.exists() else []
    return [record for record in map(json.loads, lines) if "traceparent" in record]


def watched(address: str) -> tuple[list[str], int]:
    """The names of the records that the collector has, in its order, and how many were told to be missing. Fails when a
    number is there twice or is missing without a word."""
    names, missing, last = [], 0, 0
    for line in (SCRATCH / "watched" / address).read_text().split("\n")[:-1]:
        message = json.loads(line)
        missing += message["missing"]
        last += message["missing"]
        for number, name in message["records"]:
            last += 1
            assert number == last, f"{address}: {number} after {last - 1}"
            names += [name] if name else []
    return names, missing


def main() -> None:
    agent, count, seconds, namespace = sys.argv[2], int(sys.argv[3]), float(sys.argv[4]), sys.argv[5]
    with contextlib.ExitStack() as processes:
        fleet = Fleet(agent, count, namespace, processes)
        eventually("Prometheus reads every agent", lambda: up() == count)
        told = fleet.load(seconds)
        failed = table(fleet, told)
        for file in sys.argv[6:]:
            take_picture(file, count)
        if failed:
            sys.exit(1)


def take_picture(file: str, count: int) -> None:
    """Of the console. (Root's browser has no sandbox, and this page is ours.)"""
    command = ["chromium", "--headless", "--no-sandbox", "--hide-scrollbars", f"--user-data-dir={SCRATCH}/browser"]
    command += [f"--window-size=1320,{320 + 30 * count}", f"--screenshot={file}"]
    subprocess.run([*command, f"{PROMETHEUS}/consoles/routing_agent.html"], check=True, capture_output=True, timeout=60)


def up() -> float:
    try:
        return sum(query("up").values())
    except OSError:
        return 0


def console() -> bool:
    """Whether the console has every agent, and says which are down."""
    with urllib.request.urlopen(f"{PROMETHEUS}/consoles/routing_agent.html") as answer:
        page: str = answer.read().decode()
    return page.count("<tr") - 1 == int(sys.argv[3]) and page.count(" is down</td>") == 2


def table(fleet: Fleet, told: dict[str, dict[str, list[str]]]) -> bool:
    """Prints it. Answers whether something differs that should not."""
    killed, drained = fleet.addresses[:2]
    living = fleet.addresses[2:]
    own = {address: records(SCRATCH / f"calls-{i}.json") for i, address in enumerate(fleet.addresses, 1)}
    total = sum(map(len, own.values()))
    eventually("rsyslog has every record", lambda: len(records(SCRATCH / "records.json")) >= total)
    eventually("the watch has every record", lambda: all(len(watched(a)[0]) >= len(own[a]) for a in living))
    last = f"sum by (instance) (last_over_time({CALLS}[10m]))"
    eventually("Prometheus has every call", lambda: all(query(last)[a] == len(told[a]["answered"]) for a in living))
    counted = query(last)
    collected = [record["traceparent"] for record in records(SCRATCH / "records.json")]
    heads = ["agents", "calls answered", "Prometheus", "rsyslog", "watch", "answered without a record"]
    print(f"| {' | '.join(heads)} | recorded, not answered |")
    print("|--|--:|--:|--:|--:|--:|--:|")
    failed = len(collected) != len(set(collected))
    for what, addresses in ((f"{len(living)} running", living), ("1 drained", [drained]), ("1 killed", [killed])):
        names = {name for a in addresses for name in told[a]["answered"]}
        mine = {name for name in collected if name.rsplit("-", 1)[0] in addresses}
        seen = [name for a in addresses for name in watched(a)[0]]
        unknown = {name for a in addresses for name in told[a]["unknown"]}
        without, beyond = names - mine, mine - names
        prometheus = int(sum(counted.get(a, 0) for a in addresses))
        print(f"| {what} | {len(names)} | {prometheus} | {len(mine)} | {len(seen)} | {len(without)} | {len(beyond)} |")
        failed |= not beyond <= unknown or len(seen) != len(set(seen))
        if addresses != [killed]:
            failed |= bool(without)
        if addresses == living:
            failed |= bool(beyond) or prometheus != len(names) or set(seen) != names
    print(
        "What Prometheus and the watch lack of an agent that has gone was answered after they had read it last; of the"
    )
    print("killed one, what was answered without a record was not written yet. Not answered: their clients saw it go.")
    eventually("the console shows every agent", console)
    return failed


main()
