#!/usr/bin/python3
"""Tests of vornctl against an agent that stands in for the real one, in this process."""

import contextlib
import io
import json
import os
import pty
import pwd
import queue
import signal
import socket
import subprocess
import sys
import tempfile
import unittest
import unittest.mock
from collections.abc import Callable, Iterator
from concurrent import futures
from pathlib import Path
from typing import Any

os.environ["GRPC_VERBOSITY"] = "NONE"
SCRATCH = tempfile.TemporaryDirectory()
os.environ["XDG_CACHE_HOME"] = SCRATCH.name
VORNCTL = Path(__file__).resolve().parents[1] / "vornctl"
sys.path.insert(0, str(VORNCTL))
sys.dont_write_bytecode = True

import grpc  # noqa: E402

import cli  # noqa: E402
import commands  # noqa: E402
import stubs  # noqa: E402

pb: Any = stubs.load()  # whose classes are made when it is called


def listing(kind: Any, field: str, table: str) -> Callable[..., Iterator[Any]]:
    """A method that answers a table in parts of two."""

    def answer(self: "FakeAgent", request: Any, context: Any) -> Iterator[Any]:
        items = list(getattr(self, table).values())
        states = [self.programming] * len(items) if self.programming else []
        if request.failed and (not states or states[0].state == states[0].PROGRAMMED):
            items = []
        for begin in range(0, len(items) + 1, 2):
            part = slice(begin, begin + 2)
            yield kind(waiting=self.waiting, programming=states[part], **{field: items[part]})

    return answer


def setting(table: str, key: str) -> Callable[..., Any]:
    """A method that keeps what it is told in a table."""

    def answer(self: "FakeAgent", request: Any, context: Any) -> Any:
        metadata = dict(context.invocation_metadata())
        self.users.append(metadata.get("username"))
        self.elected = metadata.get("election-id")
        place = str(getattr(request, key))
        if self.room_in > 0:
            self.room_in -= 1
            context.abort(grpc.StatusCode.RESOURCE_EXHAUSTED, "no room")
        if place == "late":
            context.abort(grpc.StatusCode.DEADLINE_EXCEEDED, "")
        if not getattr(request, "request_delete", False):
            getattr(self, table)[place] = request
        elif getattr(self, table).pop(place, None) is None:
            context.abort(grpc.StatusCode.NOT_FOUND, f"no\n{place}")
        return self.answer

    return answer


