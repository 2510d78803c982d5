"""Routes into the kernel, beside what an operator would use instead: `ip -batch` and BIRD.

/usr/bin/python3 bench/kernel_routes.py [--agent FILE] [--routes N] [--rounds N], as root, with the Debian packages
iproute2, bird2 and python3-grpcio, and a release build that stands

Each round takes every program once, in a new pair of network namespaces. From the start of the loading (the first
message, the start of `ip`, the start of BIRD, whose configuration holds the routes) to the last route in the kernel,
which each is asked for in its own way: the agent's AwaitAll, the end of `ip`, and for BIRD the kernel's count of the
prefixes. Prints medians, and medians of the rounds' ratios to `ip -batch`.
"""

import argparse
import contextlib
import json
import os
import pathlib
import select
import statistics
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable, Iterator

os.environ["GRPC_VERBOSITY"] = "NONE"
ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "vornctl"))

import grpc  # noqa: E402
import routes  # noqa: E402
import stubs  # noqa: E402

pb = stubs.load()
NETNS = f"rpc-bench-{os.getpid()}"
GATEWAY = "192.0.2.2"
BIRD = """log "/dev/null" all;
router id 192.0.2.1;
protocol device {{ scan time 3600; }}
protocol direct {{ ipv4; }}
protocol kernel {{ scan time 3600; ipv4 {{ export all; }}; }}
protocol static {{ ipv4;
{routes}
}}
"""


def run(*words: str) -> str:
    return subprocess.run(words, check=True, capture_output=True, text=True).stdout


@contextlib.contextmanager
def namespaces() -> Iterator[None]:
    peer = f"{NETNS}-peer"
    try:
        for name in (NETNS, peer):
            run("ip", "netns", "add", name)
        run("ip", "-n", NETNS, "link", "add", "uplink", "type", "veth", "peer", "name", "far", "netns", peer)
        run("ip", "-n", NETNS, "addr", "add", "192.0.2.1/24", "dev", "uplink")
        run("ip", "-n", NETNS, "link", "set", "uplink", "up")
        run("ip", "-n", peer, "link", "set", "far", "up")
        yield
    finally:
        for name in (NETNS, peer):
            subprocess.run(["ip", "netns", "delete", name], check=False)


def prefixes(count: int) -> list[str]:
    return [f"{20 + (i >> 16)}.{i >> 8 & 255}.{i & 255}.0/24" for i in range(count)]


def in_kernel() -> int:
    """How many prefixes the kernel's main table has, without listing them."""
    text = run("ip", "netns", "exec", NETNS, "cat", "/proc/net/fib_triestat")
    main = text[text.index("Main:") :]
    return int(main[main.index("Prefixes:") :].split()[1])


def by_ip(count: int, folder: pathlib.Path) -> dict[str, float]:
    batch = folder / "batch"
    batch.write_text("".join(f"route add {prefix} via {GATEWAY}\n" for prefix in prefixes(count)))
    begun = time.monotonic()
    run("ip", "-n", NETNS, "-batch", str(batch))
    return {"load": time.monotonic() - begun}


def by_bird(count: int, folder: pathlib.Path) -> dict[str, float]:
    lines = "\n".join(f"route {prefix} via {GATEWAY};" for prefix in prefixes(count))
    (folder / "bird.conf").write_text(BIRD.format(routes=lines))
    before = in_kernel()
    begun = time.monotonic()
    command = ["ip", "netns", "exec", NETNS, "bird", "-f", "-c", f"{folder}/bird.conf", "-s", f"{folder}/bird.ctl"]
    with subprocess.Popen(command) as bird:
        while in_kernel() < before + count:
            time.sleep(0.005)
        taken = time.monotonic() - begun
        bird.kill()
    return {"load": taken}


def connect(address: str) -> grpc.Channel:
    return grpc.secure_channel(address, grpc.local_channel_credentials(grpc.LocalConnectionType.UDS))


