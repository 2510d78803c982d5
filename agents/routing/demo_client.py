#!/usr/bin/python3
"""The demonstration's client: python3-grpcio and the repository's .proto files, nothing else.

usage: demo_client.py STUBS STEP ADDRESS [CA CERT KEY]

STUBS is the folder of the generated stubs; with CA, CERT and KEY (PEM files) the client speaks TLS and
shows its certificate. Each step prints what it saw, and exits with 1 when that is not what an agent must do.
"""

import ipaddress
import sys
from collections.abc import Callable, Iterator
from typing import Any

import grpc

sys.path.insert(0, sys.argv[1])
from VornSdkRpcProtos import VornSdkRpc_pb2 as sdk  # noqa: E402
from agents.routing import RoutingAgent_pb2 as agent  # noqa: E402
from agents.routing import RoutingAgent_pb2_grpc as agent_grpc  # noqa: E402


def check(holds: bool, what: str) -> None:
    if not holds:
        sys.exit(f"NOT SHOWN: {what}")
    print(f"  {what}", flush=True)


Key = tuple[bytes, int]  # address and length of a prefix
Table = dict[Key, sdk.ip_route_msg]


def prefix(text: str) -> sdk.ip_prefix_msg:
    network = ipaddress.ip_network(text)
    return sdk.ip_prefix_msg(addr=network.network_address.packed, mask_length=network.prefixlen)


def route(text: str, tag: int = 0) -> sdk.ip_route_msg:
    return sdk.ip_route_msg(prefix=prefix(text), nexthop_group="core", tag=tag)


def key(message: sdk.ip_route_msg) -> Key:
    return (message.prefix.addr, message.prefix.mask_length)


def read(stub: agent_grpc.RoutingStub) -> tuple[Table, int]:
    """The programmed routes, and how many changes were waiting when the last part was taken."""
    routes: Table = {}
    waiting = 0
    for part in stub.GetRoutes(agent.get_msg()):
        routes.update((key(item), item) for item in part.route)
        waiting = part.waiting
    return routes, waiting


def table(stub: agent_grpc.RoutingStub) -> Table:
    """The programmed routes once nothing is waiting any more."""
    routes, waiting = read(stub)
    while waiting:
        routes, waiting = read(stub)
    return routes


def status_of(call: Callable[[], Any]) -> tuple[grpc.StatusCode, str]:
    try:
        call()
        return grpc.StatusCode.OK, ""
    except grpc.RpcError as error:
        return error.code(), error.details()


def routes(channel: grpc.Channel) -> None:
    """Sets, reads, removes, and is refused what can't be used."""
    stub = agent_grpc.RoutingStub(channel)
    wanted = [route(f"10.{n // 256}.{n % 256}.0/24", n) for n in range(600)]
    wanted += [route(f"2001:db8:{n:x}::/48", n) for n in range(200)]
    reply = stub.SetRoutes(iter(wanted))
    check(reply.accepted == len(wanted), f"{reply.accepted} routes set through one stream")
    expected = {key(message): message for message in wanted}
    check(table(stub) == expected, f"{len(expected)} routes read back, each as it was set")

    gone = wanted[17]
    stub.DeleteRoute(gone.prefix)
    del expected[key(gone)]
    code, _ = status_of(lambda: stub.DeleteRoute(gone.prefix))
    check(code == grpc.StatusCode.NOT_FOUND, "one route removed; removing it again is NOT_FOUND")

    bad = sdk.ip_route_msg(nexthop_group="core")
    bad.prefix.addr = b"\x0a\x00\x00\x00\x00"
    extra = route("192.0.2.0/24")
    code, details = status_of(lambda: stub.SetRoutes(iter([extra, bad, route("198.51.100.0/24")])))
    expected[key(extra)] = extra
    check(code == grpc.StatusCode.INVALID_ARGUMENT, f"5 address bytes refused: {details}")
    code, details = status_of(lambda: stub.SetRoute(bad))
    check(code == grpc.StatusCode.INVALID_ARGUMENT, f"also in a unary call: {details}")
    check(table(stub) == expected, f"nothing lost: {len(expected)} routes in the table")


def load(channel: grpc.Channel) -> None:
    """Sets 100,000 routes at once, and reads while the agent programs them."""
    stub = agent_grpc.RoutingStub(channel)
    wanted = [route(f"172.{16 + n // 65536}.{n // 256 % 256}.{n % 256}/32", n) for n in range(100000)]
    reply = stub.SetRoutes(iter(wanted))
    check(reply.accepted == len(wanted), f"{reply.accepted} routes accepted through one stream")
    most, waiting = 0, 1
    while waiting:
        routes, waiting = read(stub)
        most = max(most, waiting)
        print(f"  read meanwhile: {len(routes)} routes in the table, {waiting} changes waiting", flush=True)
    check(most > 0, f"a backlog of {most} changes fell to zero while reads were answered")
    missing = [message for message in wanted if routes.get(key(message)) != message]
    check(not missing, "every one of them is in the table, as it was set")


def hold(channel: grpc.Channel) -> None:
    """Holds a stream open until the agent ends it."""

    def endless() -> Iterator[sdk.ip_route_msg]:
        yield route("203.0.113.0/24")
        print("  stream open", flush=True)
        sys.stdin.read()

    code, _ = status_of(lambda: agent_grpc.RoutingStub(channel).SetRoutes(endless()))
    check(code != grpc.StatusCode.OK, f"the open stream was ended by the agent: {code.name}")


