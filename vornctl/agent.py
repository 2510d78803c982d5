"""The connection to an agent, and what became of a call. Whoever has no call to make does without this module: to
load gRPC takes longer than all the rest."""

import argparse
import contextlib
import ipaddress
import itertools
import os
import signal
import ssl
import threading
import time
from collections.abc import Callable, Iterator
from types import SimpleNamespace
from typing import Any

import grpc

import stubs
from output import complain
from values import FAILED, OK, UNREACHABLE, USAGE, Refused, UsageError, enum_name

LOOK = 0.5  # seconds between two looks at what waits
UNARY_TIMEOUT = 10.0  # seconds, where the user says nothing; streams have no limit then


def run(args: argparse.Namespace) -> int:
    """Runs the command of the command line, and answers its exit code."""
    with Agent(args, stubs.load()) as agent:
        try:
            code: int | None = args.run(agent, args)
            print(end="", flush=True)
            return code or OK
        except grpc.RpcError as error:
            return _call_failed(agent, error)


def _call_failed(agent: "Agent", error: grpc.RpcError) -> int:
    text = f"{error.code().name}: {error.details()}"
    if agent.may_not_be_opened():
        complain(f"{agent.server}: permission denied; its owner and its group may open it")
        return USAGE
    if agent.out_of_reach(error):
        complain(f"agent not reachable at {agent.server}: {text}")
        return UNREACHABLE
    complain(text)
    return UNREACHABLE if error.code() is grpc.StatusCode.RESOURCE_EXHAUSTED else FAILED


class Agent:
    """An agent's services, to be called with **unary or **stream as further arguments."""

    def __init__(self, args: argparse.Namespace, stubs: SimpleNamespace) -> None:
        self.sdk = stubs.sdk
        self.messages = stubs.agent
        self.policy_messages = stubs.policy
        self.server: str = args.server
        self.channel = _channel(args)
        self.routing = stubs.rpc.RoutingStub(self.channel)
        self.sbfd = stubs.rpc.SbfdStub(self.channel)
        self.state = stubs.rpc.StateStub(self.channel)
        self.status = stubs.rpc.StatusStub(self.channel)
        self.policy = stubs.policy_rpc.PolicyStub(self.channel)
        named = (("username", args.user), ("election-id", args.election_id))
        metadata = [(key, value) for key, value in named if value]
        self.patience: float = args.timeout or UNARY_TIMEOUT
        self.unary = {"timeout": self.patience, "metadata": metadata}
        self.stream = {"timeout": args.timeout, "metadata": metadata}

    def __enter__(self) -> "Agent":
        return self

    def __exit__(self, *_: object) -> None:
        self.channel.close()

    def change(self, method: grpc.UnaryUnaryMultiCallable, request: Any) -> str:
        """Makes one change. Answers the name of the agent's answer, which is SUCCESS. While the agent has no room
        for it, it is tried again, for as long as a call may take."""
        end = time.monotonic() + self.patience
        for pause in itertools.chain((0.05, 0.1, 0.2, 0.5), itertools.repeat(1)):
            try:
                reply = method(request, **self.unary)
                break
            except grpc.RpcError as error:
                if error.code() is not grpc.StatusCode.RESOURCE_EXHAUSTED or time.monotonic() + pause > end:
                    raise
            time.sleep(pause)
        answer = enum_name(reply, "rpc_status_value")
        if reply.rpc_status_value != self.sdk.rpc_status_msg.SUCCESS:
            raise Refused(answer)
        return answer

    def followed(self, method: grpc.UnaryStreamMultiCallable, request: Any, begun: Callable[[], bool]) -> Iterator[Any]:
        """The items of a watch, until Ctrl-C or, once it has `begun`, until the time is over that the user gave it."""
        call = method(request, **self.stream)
        if signal.getsignal(signal.SIGINT) is not signal.SIG_IGN:
            signal.signal(signal.SIGINT, lambda *_: call.cancel())
        try:
            yield from call
        except grpc.RpcError as error:
            over = begun() and error.code() is grpc.StatusCode.DEADLINE_EXCEEDED
            if not over and not call.cancelled():
                raise
            return
        raise Refused("the agent ended the watch")

    def all_tried(self, tell: Callable[[int], None]) -> Any:
        """Waits until every change has been tried, and answers the agent's summary. Tells how many wait meanwhile."""
        call = self.routing.AwaitAll.future(self.messages.await_all_msg(), **self.stream)
        while True:
            try:
                return call.result(timeout=LOOK)
            except grpc.FutureTimeoutError:
                with contextlib.suppress(grpc.RpcError):  # an older agent does not say
                    tell(self.status.Get(self.messages.get_status_msg(), **self.unary).backlog.waiting)

    def may_not_be_opened(self) -> bool:
        """Whether the agent is a Unix socket that this user may not connect to."""
        kind, _, path = self.server.partition(":")
        if kind != "unix":
            return False
        try:
            os.stat(path)
        except OSError as error:
            return isinstance(error, PermissionError)  # a folder on the way may not be searched
        return not os.access(path, os.W_OK, effective_ids=True)

    def out_of_reach(self, error: grpc.RpcError) -> bool:
        """Whether the call failed for want of an agent that can take it."""
        if error.code() is grpc.StatusCode.DEADLINE_EXCEEDED:
            return not self._connected()
        return error.code() is grpc.StatusCode.UNAVAILABLE

    def _connected(self) -> bool:
        states: list[grpc.ChannelConnectivity] = []
        told = threading.Event()

        def tell(state: grpc.ChannelConnectivity) -> None:
            states.append(state)
            told.set()

        self.channel.subscribe(tell)  # which is told the present state first
        told.wait(5)
        return states[:1] == [grpc.ChannelConnectivity.READY]


