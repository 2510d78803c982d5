"""The clients of the soak, which all call at once, each kind under a user name of its own.

The folder of the generated stubs has to be in sys.path before this module is imported.
"""

import collections
import contextlib
import pathlib
import random
import re
import signal
import subprocess
import sys
import threading
import time
from collections.abc import Callable, Iterator
from typing import Any

import grpc
from VornSdkRpcProtos import VornSdkRpc_pb2 as sdk
from agents.routing import RoutingAgent_pb2 as agent_pb
from agents.routing import RoutingAgent_pb2_grpc as agent_grpc

import http2
import watcher

Code = grpc.StatusCode
Statuses = collections.Counter[int]  # how often each came
UPLOAD = "/routing_agent.Routing/SetRoutes"


def whole(method: Callable[..., Any]) -> Callable[..., list[Any]]:
    """A call that reads its stream to the end."""
    return lambda *call, **options: list(method(*call, **options))


class Load:
    """Every client at once, until stop() is called."""

    USERS = ("steady", "volume", "watcher", "faulty")

    def __init__(self, port: int, scratch: pathlib.Path) -> None:
        self.port = port
        self.scratch = scratch
        self.lock = threading.Lock()
        self.calls: collections.Counter[str] = collections.Counter()  # by user
        self.answers: dict[str, Statuses] = {user: collections.Counter() for user in self.USERS}
        self.problems: list[str] = []
        self.stopping = threading.Event()
        self.threads: list[threading.Thread] = []

    def called(self, user: str, count: int = 1) -> None:
        with self.lock:
            self.calls[user] += count

    def answered(self, user: str, code: grpc.StatusCode = Code.OK, count: int = 1) -> None:
        with self.lock:
            self.answers[user][code.value[0]] += count

    def start(self) -> None:
        self.stopping.clear()
        clients = [self.unary, self.unary, self.streams, self.volume, self.watches]
        clients += [self.stalled_watches, self.killed_watches, self.cancelled, self.resets, self.broken]
        self.threads = [threading.Thread(target=self.repeat, args=(client,)) for client in clients]
        for thread in self.threads:
            thread.start()

    def stop(self) -> None:
        self.stopping.set()
        for thread in self.threads:
            thread.join()

    def repeat(self, client: Callable[[], None]) -> None:
        """Runs one kind of client again and again, each time on a connection of its own."""
        while not self.stopping.is_set():
            try:
                client()
            except Exception as error:  # the soak goes on, and fails at its end
                self.problems.append(f"{client.__name__}: {error!r}")
                self.stopping.wait(1)

    @contextlib.contextmanager
    def channel(self) -> Iterator[grpc.Channel]:
        options = [("grpc.use_local_subchannel_pool", 1)]
        with grpc.insecure_channel(f"127.0.0.1:{self.port}", options) as channel:
            yield channel

    # The steady ones -------------------------------------------------------------------------------------------

    def steady(self, method: Callable[..., Any], request: Any, *expected: grpc.StatusCode) -> None:
        """Makes a call, and counts it and its answer, which is OK where nothing else is expected."""
        self.called("steady")
        code, details = Code.OK, ""
        try:
            method(request, timeout=60, metadata=[("username", "steady")])
        except grpc.RpcError as error:
            code, details = error.code(), error.details()
        if code not in (expected or [Code.OK]):
            self.problems.append(f"steady: {code} {details}")
        if code not in (Code.DEADLINE_EXCEEDED, Code.UNAVAILABLE):  # which gRPC's client makes up
            self.answered("steady", code)

    def unary(self) -> None:
        with self.channel() as channel:
            for _ in range(20):
                if not self.stopping.is_set():
                    self.some_calls(channel, random.randrange(1000))

    def some_calls(self, channel: grpc.Channel, number: int) -> None:
        routing, state = agent_grpc.RoutingStub(channel), agent_grpc.StateStub(channel)
        prefix: dict[str, Any] = {"addr": bytes([10, number // 256, number % 256, 0]), "mask_length": 24}
        route = sdk.ip_route_msg(prefix=prefix, nexthop_group="core", tag=number)
        bad = sdk.ip_route_msg(prefix={**prefix, "mask_length": 99}, nexthop_group="core")
        hop = {"nexthop_interface": "eth0"}
        group = sdk.nexthop_group_msg(name=f"group{number % 50}", request_delete=number % 7 == 0, nexthop=[hop])
        mpls = sdk.mpls_route_msg(label=16 + number, pop_and_forward_vrf_name="red")
        key = {"outgoing_interface": f"eth{number % 20}", "nexthop": {"addr": bytes([192, 0, 2, 1])}}
        session = sdk.sbfd_echo_session_msg(session_key=key, rtt_enabled=True, request_delete=number % 5 == 0)
        config = sdk.rpc_server_state_config_msg(set=[{"key": f"key{number % 100}", "value": "x" * number}])
        gone = (Code.OK, Code.NOT_FOUND)
        self.steady(routing.SetRoute, route)
        self.steady(routing.DeleteRoute, route.prefix, *gone)
        self.steady(routing.SetNexthopGroup, group, *gone)
        self.steady(routing.SetMplsRoute, mpls)
        self.steady(agent_grpc.SbfdStub(channel).SetSession, session, *gone)
        self.steady(state.Configure, config)
        self.steady(state.Read, agent_pb.state_keys_msg())
        self.steady(routing.SetRoute, bad, Code.INVALID_ARGUMENT)
        self.steady(channel.unary_unary("/routing_agent.Routing/Guess"), b"", Code.UNIMPLEMENTED)

    def streams(self) -> None:
        with self.channel() as channel:
            stub = agent_grpc.RoutingStub(channel)
            prefixes = ({"addr": bytes([172, 16, n // 256, n % 256]), "mask_length": 32} for n in range(500))
            self.steady(stub.SetRoutes, (sdk.ip_route_msg(prefix=p, nexthop_group="core") for p in prefixes))
            for method in (stub.GetRoutes, stub.GetNexthopGroups, stub.GetMplsRoutes):
                self.steady(whole(method), agent_pb.get_msg())

    def volume(self) -> None:
        count = 2000
        body = self.scratch / "volume"
        prefix = {"addr": bytes([192, 168, 0, 0]), "mask_length": 16}
        route = sdk.ip_route_msg(prefix=prefix, nexthop_group="core")
        body.write_bytes(http2.message(route.SerializeToString()))
        headers = ["te: trailers", "content-type: application/grpc", "username: volume"]
        command = ["h2load", "-n", str(count), "-c", "4", "-m", "8", "-d", str(body)]
        command += [part for header in headers for part in ("-H", header)]
        command.append(f"http://127.0.0.1:{self.port}/routing_agent.Routing/SetRoute")
        output = subprocess.run(command, capture_output=True, text=True, check=True).stdout
        self.called("volume", count)
        succeeded = re.search(r"(\d+) succeeded", output)
        self.answered("volume", count=int(succeeded[1]) if succeeded else 0)
        self.stopping.wait(1)

    # The watchers ----------------------------------------------------------------------------------------------

    def watched(self, streams: int) -> None:
        self.called("watcher", streams)
        self.answered("watcher", Code.CANCELLED, streams)

    def watches(self) -> None:
        """Read some items, then cancel."""
        with self.channel() as channel:
            config = sdk.watch_sbfd_echo_session_config_msg(request_rtt_updates=True)
            metadata = [("username", "watcher")]
            watches = [agent_grpc.SbfdStub(channel).WatchSessions(config, metadata=metadata) for _ in range(20)]
            for watch in watches:
                for _ in range(random.randint(1, 5)):
                    next(watch)
                watch.cancel()
            self.watched(len(watches))

    def stalled_watches(self) -> None:
        """Read nothing, sometimes for so long that keepalive gives the connection up."""
        with watcher.watching(self.port, 20):
            self.watched(20)
            self.stopping.wait(random.choice([0.1, 1, 15]))

    def killed_watches(self) -> None:
        command = [sys.executable, watcher.__file__, str(self.port), "20"]
        with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as process:
            assert process.stdout
            if process.stdout.readline():
                self.watched(20)
            self.stopping.wait(random.random())
            process.kill()
        if process.returncode != -signal.SIGKILL:
            self.problems.append(f"killed_watches: exit code {process.returncode}")

    # The faulty ones -------------------------------------------------------------------------------------------

    def cancelled(self) -> None:
        """Calls that are cancelled the moment they are made, or a little later."""
        with self.channel() as channel:
            stub = agent_grpc.StateStub(channel)
            for _ in range(50):
                self.called("faulty")
                call = stub.Read.future(agent_pb.state_keys_msg(), metadata=[("username", "faulty")])
                time.sleep(random.choice([0, 0.001]))
                call.cancel()
                if call.code() == Code.OK:
                    self.answered("faulty")
                elif call.code() != Code.CANCELLED:
                    self.problems.append(f"cancelled: {call.code()}")

    def resets(self) -> None:
        """Many calls that are reset in one stroke."""
        streams = range(1, 200, 2)
        self.called("faulty", len(streams))
        sent = http2.GREETING
        for stream in streams:
            sent += http2.call(UPLOAD, stream, username="faulty")
            sent += http2.frame(http2.RST_STREAM, stream=stream, payload=b"\0\0\0\x08")
        with http2.Connection(self.port, sent):
            self.stopping.wait(0.2)

    def broken(self) -> None:
        """Connections that say nothing, nonsense, or half of something, and go or stay a while."""
        half = http2.call(UPLOAD, 1, username="faulty")
        half += http2.frame(http2.DATA, stream=1, payload=http2.message(bytes(256)))[:100]
        noise = random.randbytes(500)
        self.called("faulty")
        for sent in (b"", http2.PREFACE[:10], noise, http2.PREFACE + noise, http2.GREETING + half):
            with http2.Connection(self.port, sent):
                self.stopping.wait(random.choice([0, 0, 0.1, 2]))
