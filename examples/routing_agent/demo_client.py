#!/usr/bin/python3
"""The demonstration's client: python3-grpcio and the repository's .proto files, nothing else.

usage: demo_client.py STUBS STEP ADDRESS

STUBS is the folder of the generated stubs. Each step prints what it saw and exits with 1 when that is
not what an agent must do.
"""

import ipaddress
import sys

import grpc

sys.path.insert(0, sys.argv[1])
from VornSdkRpcProtos import VornSdkRpc_pb2 as sdk  # noqa: E402
from examples.routing_agent import RoutingAgent_pb2 as agent  # noqa: E402
from examples.routing_agent import RoutingAgent_pb2_grpc as agent_grpc  # noqa: E402


def check(holds, what):
    if not holds:
        sys.exit(f"NOT SHOWN: {what}")
    print(f"  {what}", flush=True)


def route(prefix, tag=0):
    network = ipaddress.ip_network(prefix)
    message = sdk.ip_route_msg(nexthop_group="core", tag=tag)
    message.prefix.addr = network.network_address.packed
    message.prefix.mask_length = network.prefixlen
    return message


def table(stub):
    routes = {}
    for part in stub.GetRoutes(agent.get_routes_msg()):
        for item in part.route:
            routes[(item.prefix.addr, item.prefix.mask_length)] = item
    return routes


def key(message):
    return (message.prefix.addr, message.prefix.mask_length)


def status_of(call):
    try:
        call()
        return grpc.StatusCode.OK, ""
    except grpc.RpcError as error:
        return error.code(), error.details()


def routes(stub):
    """Sets, reads, removes, and is refused what can't be used."""
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


def hold(stub):
    """Holds a stream open until the agent ends it."""

    def endless():
        yield route("203.0.113.0/24")
        print("  stream open", flush=True)
        while True:
            line = sys.stdin.readline()
            if not line:
                return

    code, _ = status_of(lambda: stub.SetRoutes(endless()))
    check(code != grpc.StatusCode.OK, f"the open stream was ended by the agent: {code.name}")


def closed(stub):
    """Finds nobody at the address."""
    code, _ = status_of(lambda: stub.GetRoutes(agent.get_routes_msg(), timeout=3).next())
    check(code == grpc.StatusCode.UNAVAILABLE, "outside of the namespace the port is closed")


STEPS = {step.__name__: step for step in (routes, hold, closed)}

if __name__ == "__main__":
    if len(sys.argv) != 4 or sys.argv[2] not in STEPS:
        sys.exit(__doc__)
    with grpc.insecure_channel(sys.argv[3]) as channel:
        STEPS[sys.argv[2]](agent_grpc.RoutingStub(channel))