def closed(channel: grpc.Channel) -> None:
    """Finds nobody at the address."""
    stub = agent_grpc.RoutingStub(channel)
    code, _ = status_of(lambda: stub.SetRoute(route("192.0.2.0/24"), timeout=3))
    check(code == grpc.StatusCode.UNAVAILABLE, "outside of the namespace the port is closed")


def account(channel: grpc.Channel) -> None:
    """Makes one call that succeeds, one that fails and one that no agent knows."""
    stub = agent_grpc.RoutingStub(channel)
    codes = [
        status_of(lambda: stub.SetRoute(route("192.0.2.0/24")))[0],
        status_of(lambda: stub.DeleteRoute(prefix("198.51.100.0/24")))[0],
        status_of(lambda: channel.unary_unary("/routing_agent.Routing/Guess")(b""))[0],
    ]
    expected = [grpc.StatusCode.OK, grpc.StatusCode.NOT_FOUND, grpc.StatusCode.UNIMPLEMENTED]
    check(codes == expected, "called: " + ", ".join(code.name for code in codes))


def swap(channel: grpc.Channel) -> None:
    """Claims to be somebody else than the certificate says."""
    stub = agent_grpc.RoutingStub(channel)
    claim = [("username", "mallory")]
    code, _ = status_of(lambda: stub.SetRoute(route("192.0.2.0/24"), metadata=claim))
    check(code == grpc.StatusCode.UNAUTHENTICATED, "a call that claims to be mallory is refused")


def became(stub: Any) -> Any:
    """What became of the route for the kernel."""
    return stub.Await(agent.await_msg(route=prefix("198.51.100.0/24"), or_waiting=True), timeout=60)


def kernel(channel: grpc.Channel) -> None:
    """Sets a group and a route through it, for the kernel."""
    stub = agent_grpc.RoutingStub(channel)
    group = sdk.nexthop_group_msg(name="core")
    group.nexthop.add().nexthop_ip.addr = ipaddress.ip_address("192.0.2.1").packed
    stub.SetNexthopGroup(group)
    stub.SetRoute(route("198.51.100.0/24"))
    state = became(stub)
    check(state.state == agent.programming_msg.PROGRAMMED, "a group and a route through it set, and in the kernel")


def waits(channel: grpc.Channel) -> None:
    """Is told why the route is not in the kernel."""
    stub = agent_grpc.RoutingStub(channel)
    while (state := became(stub)).state != agent.programming_msg.WAITING:
        pass
    check(state.reason != "", f"the route waits: {state.reason}")


def back(channel: grpc.Channel) -> None:
    """Waits for the route without setting anything."""
    stub = agent_grpc.RoutingStub(channel)
    state = stub.Await(agent.await_msg(route=prefix("198.51.100.0/24")), timeout=60)
    check(state.state == agent.programming_msg.PROGRAMMED, "the route is back, and nobody has set it")


def adopted(channel: grpc.Channel) -> None:
    """Finds what the killed run has left, and sets it again."""
    stub = agent_grpc.RoutingStub(channel)
    states = [state.state for part in stub.GetRoutes(agent.get_msg()) for state in part.programming]
    check(states == [agent.programming_msg.ADOPTED], "the killed agent's route is adopted")
    kernel(channel)
    stub.EndSync(agent.end_sync_msg())


def sbfd(channel: grpc.Channel) -> None:
    """Watches sessions come up, change and end."""
    stub = agent_grpc.SbfdStub(channel)
    sessions = [sdk.sbfd_echo_session_msg(rtt_enabled=True) for _ in range(3)]
    for number, session in enumerate(sessions):
        session.session_key.outgoing_interface = f"eth{number}"
        session.session_key.nexthop.addr = ipaddress.ip_address("192.0.2.1").packed
        stub.SetSession(session)
    up: set[str] = set()
    rtts, batch = 0, False
    watch = stub.WatchSessions(sdk.watch_sbfd_echo_session_config_msg(request_rtt_updates=True))
    for item in watch:
        if item.WhichOneof("update") == "end_of_status_batch":
            batch = True
        for news in [item, *item.bulk]:
            if news.status.status == sdk.sbfd_echo_session_oper_status_msg.UP:
                up.add(news.session_key.outgoing_interface)
            rtts += news.WhichOneof("update") == "rtt"
        if batch and len(up) == 3 and rtts >= 6:
            break
    watch.cancel()
    check(True, f"the present state, its end, then {len(up)} sessions UP and round-trip times")


def standard(channel: grpc.Channel) -> None:
    """Asks gRPC's own services, which any tool knows."""
    health = channel.unary_unary("/grpc.health.v1.Health/Check")(b"")
    check(health == b"\x08\x01", "gRPC health checking answers SERVING")
    reflect = channel.stream_stream("/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo")
    answer = next(iter(reflect(iter([b"\x3a\x00"]))))
    named = [name for name in ("Routing", "Sbfd", "State") if b"routing_agent." + name.encode() in answer]
    check(len(named) == 3, "gRPC reflection names the services " + ", ".join(named))


STEPS = {
    step.__name__: step
    for step in (routes, load, hold, closed, account, swap, kernel, waits, back, adopted, sbfd, standard)
}


def connect(address: str, files: list[str]) -> grpc.Channel:
    if not files:
        return grpc.insecure_channel(address)
    ca, certificate, private = (open(file, "rb").read() for file in files)
    return grpc.secure_channel(address, grpc.ssl_channel_credentials(ca, private, certificate))


if __name__ == "__main__":
    if len(sys.argv) not in (4, 7) or sys.argv[2] not in STEPS:
        sys.exit(__doc__)
    with connect(sys.argv[3], sys.argv[4:]) as open_channel:
        STEPS[sys.argv[2]](open_channel)
