"""The routing agent and a kernel that others disturb.

kernel.py STUBS AGENT SECONDS, in a network namespace of its own

Links go down and come back, addresses and routes and next-hop objects are taken away, the agent is killed and started
again, while routes and groups are set and deleted. After every few of these everything is left alone, and the kernel
has to come to hold exactly what clients have set, by the next hop that they have set, with the agent's lists saying
so. Ends with a clean stop that leaves nothing behind. Prints what has happened; exits with 1 at the first difference.
"""

import collections
import ipaddress
import pathlib
import random
import signal
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable

import grpc

sys.path.insert(0, sys.argv[1])
from VornSdkRpcProtos import VornSdkRpc_pb2 as sdk  # noqa: E402
from agents.routing import RoutingAgent_pb2 as agent_pb  # noqa: E402
from agents.routing import RoutingAgent_pb2_grpc as agent_grpc  # noqa: E402

PREFIXES = [f"10.{n // 256}.{n % 256}.0/24" for n in range(2000)]
GROUPS = [f"group{n}" for n in range(8)]
GATEWAYS = [f"192.0.2.{n}" for n in range(2, 12)]
AT_ONCE = 8  # disturbances between two looks
SETTLED_WITHIN = 120.0  # seconds; a machine may be slow


def ip(*words: str, check: bool = True) -> str:
    return subprocess.run(["ip", *words], check=check, capture_output=True, text=True).stdout