class FakeAgent(
    pb.rpc.RoutingServicer, pb.rpc.SbfdServicer, pb.rpc.StateServicer, pb.rpc.StatusServicer  # type: ignore[misc]
):
    """Keeps what it is told in the order of telling."""

    def __init__(self) -> None:
        self.routes: dict[str, Any] = {}
        self.groups: dict[str, Any] = {}
        self.mpls: dict[str, Any] = {}
        self.redirects: dict[str, Any] = {}
        self.sessions: dict[str, Any] = {}
        self.state: dict[str, str] = {}
        self.users: list[str | None] = []
        self.elected: str | None = None  # what the last change was sent with
        self.primary: Any = None
        self.waiting = 0
        self.programming: Any = None  # what becomes of everything; None: this agent does not say
        self.synced = False
        self.looks = 0  # at the status
        self.room_in = 0  # changes that are refused before there is room
        self.answer = pb.sdk.rpc_status_msg()
        self.news: queue.Queue[Any] = queue.Queue()  # of a watch; None ends it, and so does a status

    SetRoute = setting("routes", "prefix")
    SetNexthopGroup = setting("groups", "name")
    SetMplsRoute = setting("mpls", "label")
    SetRedirect = setting("redirects", "match_nexthop_group")
    SetSession = setting("sessions", "session_key")
    GetRoutes = listing(pb.agent.routes_msg, "route", "routes")
    GetNexthopGroups = listing(pb.agent.nexthop_groups_msg, "group", "groups")
    GetMplsRoutes = listing(pb.agent.mpls_routes_msg, "route", "mpls")
    GetRedirects = listing(pb.agent.redirects_msg, "redirect", "redirects")

    def SetRoutes(self, requests: Iterator[Any], context: Any) -> Any:
        for count, request in enumerate(requests):
            if request.nexthop_group == "bad":
                context.abort(grpc.StatusCode.INVALID_ARGUMENT, f"route {count}: nexthop_group")
            self.SetRoute(request, context)
        return pb.agent.set_routes_reply_msg(accepted=len(self.routes))

    def SetRouteParts(self, requests: Iterator[Any], context: Any) -> Any:
        return self.SetRoutes((route for part in requests for route in part.route), context)

    def DeleteRoute(self, request: Any, context: Any) -> Any:
        if self.routes.pop(str(request), None) is None:
            context.abort(grpc.StatusCode.NOT_FOUND, "no such route")
        return self.answer

    def DeleteRouteParts(self, requests: Iterator[Any], context: Any) -> Any:
        prefixes = [str(route.prefix) for part in requests for route in part.route]
        deleted = sum(self.routes.pop(prefix, None) is not None for prefix in prefixes)
        return pb.agent.delete_routes_reply_msg(deleted=deleted, missing=len(prefixes) - deleted)

    def Await(self, request: Any, context: Any) -> Any:
        assert str(request.route) in self.routes or request.group in self.groups
        return self.programming

    def AwaitAll(self, request: Any, context: Any) -> Any:
        return pb.agent.summary_msg(failed=2)

    def EndSync(self, request: Any, context: Any) -> Any:
        self.synced = True
        return self.answer

    def Announce(self, request: Any, context: Any) -> Any:
        self.primary = request.election_id
        return self.answer

    def GetSessions(self, request: Any, context: Any) -> Iterator[Any]:
        kind = pb.agent.session_state_msg
        states = [
            kind(session=s, status={"status": "UP"}, simulated=True, reason="no way") for s in self.sessions.values()
        ]
        yield pb.agent.sessions_msg(session=states)

    def WatchSessions(self, request: Any, context: Any) -> Iterator[Any]:
        updates = self.news
        context.add_callback(lambda: updates.put(None))
        kind = pb.sdk.watch_sbfd_echo_session_status_msg
        batch = [kind(session_key=s.session_key, status={"status": "UP"}) for s in self.sessions.values()]
        yield kind(bulk=[*batch, kind(end_of_status_batch=True)])
        while news := updates.get():
            if isinstance(news, grpc.StatusCode):
                context.abort(news, "")
            if request.request_rtt_updates or not news.HasField("rtt"):
                yield news

    def WatchRoutes(self, request: Any, context: Any) -> Iterator[Any]:
        updates = self.news
        context.add_callback(lambda: updates.put(None))
        kind, part = pb.agent.route_change_msg, pb.agent.route_changes_msg
        yield part(change=[kind(route=route, programming=self.programming) for route in self.routes.values()])
        yield part(synced=True)
        while news := updates.get():
            yield part(change=[news])

    def Get(self, request: Any, context: Any) -> Any:
        self.looks += 1
        return pb.agent.status_msg(
            version="1.2",
            started=10**18,
            time=10**18 + self.looks * 10**9,
            routes=len(self.routes),
            programs_kernel=True,
            kernel={"failed": 3},
            backlog={"waiting": 100 * self.looks, "done": 50 * self.looks},
            certificate_expires=2 * 10**18,
            primary=self.primary,
        )

    def Configure(self, request: Any, context: Any) -> Any:
        self.state.update((entry.key, entry.value) for entry in request.set)
        for item in getattr(request, "delete"):
            self.state.pop(item.key, None)
        return self.answer

    def Read(self, request: Any, context: Any) -> Any:
        texts = [f"{key}={value}" for key, value in sorted(self.state.items())]
        if request.key:
            texts = [self.state.get(key, "") for key in request.key]
        return pb.sdk.rpc_server_state_status_msg(value=[{"value": text} for text in texts])

    def ReadAll(self, request: Any, context: Any) -> Iterator[Any]:
        for key, value in sorted(self.state.items()):
            yield pb.sdk.rpc_server_state_status_msg(value=[{"value": f"{key}={value}"}])