def singles(address: str) -> None:
    """Prints what a single change takes to be answered, one every 20 ms until standard input ends."""
    stub = pb.rpc.RoutingStub(connect(address))
    taken: list[float] = []
    while not select.select([sys.stdin], [], [], 0.02)[0]:
        prefix = {"addr": bytes((198, 18, len(taken) // 256, len(taken) % 256)), "mask_length": 32}
        begun = time.monotonic()
        stub.SetRoute(pb.sdk.ip_route_msg(prefix=prefix, nexthop_group="core"))
        taken.append(time.monotonic() - begun)
    print(json.dumps(taken))


class Agent:
    """The routing agent in the namespace, and a client of it."""

    def __init__(self, program: str, folder: pathlib.Path) -> None:
        self.address = f"unix:{folder}/socket"
        options = ["--listen", self.address, "--netns", NETNS, "--program-kernel", "--log", f"{folder}/log"]
        self.process = subprocess.Popen([program, *options], stdout=subprocess.PIPE, text=True)
        assert self.process.stdout
        self.process.stdout.readline()
        self.channel = connect(self.address)
        self.routing = pb.rpc.RoutingStub(self.channel)

    def group(self, gateway: str) -> None:
        """Sets the group, and waits until it is in the kernel."""
        address = {"addr": bytes(int(part) for part in gateway.split("."))}
        self.routing.SetNexthopGroup(pb.sdk.nexthop_group_msg(name="core", nexthop=[{"nexthop_ip": address}]))
        self.routing.Await(pb.agent.await_msg(group="core"))

    def load(self, parts: routes.Parts) -> None:
        kind = pb.agent.set_routes_reply_msg
        routes.sent(self.channel, "SetRouteParts", parts, iter, kind)
        assert not self.routing.AwaitAll(pb.agent.await_all_msg()).failed

    def memory(self) -> int:
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        return int(status[status.index("VmRSS:") :].split()[1]) << 10

    def stop(self) -> float:
        begun = time.monotonic()
        self.process.terminate()
        self.process.communicate()
        return time.monotonic() - begun


def by_agent(count: int, folder: pathlib.Path, program: str) -> dict[str, float]:
    parts, encoder = routes.Parts(), routes.Encoder()
    encoder.learn(["", "core"], pb.sdk.ip_route_msg(nexthop_group="core"))
    for prefix in prefixes(count):
        parts.add(encoder.usual([prefix, "core"]))
    agent = Agent(program, folder)
    agent.group(GATEWAY)
    before = agent.memory()
    begun = time.monotonic()
    agent.load(parts)
    taken = {"load": time.monotonic() - begun, "bytes a route": (agent.memory() - before) / count}
    assert in_kernel() >= count
    # As the kernel is set up, and when it need not tell listeners of each route behind the group.
    for what, mode, gateway in (("group change", 1, "192.0.2.3"), ("the same, no compat mode", 0, GATEWAY)):
        run("ip", "netns", "exec", NETNS, "sysctl", "-q", f"net.ipv4.nexthop_compat_mode={mode}")
        begun = time.monotonic()
        agent.group(gateway)
        taken[what] = time.monotonic() - begun
    # The same routes by the other next hop, beside single changes: a bulk load that takes its time.
    command = [sys.executable, __file__, "--singles", agent.address]  # a program of its own, as a client is
    with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as other:
        for _ in range(3):
            agent.load(parts)
        answered = json.loads(other.communicate()[0])
    taken["single, median"], taken["single, slowest"] = statistics.median(answered), max(answered)
    taken["stop"] = agent.stop()
    return taken


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--agent", default="build/release/agents/routing/routing_agent")
    parser.add_argument("--routes", type=int, default=100_000)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--singles", metavar="ADDRESS", help=argparse.SUPPRESS)
    args = parser.parse_args()
    if args.singles:
        singles(args.singles)
        return
    works: dict[str, Callable[[int, pathlib.Path], dict[str, float]]] = {
        "ip -batch": by_ip,
        "BIRD": by_bird,
        "agent": lambda count, folder: by_agent(count, folder, args.agent),
    }
    seen: dict[str, list[dict[str, float]]] = {name: [] for name in works}
    for _ in range(args.rounds):
        for name, work in works.items():
            with namespaces(), tempfile.TemporaryDirectory() as folder:
                seen[name].append(work(args.routes, pathlib.Path(folder)))
    print(f"{args.routes} routes, medians of {args.rounds} rounds")
    for name, rounds in seen.items():
        ratios = [one["load"] / ip["load"] for one, ip in zip(rounds, seen["ip -batch"])]
        load = statistics.median(one["load"] for one in rounds)
        print(f"{name:10}  load {load:.3f} s, {statistics.median(ratios):.2f} of ip -batch")
        for what in list(rounds[0])[1:]:
            print(f"{'':10}  {what} {statistics.median(one[what] for one in rounds):.4g}")


if __name__ == "__main__":
    main()