class Soak:
    def __init__(self, program: str, scratch: pathlib.Path) -> None:
        self.program = program
        self.scratch = scratch
        self.routes: dict[str, str] = {}  # their groups, as clients have set them
        self.groups = {name: random.choice(GATEWAYS) for name in GROUPS}
        self.happened: collections.Counter[str] = collections.Counter()
        self.start()
        for name in GROUPS:
            self.set_group(name)

    def start(self) -> None:
        socket = f"unix:{self.scratch}/socket"
        options = ["--listen", socket, "--program-kernel", "--log", f"{self.scratch}/log", "--no-accounting"]
        # What was deleted just before a kill is in the kernel still, and goes with the grace.
        options += ["--kernel-grace", "2", "--state", f"{self.scratch}/state"]
        with open(self.scratch / "errors", "a") as errors:
            self.agent = subprocess.Popen([self.program, *options], stdout=subprocess.PIPE, stderr=errors, text=True)
        assert self.agent.stdout
        if "listening" not in self.agent.stdout.readline():
            raise AssertionError(f"the agent does not start: exit code {self.agent.wait()}")
        local = grpc.local_channel_credentials(grpc.LocalConnectionType.UDS)
        self.channel = grpc.secure_channel(socket, local, [("grpc.use_local_subchannel_pool", 1)])
        self.routing = agent_grpc.RoutingStub(self.channel)

    def end(self, number: signal.Signals) -> int:
        self.channel.close()
        self.agent.send_signal(number)
        self.agent.communicate()
        return self.agent.returncode

    # What clients do ------------------------------------------------------------------------------------------

    def set_group(self, name: str) -> None:
        address = {"addr": ipaddress.ip_address(self.groups[name]).packed}
        group = sdk.nexthop_group_msg(name=name, nexthop=[{"nexthop_ip": address}])
        self.routing.SetNexthopGroup(group, timeout=60)

    def part(self, prefixes: list[str]) -> agent_pb.routes_msg:
        networks = ((prefix, ipaddress.ip_network(prefix)) for prefix in prefixes)
        routes = [
            sdk.ip_route_msg(
                prefix={"addr": network.network_address.packed, "mask_length": network.prefixlen},
                nexthop_group=self.routes.get(prefix),
            )
            for prefix, network in networks
        ]
        return agent_pb.routes_msg(route=routes)

    def routes_set(self) -> None:
        chosen = random.sample(PREFIXES, 200)
        self.routes.update((prefix, random.choice(GROUPS)) for prefix in chosen)
        self.routing.SetRouteParts(iter([self.part(chosen)]), timeout=60)

    def routes_deleted(self) -> None:
        chosen = random.sample(PREFIXES, 100)
        self.routing.DeleteRouteParts(iter([self.part(chosen)]), timeout=60)
        for prefix in chosen:
            self.routes.pop(prefix, None)

    def group_changed(self) -> None:
        name = random.choice(GROUPS)
        self.groups[name] = random.choice(GATEWAYS)
        self.set_group(name)

    # What others do -------------------------------------------------------------------------------------------

    def link_flapped(self) -> None:
        ip("link", "set", "uplink", "down")
        time.sleep(random.choice((0, 0.01, 0.2)))
        ip("link", "set", "uplink", "up")

    def address_taken(self) -> None:
        ip("addr", "del", "192.0.2.1/24", "dev", "uplink")
        time.sleep(random.choice((0, 0.01, 0.2)))
        ip("addr", "add", "192.0.2.1/24", "dev", "uplink")

    def routes_taken(self) -> None:
        for prefix in random.sample(PREFIXES, 20):
            ip("route", "del", prefix, "proto", "201", check=False)  # which may not be there

    def routes_flushed(self) -> None:
        ip("route", "flush", "proto", "201", check=False)

    def objects_taken(self) -> None:
        lines = ip("nexthop", "show", "proto", "201").splitlines()
        for line in random.sample(lines, min(len(lines), 3)):
            ip("nexthop", "del", "id", line.split()[1], check=False)  # which may have gone with another

    def agent_killed(self) -> None:
        if (code := self.end(signal.SIGKILL)) != -signal.SIGKILL:
            raise AssertionError(f"the agent had ended by itself: exit code {code}")
        self.start()

    # What has to hold -----------------------------------------------------------------------------------------

    def differences(self) -> list[str]:
        kernel = {}
        for line in ip("route", "show", "proto", "201").splitlines():
            words = line.split()
            kernel[words[0]] = words[words.index("via") + 1] if "via" in words else line
        wanted = {prefix: self.groups[group] for prefix, group in self.routes.items()}
        told = {}
        for part in self.routing.GetRoutes(agent_pb.get_msg(), timeout=60):
            for route, state in zip(part.route, part.programming):
                told[str(ipaddress.ip_network((route.prefix.addr, route.prefix.mask_length)))] = state
        found = [
            f"{p}: {kernel.get(p)} in the kernel, not {wanted.get(p)}"
            for p in kernel.keys() | wanted.keys()
            if kernel.get(p) != wanted.get(p)
        ]
        found += [f"{p}: listed {told.get(p)}" for p in told.keys() ^ wanted.keys()]
        found += [f"{p}: {state}" for p, state in told.items() if state.state != state.PROGRAMMED]
        return found

    def look(self) -> None:
        """Waits until what clients have set is in the kernel, and nothing else."""
        end = time.monotonic() + SETTLED_WITHIN
        while found := self.differences():
            if time.monotonic() > end:
                raise AssertionError(f"{len(found)} differences, such as " + "; ".join(found[:3]))
            time.sleep(0.05)

    def run(self, seconds: float) -> None:
        events: list[Callable[[], None]] = [self.routes_set, self.routes_deleted, self.group_changed]
        events += [self.link_flapped, self.address_taken, self.routes_taken, self.routes_flushed]
        events += [self.objects_taken, self.agent_killed]
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            for event in random.choices(events, k=AT_ONCE):
                event()
                self.happened[event.__name__.replace("_", " ")] += 1
            self.look()
            self.happened["the kernel looked at"] += 1
        if (code := self.end(signal.SIGTERM)) != 0:
            raise AssertionError(f"exit code {code} after SIGTERM")
        if left := ip("route", "show", "proto", "201") + ip("nexthop", "show", "proto", "201"):
            raise AssertionError(f"left in the kernel: {left}")


def main() -> None:
    ip("link", "add", "uplink", "type", "veth", "peer", "name", "far")
    ip("addr", "add", "192.0.2.1/24", "dev", "uplink")
    for link in ("uplink", "far"):
        ip("link", "set", link, "up")
    seed = random.randrange(1 << 32)
    random.seed(seed)
    with tempfile.TemporaryDirectory() as scratch:
        soak = Soak(sys.argv[2], pathlib.Path(scratch))
        try:
            soak.run(float(sys.argv[3]))
        except Exception as error:
            soak.agent.kill()
            last = (pathlib.Path(scratch) / "errors").read_text().splitlines()[-40:]
            sys.exit("\n".join([*last, f"DIFFERENT (seed {seed}): {error!r}"]))
    for what, count in sorted(soak.happened.items()):
        print(f"  {what:24}{count:6}")


if __name__ == "__main__":
    main()