class VornctlTest(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.serve()

    def serve(self, address: str = "127.0.0.1:0", credentials: grpc.ServerCredentials | None = None) -> None:
        """Starts an agent, of which self.agent and self.address tell from then on."""
        self.agent = FakeAgent()
        server = grpc.server(futures.ThreadPoolExecutor(8))
        for service in ("Routing", "Sbfd", "State", "Status"):
            getattr(pb.rpc, f"add_{service}Servicer_to_server")(self.agent, server)
        secure = [credentials] if credentials else []
        port = (server.add_secure_port if secure else server.add_insecure_port)(address, *secure)
        self.address = f"127.0.0.1:{port}" if address.endswith(":0") else address
        server.start()
        self.addCleanup(lambda: server.stop(None).wait())

    def file(self, name: str, text: str = "") -> str:
        path = self.folder / name
        path.write_text(text, encoding="utf-8")
        return str(path)

    def call(self, *words: str) -> tuple[Any, str, str]:
        """Runs a command in this process: its exit code, standard output and standard error."""
        out, err = io.StringIO(), io.StringIO()
        with contextlib.redirect_stdout(out), contextlib.redirect_stderr(err):
            code: Any
            try:
                code = cli.main(["--server", self.address, *words])
            except SystemExit as ended:
                code = ended.code
        return code, out.getvalue(), err.getvalue()

    def succeed(self, line: str) -> str:
        code, out, err = self.call(*line.split())
        self.assertEqual((code, err), (0, ""), line)
        return out

    def refuse(self, code: int, part: str, *words: str) -> None:
        """A command that fails, with one line that holds a text."""
        result = self.call(*words)
        self.assertEqual((result[0], result[1]), (code, ""), (words, result))
        self.assertRegex(result[2], r"\Avornctl[^\n]*\n\Z")
        self.assertIn(part, result[2])

    def start(self, *words: str, **options: Any) -> Any:
        """Starts a command as a process of its own."""
        command = [str(VORNCTL / "vornctl"), "--server", self.address, *words]
        options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "text": True, **options}
        process = subprocess.Popen(command, **options)
        self.addCleanup(process.__exit__, None, None, None)  # closes its pipes and waits for it
        self.addCleanup(process.kill)
        return process

    # -- the forms of things

    def test_what_is_set_arrives(self) -> None:
        for line in (
            "set route 10.0.0.0/8 group core --tag 7",
            "set group g nexthop fe80::1 interface eth0 push 100,200 replicate 2 session eth0 192.0.2.1"
            " labels 7,8 dscp 46 exp 5 nexthop none interface eth2 backup 192.0.2.9 pop-to-ipv6",
            "set redirect core to gold --ipv4-dscp 46,48 --ipv6-dscp 8",
            "set session eth0 2001:db8::1 dscp 46 labels 1 --rtt --min-tx 100 --multiplier 3" " --track-interface",
        ):
            self.assertEqual(self.succeed(line), "")
        v6 = socket.inet_pton(socket.AF_INET6, "2001:db8::1")
        self.assertEqual(
            list(self.agent.routes.values()),
            [pb.sdk.ip_route_msg(prefix={"addr": b"\x0a\0\0\0", "mask_length": 8}, nexthop_group="core", tag=7)],
        )
        self.assertEqual(
            self.agent.groups["g"],
            pb.sdk.nexthop_group_msg(
                name="g",
                nexthop=[
                    {
                        "nexthop_ip": {"addr": b"\xfe\x80" + b"\0" * 13 + b"\1"},
                        "nexthop_interface": "eth0",
                        "mpls_op": "MPLS_PUSH",
                        "labels": [100, 200],
                        "replicate_count": 2,
                        "sbfd_session_key": {
                            "outgoing_interface": "eth0",
                            "nexthop": {"addr": b"\xc0\0\2\1"},
                            "labels": [7, 8],
                            "dscp": 46,
                            "mpls_exp": 5,
                        },
                    },
                    {"nexthop_ip": {"addr": b""}, "nexthop_interface": "eth2"},
                ],
                backup_nexthop=[{"nexthop_ip": {"addr": b"\xc0\0\2\x09"}, "mpls_op": "MPLS_POP_TO_IPV6"}],
            ),
        )
        self.assertEqual(
            self.agent.redirects["core"],
            pb.sdk.cbf_nexthop_group_redirect_msg(
                match_nexthop_group="core", redirect_nexthop_group="gold", match_ipv4_dscp=[46, 48], match_ipv6_dscp=[8]
            ),
        )
        self.assertEqual(
            list(self.agent.sessions.values()),
            [
                pb.sdk.sbfd_echo_session_msg(
                    session_key={"outgoing_interface": "eth0", "nexthop": {"addr": v6}, "dscp": 46, "labels": [1]},
                    rtt_enabled=True,
                    min_tx=100,
                    detection_multiplier=3,
                    track_interface_state=True,
                )
            ],
        )

    def test_what_is_listed_can_be_set_again(self) -> None:
        hop = "none interface eth0 swap 200 replicate 3 session eth0 192.0.2.1 labels 7 dscp 1 exp 2"
        lines = [f"0      nexthop {hop}", "1      group core swap", "2      group core pop", "3      vrf red"]
        for line in lines:
            self.succeed(f"set mpls {line}")
        self.assertEqual(self.succeed("list mpls").splitlines()[1:], lines)

        saved = self.file("saved", "# kept\n10.0.0.0/8 core 7  # ten\n\n::/0 - \n192.0.2.1 core\n")
        self.assertEqual(self.succeed(f"set routes --file {saved}"), "3 routes set\n")
        first = dict(self.agent.routes)
        out = self.succeed("list routes")
        self.assertEqual(
            out, "PREFIX        GROUP  TAG\n10.0.0.0/8    core   7\n::/0          -      0\n" "192.0.2.1/32  core   0\n"
        )
        self.agent.routes.clear()
        again = self.start("set", "routes", "--file", "-", stdin=subprocess.PIPE)
        self.assertEqual((again.communicate(out), again.returncode), (("3 routes set\n", ""), 0))
        self.assertEqual(self.agent.routes, first)

    def test_many_routes_are_sent_as_they_stand_in_their_file(self) -> None:
        routes = {}
        for number in range(2000):  # of several parts, in the usual form and in others
            address = bytes([10, number // 256, number % 256, 0])
            length = (32, 24)[number % 2]
            routes[number] = pb.sdk.ip_route_msg(
                prefix={"addr": address, "mask_length": length},
                nexthop_group=f"group{number % 3}",
                tag=(0, 127, 128, 2**32 - 1)[number % 4],
            )
        routes[7].prefix.CopyFrom(pb.sdk.ip_prefix_msg(addr=bytes(16), mask_length=0))
        routes[9].prefix.CopyFrom(pb.sdk.ip_prefix_msg(addr=bytes(4), mask_length=0))
        routes[11].nexthop_group = "n" * 200
        texts = {4: socket.AF_INET, 16: socket.AF_INET6}
        places = [socket.inet_ntop(texts[len(r.prefix.addr)], r.prefix.addr) for r in routes.values()]
        lines = (
            f"{place}/{route.prefix.mask_length} {route.nexthop_group} {route.tag}\n"
            for place, route in zip(places, routes.values())
        )
        self.succeed(f"set routes --file {self.file('many', ''.join(lines))}")
        self.assertEqual(list(self.agent.routes.values()), list(routes.values()))
        self.agent.routes.clear()
        good = "10.0.0.0/8 core\n"
        for bad in (
            "10.0.0.1/8 core",
            "10.0.0.0/33 core",
            "10.0.0.0/+8 core",
            "10.0.0.0/8 core 4294967296",
            "10/8 core",
        ):
            self.assertEqual(self.call("set", "routes", "--file", self.file("bad", good * 3 + bad))[0], 2, bad)
        self.assertEqual(self.agent.routes, {})

    def test_every_group_can_be_saved_and_set_again(self) -> None:
        names = ["a#b", "#a", "a b", '"', "-", "tab\t", "\u202ebidi", "no\u00a0break", "back\\slash", "gr\u00fcn"]
        for number, name in enumerate(names):
            self.agent.routes[str(number)] = pb.sdk.ip_route_msg(
                prefix={"addr": bytes([10, number, 0, 0]), "mask_length": 16}, nexthop_group=name, tag=number
            )
        saved = self.file("saved", self.succeed("list routes"))
        before = list(self.agent.routes.values())
        self.agent.routes.clear()
        self.succeed(f"set routes --file {saved}")
        self.assertEqual(list(self.agent.routes.values()), before)
        for bad in ('"\\x" 1', '"\\ud800" 1', '"core"7'):
            code, _, err = self.call("set", "routes", "--file", self.file("bad", f"10.0.0.0/8 {bad}\n"))
            self.assertEqual((code, err.count("\n")), (2, 1), bad)

    def test_lists(self) -> None:
        self.agent.waiting = 5
        for line in (
            "group te nexthop 192.0.2.1 interface eth0 backup 192.0.2.9 push 16",
            "group empty",
            "redirect core to gold --ipv4-dscp 46,48",
            "session eth0 192.0.2.1 labels 7",
        ):
            self.succeed(f"set {line}")
        code, out, err = self.call("list", "groups")
        self.assertEqual((code, err), (0, "vornctl: 5 changes are still waiting to be programmed\n"))
        self.assertEqual(
            out,
            "GROUP  ROLE     NEXT HOP\n"
            "te     nexthop  192.0.2.1 interface eth0\n"
            "te     backup   192.0.2.9 push 16\n"
            "empty  -        -\n",
        )
        groups = json.loads(self.succeed("--json list groups"))["groups"]
        self.assertEqual(
            groups[0]["backups"],
            [
                {
                    "address": "192.0.2.9",
                    "interface": "",
                    "operation": "push",
                    "labels": [16],
                    "replicate": 0,
                    "session": None,
                }
            ],
        )
        key = {"interface": "eth0", "address": "192.0.2.1", "labels": [7], "dscp": 0, "exp": 0}
        for what, table, document in (
            (
                "redirects",
                "GROUP  IPV4 DSCP  IPV6 DSCP  TO\ncore   46,48      -          gold\n",
                {"redirects": [{"group": "core", "to": "gold", "ipv4_dscp": [46, 48], "ipv6_dscp": []}], "waiting": 5},
            ),
            (
                "sessions",
                "SESSION                  STATUS\neth0 192.0.2.1 labels 7  UP (simulated): no way\n",
                {"sessions": [{"session": key, "status": "UP", "simulated": True, "reason": "no way", "rtt": None}]},
            ),
            ("routes", "PREFIX  GROUP  TAG\n", {"routes": [], "waiting": 5}),
        ):
            self.assertEqual(self.call("list", what)[1], table)
            self.assertEqual(json.loads(self.succeed(f"list {what} --json")), document)

    def test_a_document_makes_an_agent_like_another(self) -> None:
        for line in (
            "group core nexthop 192.0.2.1 interface eth0 push 7,8 session eth0 ::1 dscp 3 backup none interface e",
            "group gold nexthop 192.0.2.2",
            "mpls 1 nexthop 192.0.2.1 swap 9",
            "mpls 2 group core pop",
            "mpls 3 vrf red",
            "redirect core to gold --ipv4-dscp 46",
            "route 10.0.0.0/8 group core --tag 7",
            "route ::/0 group gold",
        ):
            self.succeed(f"set {line}")
        self.succeed("state set a=b")
        saved = self.file("saved", self.succeed("save"))
        self.assertEqual(self.succeed(f"diff {saved}"), "")

        first = self.agent
        self.serve()
        self.succeed("set group gold nexthop 192.0.2.2")
        self.succeed("set route 10.0.0.0/8 group gold")
        self.succeed("set group old nexthop 192.0.2.9")
        code, out, _ = self.call("diff", saved)
        self.assertEqual(code, 1)
        self.assertIn("- route 10.0.0.0/8 group gold\n+ route 10.0.0.0/8 group core --tag 7\n", out)
        self.assertIn("- group old nexthop 192.0.2.9\n", out)
        self.assertNotIn("gold nexthop", out)
        self.succeed(f"apply {saved} --prune --dry-run")
        self.assertEqual(list(self.agent.groups), ["gold", "old"])
        self.assertEqual(self.succeed(f"apply {saved} --prune"), "8 set, 1 deleted\n")
        self.assertEqual(self.succeed(f"apply {saved} --prune"), "0 set, 0 deleted\n")
        for table in ("routes", "groups", "mpls", "redirects", "state"):
            self.assertEqual(getattr(self.agent, table), getattr(first, table))

        for part, text in (
            ("no JSON document", "{"),
            ("no JSON object", "[]"),
            ("'rutes' is none of", '{"rutes": []}'),
            ("routes[0]: 'prefix' is missing", '{"routes": [{}]}'),
            ("routes[1]: ::/0 stands twice", '{"routes": [{"prefix": "::/0"}, {"prefix": "::/0"}]}'),
            ("groups[0]: 'nam' is none of", '{"groups": [{"nam": "x"}]}'),
            ("mpls[0]: not as list mpls", '{"mpls": [{"label": "1"}]}'),
            ("state is no object", '{"state": ["a"]}'),
        ):
            self.refuse(2, part, "apply", self.file("bad", text))

    def test_show(self) -> None:
        for line in ("group core nexthop 192.0.2.1 nexthop none interface e", "route 10.0.0.0/8 group core"):
            self.succeed(f"set {line}")
        self.succeed("set route 10.50.0.0/16 group gone --tag 7")
        self.assertEqual(
            self.succeed("show route 10.51.0.1"),
            "PREFIX      GROUP  TAG  NEXT HOP          STATE\n"
            "10.0.0.0/8  core   0    192.0.2.1         -\n"
            "                        none interface e\n",
        )
        self.assertIn("10.50.0.0/16  gone   7    (there is no such group)", self.succeed("show route 10.50.3.4"))
        routes = json.loads(self.succeed("show route 10.0.0.0/8 --json"))["routes"]
        self.assertEqual([route["prefix"] for route in routes], ["10.0.0.0/8", "10.50.0.0/16"])
        self.refuse(1, "no route for 11.0.0.1", "show", "route", "11.0.0.1")
        self.assertEqual(json.loads(self.succeed("show summary --json"))["ipv4_routes"], 2)

    def test_what_became_of_it_in_the_kernel(self) -> None:
        refused = pb.agent.programming_msg(state="FAILED", reason="Network is unreachable", time=10**18)
        done = pb.agent.programming_msg(state="PROGRAMMED", time=10**18)
        for programming, code, failed in ((done, 0, 0), (refused, 1, 1)):
            self.agent.programming = programming
            for line in ("route ::/0 group core --wait", "group core nexthop ::1 --wait"):
                self.assertEqual(self.call("set", *line.split())[0], code)
            self.assertEqual(len(json.loads(self.succeed("list routes --failed --json"))["routes"]), failed)
            shown = self.succeed("list routes")
            self.assertEqual(self.succeed(f"set routes --file {self.file('again', shown)}"), "1 routes set\n")
        self.assertRegex(shown, r"(?m)^::/0 +core +0 +failed: Network is unreachable \(since 2001-09-09 .*\)$")
        saved = self.file("listed", self.succeed("list routes --json"))
        self.assertEqual(self.succeed(f"apply {saved}"), "0 set, 0 deleted\n")
        self.refuse(1, "2 of what the agent holds could not be programmed", "apply", saved, "--wait")
        self.assertEqual(json.loads(self.succeed("show summary --json"))["states"], {"failed": 2})
        self.agent.programming = pb.agent.programming_msg(state="ADOPTED")
        self.assertEqual(json.loads(self.succeed("save"))["routes"], [])
        adopted = self.file("adopted", self.succeed("list routes"))
        self.assertEqual(self.succeed(f"delete routes --file {adopted}"), "0 routes deleted\n")
        self.succeed("end-sync")
        self.assertTrue(self.agent.synced)

    def test_state(self) -> None:
        self.succeed("state set owner=lab=3 window= b=1")
        self.assertEqual(self.succeed("state get"), "KEY     VALUE\nb       1\nowner   lab=3\nwindow\n")
        self.succeed("state delete b nothing")
        self.assertEqual(json.loads(self.succeed("state get owner b --json")), {"owner": "lab=3", "b": ""})

    def test_delete(self) -> None:
        for thing, more in (
            ("route ::/0", "group g"),
            ("group g", ""),
            ("mpls 3", "vrf red"),
            ("redirect g", "to h"),
            ("session eth0 192.0.2.1 labels 7", ""),
        ):
            self.succeed(f"set {thing} {more}")
            self.assertEqual(self.succeed(f"delete {thing} --json"), '{"result": "SUCCESS"}\n')
            self.refuse(1, "NOT_FOUND: no", "delete", *thing.split())
        self.succeed("set route ::/0 group g")
        routes = self.file("routes", "::/0\n10.0.0.0/8 core 7\n")
        self.assertEqual(self.succeed(f"delete routes --file {routes}"), "1 routes deleted\n")

    def test_what_an_agent_says_can_not_take_the_terminal(self) -> None:
        self.agent.groups["x"] = pb.sdk.nexthop_group_msg(name="a\x1b[2J\nb")
        self.agent.routes["x"] = pb.sdk.ip_route_msg(prefix={"addr": b"12345"})
        self.agent.mpls["1"] = pb.sdk.mpls_route_msg(label=1, nexthop={"mpls_op": 9})
        self.assertEqual(self.succeed("list groups").splitlines()[1], r"a\x1b[2J\nb  -     -")
        self.assertIn("0x3132333435/0", self.succeed("list routes"))
        self.assertIn("nexthop none 9", self.succeed("list mpls"))

    # -- what goes wrong

    def test_unusable_commands(self) -> None:
        bad = self.file("bad", "PREFIX GROUP TAG\n10.0.0.0/8 core\n10.0.0.0/8 core x\n")
        for part, line in (
            ("COMMAND", ""),
            ("did you mean list?", "lsit routes"),
            ("did you mean --server?", "list routes --sever x"),
            ("no IPv4", "show route 10.0.0"),
            ("WHAT", "set"),
            ("--fil", "set routes --fil x"),
            ("'grp'", "set route ::/0 grp g"),
            ("the prefix is 10.0.0.0/8", "delete route 10.1.0.0/8"),
            ("no IPv4", "delete route 1.2.3/8"),
            ("no number", "delete mpls 4294967296"),
            ("give the interface", "delete session e fe80::1%e"),
            ("expected the labels", "set session e 192.0.2.1 labels"),
            ("'pushh'", "set group g nexthop 192.0.2.1 pushh 3"),
            ("second operation", "set group g nexthop ::1 pop push 3"),
            ("twice", "set group g nexthop ::1 interface a interface b"),
            ("'lost'", "set mpls 3 vrf red lost"),
            ("none of nexthop", "set mpls 3 via 192.0.2.1"),
            ("KEY=VALUE", "state set owner"),
            ("bad:3: 'x' is no number", f"set routes --file {bad}"),
            ("No such file", "set routes --file /x"),
            ("go together", "list routes --tls-cert x"),
            ("exclude", "list routes --local --tls-ca x"),
            ("/x: No such file", "list routes --tls-ca /x"),
            ("no PEM", f"list routes --tls-ca {bad}"),
            ("HOST:PORT", "list routes --server unix:"),
            ("not for 192.0.2.1:1", "list routes --local --server 192.0.2.1:1"),
            ("above 0", "list routes --timeout nan"),
        ):
            with self.subTest(line):
                self.refuse(2, part, *line.split())
        self.refuse(2, "UTF-8", "state", "set", "a=\udcff")
        self.refuse(2, "ASCII", "list", "routes", "--user", "é")
        self.assertEqual((self.agent.routes, self.agent.groups, self.agent.mpls), ({}, {}, {}))

    def test_refused_and_failed(self) -> None:
        self.agent.answer = pb.sdk.rpc_status_msg(rpc_status_value="NO_RESOURCES")
        self.refuse(1, "NO_RESOURCES", "set", "group", "g")
        routes = self.file("routes", "10.0.0.0/8 core\n10.1.0.0/16 bad\n10.2.0.0/16 core\n")
        self.refuse(1, "INVALID_ARGUMENT: route 1: nexthop_group", "set", "routes", "--file", routes)
        self.assertEqual(len(self.agent.routes), 1)
        self.refuse(1, "DEADLINE_EXCEEDED", "set", "group", "late")
        self.agent.answer = pb.sdk.rpc_status_msg()
        self.agent.room_in = 2
        self.succeed("set group g")
        self.agent.room_in = 1000
        self.refuse(3, "RESOURCE_EXHAUSTED: no room", "set", "group", "g", "--timeout", "0.1")

    def test_no_agent(self) -> None:
        with socket.create_server(("127.0.0.1", 0)) as mute:
            self.address = f"127.0.0.1:{mute.getsockname()[1]}"
            self.refuse(3, "DEADLINE_EXCEEDED", "list", "routes", "--timeout", "0.3")
        self.refuse(3, f"agent not reachable at {self.address}: UNAVAILABLE", "list", "routes")

    @unittest.skipIf(os.geteuid(), "only root can become somebody else")
    def test_a_socket_that_may_not_be_opened(self) -> None:
        self.serve(f"unix:{self.folder}/agent")
        for folder, socket_file in ((0o700, 0o666), (0o755, 0o600)):
            self.folder.chmod(folder)
            (self.folder / "agent").chmod(socket_file)
            os.seteuid(pwd.getpwnam("nobody").pw_uid)
            try:
                with unittest.mock.patch.object(stubs, "load", lambda: pb):  # whose files are the test's own
                    self.refuse(2, "permission denied", "list", "routes")
            finally:
                os.seteuid(0)

    # -- watches, pipes and terminals

    def update(self, **what: Any) -> Any:
        key = {"outgoing_interface": "eth0", "nexthop": {"addr": b"\xc0\0\2\1"}}
        return pb.sdk.watch_sbfd_echo_session_status_msg(session_key=key, **what)

    def test_watch(self) -> None:
        self.succeed("set session eth0 192.0.2.1")
        rtt = self.update(rtt={"last_rtt": 4, "min_rtt": 1, "avg_rtt": 2, "max_rtt": 5})
        for words, last in (((), "DOWN"), (("--rtt",), "rtt last 4 min 1 avg 2 max 5 us")):
            watch = self.start("watch", "sessions", *words)
            self.assertRegex(watch.stdout.readline(), r"^TIME +SESSION         STATUS$")
            self.assertRegex(watch.stdout.readline(), r"^\d{4}-\d\d-\d\d [\d:.]+[+-]\d\d:\d\d  eth0 192.0.2.1  UP$")
            bulk = [self.update(status={"status": "DOWN"}), rtt][: 1 + len(words)]
            self.agent.news.put(pb.sdk.watch_sbfd_echo_session_status_msg(bulk=bulk))
            lines = [watch.stdout.readline() for _ in bulk]
            self.assertIn("eth0 192.0.2.1  DOWN", lines[0])
            self.assertIn(last, lines[-1])
            watch.send_signal(signal.SIGINT)
            self.assertEqual((watch.communicate(), watch.returncode), (("", ""), 0))
            self.agent.news = queue.Queue()

        for news in (rtt, grpc.StatusCode.DEADLINE_EXCEEDED):
            self.agent.news.put(news)
        watch = self.start("watch", "sessions", "--json", "--rtt", "--timeout", "60")
        out, err = watch.communicate()
        self.assertEqual((err, watch.returncode), ("", 0))
        first, end, news = map(json.loads, out.splitlines())
        self.assertEqual((first["status"], end["end_of_batch"], news["rtt"]["last"]), ("UP", True, 4))
        for news, part in ((None, "the agent ended the watch"), (grpc.StatusCode.CANCELLED, "CANCELLED")):
            self.agent.news = queue.Queue()
            self.agent.news.put(news)
            watch = self.start("watch", "sessions")
            self.assertIn(part, watch.communicate()[1])
            self.assertEqual(watch.returncode, 1)

    def test_watch_routes(self) -> None:
        route = pb.sdk.ip_route_msg(prefix={"addr": b"\x0a\0\0\0", "mask_length": 8}, nexthop_group="core", tag=7)
        self.agent.routes["10"] = route
        self.agent.programming = pb.agent.programming_msg(state="WAITING", reason="not yet")
        stamp = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d"
        done = pb.agent.route_change_msg(route=route, programming={"state": "PROGRAMMED"})
        gone = pb.agent.route_change_msg(route={"prefix": route.prefix}, removed=True)
        for words, lines in (
            (
                (),
                [
                    rf"^{stamp}  10\.0\.0\.0/8 +core  7  waiting: not yet$",
                    rf"^{stamp}  -- 1 routes; changes follow --$",
                    rf"^{stamp}  10\.0\.0\.0/8 +core  7  programmed$",
                    rf"^{stamp}  10\.0\.0\.0/8 +removed$",
                ],
            ),
            (
                ("--json",),
                [
                    r'"state": "waiting", "reason": "not yet".*"removed": false',
                    r'"synced": true, "routes": 1',
                    r'"tag": 7, "state": "programmed"',
                    r'"prefix": "10.0.0.0/8", "removed": true',
                ],
            ),
        ):
            self.agent.news = queue.Queue()
            watch = self.start("watch", "routes", *words)
            for news in (done, gone):
                self.agent.news.put(news)
            for line in lines:
                self.assertRegex(watch.stdout.readline(), line)
            watch.send_signal(signal.SIGINT)
            self.assertEqual((watch.communicate(), watch.returncode), (("", ""), 0))

    def test_status(self) -> None:
        self.succeed("set route 10.0.0.0/8 group core")
        told = json.loads(self.succeed("status --json"))
        self.assertEqual(
            (told["version"], told["uptime_seconds"], told["kernel"]["failed"], told["backlog"]["waiting"]),
            ("1.2", 1, 3, 100),
        )
        self.assertEqual((told["tables"]["routes"], told["authorities_expire"]), (1, None))
        self.assertRegex(self.succeed("status"), r"(?m)^changes waiting +200$")
        report = self.succeed("show tech")
        for part in ("=== status\n", "=== policy\nnot to be had: UNIMPLEMENTED", "=== routes\nPREFIX", "10.0.0.0/8"):
            self.assertIn(part, report)
        looks = self.agent.looks
        live = self.start("top", "--interval", "0.01", "--count", "3", env={**os.environ, "COLUMNS": "100"})
        out, err = live.communicate()
        self.assertEqual((err, live.returncode, self.agent.looks - looks), ("", 0, 3))
        self.assertRegex(out, r"done a second +50")
        self.assertRegex(out, rf"highest: {100 * self.agent.looks}")

    def test_election(self) -> None:
        self.assertRegex(self.succeed("status"), r"(?m)^primary's election id +none")
        self.succeed("set group g --election-id 18446744073709551615")
        self.assertEqual(self.agent.elected, "18446744073709551615")
        for id, high, low in (("7", 0, 7), ("1:0", 1, 0)):
            self.succeed(f"announce --election-id {id}")
            self.assertEqual((self.agent.primary.high, self.agent.primary.low), (high, low))
            self.assertRegex(self.succeed("status"), rf"(?m)^primary's election id +{id}$")
        for id in ("0", "0:0", "-1", "1:2:3", "", "18446744073709551616"):
            self.refuse(2, "is neither NUMBER nor HIGH:NUMBER", "set", "group", "g", "--election-id", id)
        self.refuse(2, "needs --election-id", "announce")

    def test_closed_pipe(self) -> None:
        watch = self.start("watch", "sessions", "--json")
        watch.stdout.readline()
        watch.stdout.close()
        self.agent.news.put(self.update(status={"status": "DOWN"}))
        self.assertEqual((watch.stderr.read(), watch.wait()), ("", 0))
        with open("/dev/full", "w") as full:
            listing = self.start("list", "routes", stdout=full)
            self.assertEqual(listing.communicate()[1], "vornctl: standard output: No space left on device\n")
            self.assertEqual(listing.returncode, 1)

    def test_progress_on_a_terminal(self) -> None:
        count = commands.PROGRESS_FROM
        path = self.file("routes", "".join(f"10.{n // 256}.{n % 256}.0/24 core\n" for n in range(count)))
        terminal, end = pty.openpty()
        sending = self.start("set", "routes", "--file", path, stderr=end)
        os.close(end)
        seen = b""
        with contextlib.suppress(OSError):  # how a terminal says that nobody holds its other end
            while part := os.read(terminal, 4096):
                seen += part
        os.close(terminal)
        self.assertEqual((sending.communicate()[0], sending.returncode), (f"{count} routes set\n", 0))
        self.assertRegex(seen.decode(), rf"\[#+\] 100%  {count}/{count}  \d+/s")
        self.assertTrue(seen.endswith(b"\r\x1b[K"), seen[-80:])

    # -- connections

    def test_local_credentials_and_user(self) -> None:
        self.serve(f"unix:{self.folder}/socket", grpc.local_server_credentials(grpc.LocalConnectionType.UDS))
        self.succeed("set group g --local --user alice")
        self.assertEqual(self.agent.users, ["alice"])

    def test_tls(self) -> None:
        for name in ("agent", "me"):
            request = f"openssl req -x509 -newkey rsa:2048 -nodes -subj /CN={name} -addext subjectAltName=DNS:{name}"
            files = f"-keyout {name}.key -out {name}.pem"
            subprocess.run(f"{request} {files}".split(), cwd=self.folder, check=True, capture_output=True)
        key, cert, ca = ((self.folder / name).read_bytes() for name in ("agent.key", "agent.pem", "me.pem"))
        self.serve(credentials=grpc.ssl_server_credentials([(key, cert)], ca, require_client_auth=True))
        theirs, mine = f"--tls-ca {self.folder}/agent.pem", f"--tls-cert {self.folder}/me.pem"
        mine += f" --tls-key {self.folder}/me.key --tls-name agent"
        self.succeed(f"list routes {theirs} {mine}")
        other = mine.replace("me.key", "agent.key")
        self.refuse(2, f"agent.key: not the key of {self.folder}/me.pem", "list", "routes", *other.split())
        for line in (
            f"{theirs} {mine} --tls-name x",
            f"{theirs} --tls-name agent",
            f"--tls-ca {self.folder}/me.pem {mine}",
        ):
            self.refuse(3, "UNAVAILABLE", "list", "routes", *line.split())

    # -- the first use

    def test_first_use(self) -> None:
        with tempfile.TemporaryDirectory() as cache:
            env = {**os.environ, "XDG_CACHE_HOME": cache}
            poor = self.start("list", "routes", env={**env, "PATH": "/nowhere"})
            self.assertIn("vornctl: protoc and grpc_python_plugin not found", poor.communicate()[1])
            self.assertEqual(poor.returncode, 2)
            several = [self.start("list", "routes", env=env) for _ in range(4)]
            for process in several:
                self.assertEqual((process.communicate()[1], process.returncode), ("", 0))
            self.assertEqual(len(list(Path(cache, "vornctl").iterdir())), 1)


if __name__ == "__main__":
    unittest.main()