def _channel(args: argparse.Namespace) -> grpc.Channel:
    options: list[tuple[str, Any]] = [
        ("grpc.enable_http_proxy", 0),  # a proxy for the web is none for an agent
        ("grpc.max_receive_message_length", -1),
    ]
    if not (args.tls_ca or args.tls_cert or args.tls_key or args.tls_name):
        if args.local:
            return grpc.secure_channel(args.server, _local_credentials(args.server), options)
        return grpc.insecure_channel(args.server, options)
    if args.local:
        raise UsageError("--local and the --tls options exclude each other")
    if bool(args.tls_cert) != bool(args.tls_key):
        raise UsageError("--tls-cert and --tls-key go together")
    if args.tls_cert:
        _check_key(args.tls_cert, args.tls_key)
    if args.tls_name:
        options.append(("grpc.ssl_target_name_override", args.tls_name))
    credentials = grpc.ssl_channel_credentials(*(_content(path) for path in (args.tls_ca, args.tls_key, args.tls_cert)))
    return grpc.secure_channel(args.server, credentials, options)


def _check_key(cert: str, key: str) -> None:
    """Of a key that is another certificate's, gRPC would only say that there is nowhere to connect to."""
    try:
        ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT).load_cert_chain(cert, key, password=lambda: "")
    except ssl.SSLError as error:
        if error.reason == "KEY_VALUES_MISMATCH":
            raise UsageError(f"{key}: not the key of {cert}") from error
        raise UsageError(f"{cert} and {key} can't be used: {error.reason or 'no certificate and key'}") from error
    except OSError as error:
        raise UsageError(f"{error.filename or f'{cert} or {key}'}: {error.strerror}") from error


def _local_credentials(server: str) -> grpc.ChannelCredentials:
    if server.startswith("unix"):
        return grpc.local_channel_credentials(grpc.LocalConnectionType.UDS)
    host = server.rpartition(":")[0].strip("[]")
    if host != "localhost" and not _is_loopback(host):
        raise UsageError(f"--local is for Unix sockets and loopback addresses, not for {server}")
    return grpc.local_channel_credentials(grpc.LocalConnectionType.LOCAL_TCP)


def _is_loopback(host: str) -> bool:
    try:
        return ipaddress.ip_address(host).is_loopback
    except ValueError:
        return False


def _content(path: str | None) -> bytes | None:
    if path is None:
        return None
    try:
        with open(path, "rb") as file:
            content = file.read()
    except OSError as error:
        raise UsageError(f"{path}: {error.strerror}") from error
    if b"-----BEGIN " not in content:  # gRPC would only say that there is nowhere to connect to
        raise UsageError(f"{path}: no PEM file")
    return content
