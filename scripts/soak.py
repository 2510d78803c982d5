#!/usr/bin/python3
"""Soaks one agent: mixed load and faults for a while, then a table, and exit code 1 when it doesn't add up.

usage: soak.py STUBS AGENT SECONDS leaks|growth

STUBS is the folder of the generated stubs. With `leaks`, AGENT is built with the address sanitizer, which counts
at the agent's exit what was never released; with `growth`, resident memory, descriptors and threads at the end
are held against those after the first sixth of the time, each taken when every client had left.

Every client calls under a user name of its own, so that the accounting log tells their calls apart:

  steady   calls of every kind by python3-grpcio, which wait for their answer
  volume   unary calls by h2load, the same
  watcher  streams whose first item came, and which the client then ended: cancelled, cut off with nobody reading,
           or with its process killed. The agent answers each with CANCELLED, which nobody hears: what counts as
           an answer is the item.
  faulty   calls that were cancelled or cut off before anything came back. Those that the agent has not seen when
           they are cancelled are never calls to it, so all that holds is: answers heard <= records <= calls.

For the others, calls = answers = records, and each status was written as often as it was answered.
"""

import collections
import contextlib
import os
import pathlib
import random
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

STUBS = sys.argv[1]
PREFACE = b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"
DATA, HEADERS, RST_STREAM, SETTINGS = 0, 1, 3, 4
WATCH = "Sbfd/WatchSessions"


# ----------------------------------------------------------------------------------------------------------------
# Clients without gRPC, for what no gRPC client does


def message(payload):
    """As gRPC frames it."""
    return b"\0" + len(payload).to_bytes(4, "big") + payload


def frame(kind, flags, stream, payload=b""):
    return len(payload).to_bytes(3, "big") + bytes([kind, flags]) + stream.to_bytes(4, "big") + payload


class RawClient:
    """A connection that speaks just enough of HTTP/2."""

    def __init__(self, port, sent=b""):
        self.socket = socket.create_connection(("127.0.0.1", port))
        self.file = self.socket.makefile("rb")
        with contextlib.suppress(ConnectionError):  # the agent may hang up first, and should where it is nonsense
            self.socket.sendall(sent)

    @staticmethod
    def call(user, method, stream, request=None):
        """The frames of a call; without a request, the client has still to send one."""
        headers = {":method": "POST", ":scheme": "http", ":path": f"/routing_agent.{method}", ":authority": "agent"}
        headers |= {"te": "trailers", "content-type": "application/grpc", "username": user}
        block = b""
        for name, value in headers.items():
            block += b"\0" + bytes([len(name)]) + name.encode() + bytes([len(value)]) + value.encode()
        frames = frame(HEADERS, 4, stream, block)
        if request is not None:
            frames += frame(DATA, 1, stream, message(request))
        return frames

    @staticmethod
    def watching(port, streams):
        """A client that has opened watches, once something came on each of them."""
        waiting = set(range(1, 2 * streams, 2))
        request = b"\x08\x01"  # with round-trip times
        client = RawClient(port, GREETING + b"".join(RawClient.call("watcher", WATCH, s, request) for s in waiting))
        while waiting:
            head = client.file.read(9)
            client.file.read(int.from_bytes(head[:3], "big"))
            if head[3] == DATA:
                waiting.discard(int.from_bytes(head[5:9], "big"))
        return client

    def close(self):
        self.file.close()
        self.socket.close()


GREETING = PREFACE + frame(SETTINGS, 0, 0)

if sys.argv[2] == "victim":  # soak.py STUBS victim PORT STREAMS: a client that is there to be killed
    victim = RawClient.watching(int(sys.argv[3]), int(sys.argv[4]))
    print("watching", flush=True)
    while victim.file.read(1):
        pass
    sys.exit("the agent has hung up")

import grpc  # noqa: E402

sys.path.insert(0, STUBS)
from VornSdkRpcProtos import VornSdkRpc_pb2 as sdk  # noqa: E402
from agents.routing import RoutingAgent_pb2 as agent_pb  # noqa: E402
from agents.routing import RoutingAgent_pb2_grpc as agent_grpc  # noqa: E402

Code = grpc.StatusCode


class Load:
    """Every client at once, until stop() is called."""

    USERS = ("steady", "volume", "watcher", "faulty")

    def __init__(self, port, scratch):
        self.port = port
        self.scratch = scratch
        self.lock = threading.Lock()
        self.calls = collections.Counter()  # by user
        self.answers = {user: collections.Counter() for user in self.USERS}  # and status
        self.problems = []
        self.stopping = threading.Event()
        self.threads = []

    def called(self, user, count=1):
        with self.lock:
            self.calls[user] += count

    def answered(self, user, code=Code.OK, count=1):
        with self.lock:
            self.answers[user][code.value[0]] += count

    def start(self):
        self.stopping.clear()
        clients = [self.unary, self.unary, self.streams, self.volume, self.watches]
        clients += [self.stalled_watches, self.killed_watches, self.cancelled, self.resets, self.broken]
        self.threads = [threading.Thread(target=self.repeat, args=(client,)) for client in clients]
        for thread in self.threads:
            thread.start()

    def stop(self):
        self.stopping.set()
        for thread in self.threads:
            thread.join()

    def repeat(self, client):
        """Runs one kind of client again and again, each time on a connection of its own."""
        while not self.stopping.is_set():
            try:
                client()
            except Exception as error:  # the soak goes on, and fails at its end
                self.problems.append(f"{client.__name__}: {error!r}")
                self.stopping.wait(1)

    @contextlib.contextmanager
    def channel(self):
        options = [("grpc.use_local_subchannel_pool", 1)]
        with grpc.insecure_channel(f"127.0.0.1:{self.port}", options) as channel:
            yield channel

    # The steady ones -------------------------------------------------------------------------------------------

    def steady(self, method, request, *expected):
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

    def unary(self):
        with self.channel() as channel:
            for _ in range(20):
                if not self.stopping.is_set():
                    self.some_calls(channel, random.randrange(1000))

    def some_calls(self, channel, number):
        routing, state = agent_grpc.RoutingStub(channel), agent_grpc.StateStub(channel)
        prefix = {"addr": bytes([10, number // 256, number % 256, 0]), "mask_length": 24}
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

    def streams(self):
        with self.channel() as channel:
            stub = agent_grpc.RoutingStub(channel)
            prefixes = ({"addr": bytes([172, 16, n // 256, n % 256]), "mask_length": 32} for n in range(500))
            self.steady(stub.SetRoutes, (sdk.ip_route_msg(prefix=p, nexthop_group="core") for p in prefixes))
            for method in (stub.GetRoutes, stub.GetNexthopGroups, stub.GetMplsRoutes):
                self.steady(lambda *call, method=method, **options: list(method(*call, **options)), agent_pb.get_msg())

    def volume(self):
        count = 2000
        body = self.scratch / "volume"
        prefix = {"addr": bytes([192, 168, 0, 0]), "mask_length": 16}
        route = sdk.ip_route_msg(prefix=prefix, nexthop_group="core")
        body.write_bytes(message(route.SerializeToString()))
        headers = ["te: trailers", "content-type: application/grpc", "username: volume"]
        command = ["h2load", "-n", str(count), "-c", "4", "-m", "8", "-d", str(body)]
        command += [part for header in headers for part in ("-H", header)]
        command.append(f"http://127.0.0.1:{self.port}/routing_agent.Routing/SetRoute")
        output = subprocess.run(command, capture_output=True, text=True, check=True).stdout
        self.called("volume", count)
        self.answered("volume", count=int(re.search(r"(\d+) succeeded", output)[1]))
        self.stopping.wait(1)

    # The watchers ----------------------------------------------------------------------------------------------

    def watched(self, streams):
        self.called("watcher", streams)
        self.answered("watcher", Code.CANCELLED, streams)

    def watches(self):
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

    def stalled_watches(self):
        """Read nothing, sometimes for so long that keepalive gives the connection up."""
        client = RawClient.watching(self.port, 20)
        self.watched(20)
        self.stopping.wait(random.choice([0.1, 1, 15]))
        client.close()

    def killed_watches(self):
        command = [sys.executable, __file__, STUBS, "victim", str(self.port), "20"]
        with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as process:
            if process.stdout.readline():
                self.watched(20)
            self.stopping.wait(random.random())
            process.kill()
        if process.returncode != -signal.SIGKILL:
            self.problems.append(f"killed_watches: exit code {process.returncode}")

    # The faulty ones -------------------------------------------------------------------------------------------

    def cancelled(self):
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

    def resets(self):
        """Many calls that are reset in one stroke."""
        streams = range(1, 200, 2)
        self.called("faulty", len(streams))
        sent = GREETING
        for stream in streams:
            sent += RawClient.call("faulty", "Routing/SetRoutes", stream) + frame(RST_STREAM, 0, stream, b"\0\0\0\x08")
        client = RawClient(self.port, sent)
        self.stopping.wait(0.2)
        client.close()

    def broken(self):
        """Connections that say nothing, nonsense, or half of something, and go or stay a while."""
        half = RawClient.call("faulty", "Routing/SetRoutes", 1) + frame(DATA, 0, 1, message(bytes(256)))[:100]
        self.called("faulty")
        for sent in (b"", PREFACE[:10], random.randbytes(500), PREFACE + random.randbytes(500), GREETING + half):
            client = RawClient(self.port, sent)
            self.stopping.wait(random.choice([0, 0, 0.1, 2]))
            client.close()


# ----------------------------------------------------------------------------------------------------------------
# The agent, and the reckoning


class Agent:
    def __init__(self, program, scratch):
        self.log = scratch / "accounting.log"
        self.errors = scratch / "agent.err"
        command = [program, "--listen", "127.0.0.1:0", "--local-credentials", "--log", str(self.log)]
        with open(self.errors, "w") as errors:
            self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=errors, text=True)
        self.port = int(re.search(r"port (\d+)", self.process.stdout.readline())[1])

        self.sockets = self.count("socket:")

    def count(self, kind=""):
        """Its open descriptors of a kind."""
        count = 0
        for descriptor in pathlib.Path(f"/proc/{self.process.pid}/fd").iterdir():
            with contextlib.suppress(FileNotFoundError):
                count += os.readlink(descriptor).startswith(kind)
        return count

    def usage(self):
        """What it uses, once every connection is closed; a connection that stays shows in the descriptors."""
        until = time.monotonic() + 30
        while self.count("socket:") > self.sockets and time.monotonic() < until:
            time.sleep(0.2)
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        memory, threads = (int(re.search(rf"{name}:\s+(\d+)", status)[1]) for name in ("VmRSS", "Threads"))
        return {"resident memory, KiB": memory, "descriptors": self.count(), "threads": threads}

    def stop(self):
        """Its exit code, and what the sanitizer says of leaks."""
        self.process.terminate()
        code = self.process.wait()
        leaked = re.search(r"(\d+) byte\(s\) leaked in (\d+) allocation", self.errors.read_text())
        return code, int(leaked[2]) if leaked else 0

    def records(self):
        """The statuses in the accounting log, by user."""
        records = collections.defaultdict(collections.Counter)
        line = re.compile(r"VORNSDKRPC_ACCOUNTING_RPC: user: local:(\w+), .*, status: (\d+)$")
        with open(self.log) as log:
            for text in log:
                user, status = line.search(text).groups()
                records[user][int(status)] += 1
        return records


def reckon(load, records, problems):
    """Prints the table of calls."""
    print(f"  {'':24}{'calls':>12}{'answers':>12}{'records':>12}")
    for user in load.USERS:
        calls, answers, written = load.calls[user], load.answers[user], records.pop(user, collections.Counter())
        print(f"  {user:24}{calls:12}{answers.total():12}{written.total():12}")
        if not calls:
            problems.append(f"no calls of {user}")
        if user == "faulty":
            if not answers.total() <= written.total() <= calls:
                problems.append("faulty: not answers <= records <= calls")
        elif calls != answers.total() or answers != written:
            problems.append(f"{user}: answered {dict(answers)}, recorded {dict(written)}")
    if records:
        problems.append(f"records of nobody: {dict(records)}")


def main(program, seconds, mode):
    with tempfile.TemporaryDirectory() as folder:
        scratch = pathlib.Path(folder)
        agent = Agent(program, scratch)
        load = Load(agent.port, scratch)
        usages = []  # after a first part, which fills every table and cache, and at the end
        for part in (seconds / 6, seconds * 5 / 6):
            load.start()
            time.sleep(part)
            load.stop()
            usages.append(agent.usage())
        code, leaks = agent.stop()
        problems = load.problems
        reckon(load, agent.records(), problems)
        if code:
            problems.append(f"the agent's exit code is {code}: {agent.errors.read_text()[-4000:]}")

    if mode == "leaks":
        print(f"  {'leaks':24}{leaks:12}")
    else:
        start, end = usages
        print(f"\n  {'':24}{'start':>12}{'end':>12}")
        for name in start:
            print(f"  {name:24}{start[name]:12}{end[name]:12}")
        # The allocator keeps what a burst took, and gRPC's threads come and go with its work.
        bounds = {"resident memory, KiB": start["resident memory, KiB"] + 16384}
        bounds |= {"descriptors": start["descriptors"], "threads": start["threads"] + 4}
        problems += [f"{name}: {end[name]} is above {int(most)}" for name, most in bounds.items() if end[name] > most]
    for problem in problems[:20]:
        print(f"  WRONG: {problem}")
    sys.exit(1 if problems else 0)


main(sys.argv[2], float(sys.argv[3]), sys.argv[4])
