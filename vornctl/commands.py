"""The commands. Each is given the agent and the arguments of its command line."""

from __future__ import annotations

import argparse
import itertools
import json
import sys
from collections.abc import Callable, Iterator
from typing import TYPE_CHECKING, Any

import values
from routes import ROUTES_A_PART, Encoder, Parts, sent
from output import Progress, complain, print_json, print_json_list, print_table, printable
from values import Refused, UsageError, Words

if TYPE_CHECKING:
    from agent import Agent

PROGRESS_FROM = 1000  # routes in a file from which on a bar is shown
ROUTE_HEADER = ["PREFIX", "GROUP", "TAG"]
STATES = ("waiting", "programmed", "failed", "adopted")  # behind them a line of a list says more


# ----------------------------------------------------------------------------------------------------------
# set and delete


def changed(agent: Agent, args: argparse.Namespace, method: Any, request: Any, **named: Any) -> None:
    """Makes a change. With --wait it also waits until what is `named` is in the kernel."""
    answer = agent.change(method, request)
    if getattr(args, "wait", False):
        programming = agent.routing.Await(agent.messages.await_msg(or_waiting=True, **named), **agent.stream)
        if programming.state != programming.PROGRAMMED:
            raise Refused(values.programming_text(programming))
    if args.json:
        print_json({"result": answer})


def all_programmed(agent: Agent) -> None:
    """Waits until every change has been tried, and fails when one was refused."""
    with Progress(0, sys.stderr.isatty(), word="changes wait to be programmed") as progress:
        summary = agent.all_tried(progress.draw)
    if summary.failed:
        raise Refused(f"{summary.failed} of what the agent holds could not be programmed: see list --failed")


def end_sync(agent: Agent, args: argparse.Namespace) -> None:
    changed(agent, args, agent.routing.EndSync, agent.messages.end_sync_msg())


def announce(agent: Agent, args: argparse.Namespace) -> None:
    if not args.election_id:
        raise UsageError("announce needs --election-id")
    *high, low = args.election_id.split(":")
    election_id = {"high": int(high[0]) if high else 0, "low": int(low)}
    changed(agent, args, agent.routing.Announce, agent.messages.announce_msg(election_id=election_id))


def set_route(agent: Agent, args: argparse.Namespace) -> None:
    route = agent.sdk.ip_route_msg(prefix=args.prefix, nexthop_group=args.group, tag=args.tag)
    changed(agent, args, agent.routing.SetRoute, route, route=route.prefix)


def set_routes(agent: Agent, args: argparse.Namespace) -> None:
    parts = Parts()
    encoder = Encoder()
    with Progress(0, sys.stderr.isatty(), word="routes read") as progress:
        for place, words in progress.counted(file_lines(args.file)):
            try:
                parts.add(encoder.usual(words))
            except (KeyError, ValueError, OSError):  # not the usual form, or a mistake
                route = read_route(agent, place, words, with_group=True)
                encoder.learn(words, route)
                parts.add_message(route)
    send_routes(agent, parts)
    if args.wait:
        all_programmed(agent)
    if args.json:
        print_json({"accepted": parts.count})
    else:
        print(f"{parts.count} routes set")


def shows_progress(parts: Parts) -> bool:
    return parts.count >= PROGRESS_FROM and sys.stderr.isatty()


def send_routes(agent: Agent, parts: Parts) -> None:
    with Progress(parts.count, shows_progress(parts), ROUTES_A_PART) as progress:
        kind = agent.messages.set_routes_reply_msg
        reply = sent(agent.channel, "SetRouteParts", parts, progress.counted, kind, **agent.stream)
    if reply.accepted != parts.count:
        raise Refused(f"the agent took {reply.accepted} of {parts.count} routes")


def file_lines(path: str) -> Iterator[tuple[str, list[str]]]:
    """The place and the words of each line of a file that holds a route."""
    name = "standard input" if path == "-" else path
    try:
        with open(0 if path == "-" else path, encoding="utf-8", closefd=path != "-") as file:
            yield from route_lines(file, name)
    except UnicodeDecodeError as error:
        raise UsageError(f"{name}: no UTF-8 text") from error
    except OSError as error:
        raise UsageError(f"{name}: {error.strerror}") from error


def route_lines(file: Any, name: str) -> Iterator[tuple[str, list[str]]]:
    """The place and the words of each line that holds a route."""
    for position, line in enumerate(file, start=1):
        words = line.split()
        if '"' in line or "#" in line:
            words = list(itertools.takewhile(lambda word: word[0] != "#", values.WORD.findall(line)))
        if words[3:4] == ["adopted"]:  # what an earlier run of the agent has left is nobody's wish
            continue
        if words and words[:3] != ROUTE_HEADER:
            yield f"{name}:{position}", words


def read_route(agent: Agent, place: str, words: list[str], with_group: bool) -> Any:
    try:
        if words[3:4] and words[3].rstrip(":") in STATES:
            words = words[:3]
        if len(words) > 3 or len(words) < 1 + with_group:
            raise UsageError("expected PREFIX GROUP [TAG]" if with_group else "expected PREFIX [GROUP [TAG]]")
        route = agent.sdk.ip_route_msg(prefix=values.prefix(words[0]))
        if len(words) > 1 and words[1] != "-":
            route.nexthop_group = values.name(words[1])
        route.tag = values.number(words[2]) if len(words) == 3 else 0
        return route
    except UsageError as error:
        raise UsageError(f"{place}: {error}") from error


def set_group(agent: Agent, args: argparse.Namespace) -> None:
    group = agent.sdk.nexthop_group_msg(name=args.name)
    hops = {"nexthop": group.nexthop, "backup": group.backup_nexthop}
    words = Words(args.nexthops)
    while words:
        if words.peek() not in hops:
            raise words.unexpected()
        values.fill_nexthop(hops[words.take("")].add(), words)
    changed(agent, args, agent.routing.SetNexthopGroup, group, group=args.name)


def set_mpls(agent: Agent, args: argparse.Namespace) -> None:
    route = agent.sdk.mpls_route_msg(label=args.label)
    words = Words(args.forwarding)
    kind = words.take("")
    if kind == "nexthop":
        values.fill_nexthop(route.nexthop, words)
    elif kind == "group":
        group = route.nexthop_group
        group.nexthop_group = words.take("the group's name")
        known = values.operations(group)
        if words.peek() in known:
            group.mpls_op = known[words.take("")]
    elif kind == "vrf":
        route.pop_and_forward_vrf_name = words.take("the VRF's name")
    else:
        raise UsageError(f"{kind!r} is none of nexthop, group and vrf")
    if words:
        raise words.unexpected()
    changed(agent, args, agent.routing.SetMplsRoute, route, mpls_label=args.label)


def set_redirect(agent: Agent, args: argparse.Namespace) -> None:
    redirect = agent.sdk.cbf_nexthop_group_redirect_msg(
        match_nexthop_group=args.group,
        redirect_nexthop_group=args.target,
        match_ipv4_dscp=args.ipv4_dscp,
        match_ipv6_dscp=args.ipv6_dscp,
    )
    changed(agent, args, agent.routing.SetRedirect, redirect, redirect=args.group)


def session_message(agent: Agent, args: argparse.Namespace) -> Any:
    session = agent.sdk.sbfd_echo_session_msg()
    words = Words(args.key)
    values.fill_session_key(session.session_key, words)
    if words:
        raise words.unexpected()
    return session


def set_session(agent: Agent, args: argparse.Namespace) -> None:
    session = session_message(agent, args)
    session.rtt_enabled = args.rtt
    session.min_tx = args.min_tx
    session.detection_multiplier = args.multiplier
    session.track_interface_state = args.track_interface
    changed(agent, args, agent.sbfd.SetSession, session)


def delete_route(agent: Agent, args: argparse.Namespace) -> None:
    changed(agent, args, agent.routing.DeleteRoute, agent.sdk.ip_prefix_msg(**args.prefix))


def delete_routes(agent: Agent, args: argparse.Namespace) -> None:
    """Those of a file; one that is not there any more is passed over."""
    parts = Parts()
    for place, words in file_lines(args.file):
        parts.add_message(read_route(agent, place, words, with_group=False))
    deleted = send_deletions(agent, parts)
    if args.json:
        print_json({"deleted": deleted})
    else:
        print(f"{deleted} routes deleted")


def send_deletions(agent: Agent, parts: Parts) -> int:
    """Answers how many routes there were."""
    with Progress(parts.count, shows_progress(parts), ROUTES_A_PART) as progress:
        kind = agent.messages.delete_routes_reply_msg
        return int(sent(agent.channel, "DeleteRouteParts", parts, progress.counted, kind, **agent.stream).deleted)


def delete_group(agent: Agent, args: argparse.Namespace) -> None:
    group = agent.sdk.nexthop_group_msg(name=args.name, request_delete=True)
    changed(agent, args, agent.routing.SetNexthopGroup, group)


def delete_mpls(agent: Agent, args: argparse.Namespace) -> None:
    route = agent.sdk.mpls_route_msg(label=args.label, request_delete=True)
    changed(agent, args, agent.routing.SetMplsRoute, route)


def delete_redirect(agent: Agent, args: argparse.Namespace) -> None:
    redirect = agent.sdk.cbf_nexthop_group_redirect_msg(match_nexthop_group=args.group, request_delete=True)
    changed(agent, args, agent.routing.SetRedirect, redirect)


def delete_session(agent: Agent, args: argparse.Namespace) -> None:
    session = session_message(agent, args)
    session.request_delete = True
    changed(agent, args, agent.sbfd.SetSession, session)


# ----------------------------------------------------------------------------------------------------------
# list and watch


Item = tuple[Any, Any]  # a thing, and what became of it in the kernel: None where the agent does not say


def parts_of(agent: Agent, method: Any, field: str, **request: Any) -> Iterator[tuple[list[Item], int]]:
    """The parts of a list, each with how many changes are waiting; `field` is where a part holds its things."""
    for part in method(agent.messages.get_msg(**request), **agent.stream):
        states = itertools.chain(part.programming, itertools.repeat(None))
        yield list(zip(getattr(part, field), states)), part.waiting


def items_of(agent: Agent, method: Any, field: str) -> Iterator[Item]:
    for items, _ in parts_of(agent, method, field):
        yield from items


def listed(
    agent: Agent,
    args: argparse.Namespace,
    method: Any,
    field: str,
    to_json: Callable[[Any], dict[str, Any]],
    header: list[str],
    to_rows: Callable[[Any], list[list[Any]]],
) -> None:
    """Prints a list as its parts come."""
    waiting = 0

    def items() -> Iterator[Item]:
        nonlocal waiting
        for part, waiting in parts_of(agent, method, field, failed=args.failed):
            yield from part

    if args.json:
        things = ({**to_json(thing), **values.programming_json(programming)} for thing, programming in items())
        print_json_list(args.what, things, lambda: {"waiting": waiting})
        return
    found = items()
    first = list(itertools.islice(found, 1))
    told = any(programming is not None for _, programming in first)  # an older agent says nothing

    def rows(thing: Any, programming: Any) -> Iterator[list[Any]]:
        for position, row in enumerate(to_rows(thing)):
            state = "" if position else values.programming_text(programming)
            yield [*row, state] if told else row

    all_rows = (row for item in itertools.chain(first, found) for row in rows(*item))
    print_table([*header, "STATE"] if told else header, all_rows)
    if waiting:
        complain(f"{waiting} changes are still waiting to be programmed")


def list_routes(agent: Agent, args: argparse.Namespace) -> None:
    def rows(route: Any) -> list[list[Any]]:
        group = values.name_text(route.nexthop_group) if route.nexthop_group else "-"
        return [[values.prefix_text(route.prefix), group, route.tag]]

    listed(agent, args, agent.routing.GetRoutes, "route", values.route_json, ROUTE_HEADER, rows)


def list_groups(agent: Agent, args: argparse.Namespace) -> None:
    def rows(group: Any) -> list[list[Any]]:
        hops = [[group.name, "nexthop", values.nexthop_text(hop)] for hop in group.nexthop]
        hops += [[group.name, "backup", values.nexthop_text(hop)] for hop in group.backup_nexthop]
        return hops or [[group.name, "-", "-"]]

    header = ["GROUP", "ROLE", "NEXT HOP"]
    listed(agent, args, agent.routing.GetNexthopGroups, "group", values.group_json, header, rows)


def list_mpls(agent: Agent, args: argparse.Namespace) -> None:
    def rows(route: Any) -> list[list[Any]]:
        return [[route.label, values.mpls_forwarding_text(route)]]

    header = ["LABEL", "FORWARDING"]
    listed(agent, args, agent.routing.GetMplsRoutes, "route", values.mpls_route_json, header, rows)


def list_redirects(agent: Agent, args: argparse.Namespace) -> None:
    def rows(redirect: Any) -> list[list[Any]]:
        dscp = (redirect.match_ipv4_dscp, redirect.match_ipv6_dscp)
        texts = [values.list_text(list_) or "-" for list_ in dscp]
        return [[redirect.match_nexthop_group, *texts, redirect.redirect_nexthop_group or "-"]]

    header = ["GROUP", "IPV4 DSCP", "IPV6 DSCP", "TO"]
    listed(agent, args, agent.routing.GetRedirects, "redirect", values.redirect_json, header, rows)


# ----------------------------------------------------------------------------------------------------------
# show


def show_route(agent: Agent, args: argparse.Namespace) -> None:
    wanted, is_address = args.wanted
    found: list[Item] = []
    for route, programming in items_of(agent, agent.routing.GetRoutes, "route"):
        network = values.network(route.prefix)
        if network is None or network.version != wanted.version:
            continue
        if not is_address and network.subnet_of(wanted):
            found.append((route, programming))
        elif is_address and wanted.subnet_of(network):
            found = [(route, programming)]  # lists are in order of prefix, so a longer one comes later
    if not found:
        raise Refused(f"no route for {wanted.network_address if is_address else wanted}")
    names = {route.nexthop_group for route, _ in found}
    groups = {g.name: g for g, _ in items_of(agent, agent.routing.GetNexthopGroups, "group") if g.name in names}
    if args.json:
        used = [values.group_json(group) for group in groups.values()]
        routes = [{**values.route_json(route), **values.programming_json(state)} for route, state in found]
        print_json({"routes": routes, "groups": used})
        return
    rows = []
    for route, programming in found:
        group = groups.get(route.nexthop_group)
        hops = [values.nexthop_text(hop) for hop in group.nexthop] if group else ["(there is no such group)"]
        name = values.name_text(route.nexthop_group) if route.nexthop_group else "-"
        first = [values.prefix_text(route.prefix), name, route.tag]
        for position, hop in enumerate(hops or ["-"]):
            state = "" if position else values.programming_text(programming)
            rows.append([*(["", "", ""] if position else first), hop, state])
    print_table([*ROUTE_HEADER, "NEXT HOP", "STATE"], rows)


def show_summary(agent: Agent, args: argparse.Namespace) -> None:
    counts: dict[str, int] = {"IPv4 routes": 0, "IPv6 routes": 0}
    states: dict[str, int] = {}
    waiting = 0
    for what, method, field in (
        ("routes", agent.routing.GetRoutes, "route"),
        ("next-hop groups", agent.routing.GetNexthopGroups, "group"),
        ("MPLS routes", agent.routing.GetMplsRoutes, "route"),
        ("redirects", agent.routing.GetRedirects, "redirect"),
    ):
        for items, waiting in parts_of(agent, method, field):
            for thing, programming in items:
                kind = what
                if what == "routes":
                    kind = "IPv6 routes" if len(thing.prefix.addr) == 16 else "IPv4 routes"
                counts[kind] = counts.get(kind, 0) + 1
                if programming is not None:
                    state = values.enum_name(programming, "state").lower()
                    states[state] = states.get(state, 0) + 1
        counts.setdefault(what, 0)
    del counts["routes"]
    if args.json:
        named = {what.lower().replace(" ", "_").replace("-", "_"): count for what, count in counts.items()}
        print_json({**named, "states": states, "changes_waiting": waiting})
    else:
        told = {f"of all: {state}": count for state, count in sorted(states.items())}
        print_table(["WHAT", "COUNT"], {**counts, **told, "changes waiting": waiting}.items())


def updates(items: Any) -> Iterator[Any]:
    """What the items of a watch say, one thing at a time and in order."""
    for item in items:
        if item.HasField("session_key") or item.WhichOneof("update"):
            yield item
        yield from updates(item.bulk)


def list_sessions(agent: Agent, args: argparse.Namespace) -> None:
    parts = agent.sbfd.GetSessions(agent.messages.get_msg(), **agent.stream)
    states = [state for part in parts for state in part.session]
    if args.json:
        print_json({"sessions": [session_json(state) for state in states]})
    else:
        rows = ([values.session_key_text(state.session.session_key), session_text(state)] for state in states)
        print_table(["SESSION", "STATUS"], rows)


def session_json(state: Any) -> dict[str, Any]:
    return {
        "session": values.session_key_json(state.session.session_key),
        "status": values.enum_name(state.status, "status"),
        "simulated": state.simulated,
        "reason": state.reason or None,
        "rtt": values.rtt_json(state.rtt) if state.rtt.max_rtt else None,
    }


def session_text(state: Any) -> str:
    text = values.enum_name(state.status, "status")
    if state.simulated:
        text += " (simulated)"
    if state.reason:
        text += f": {state.reason}"
    return text


def update_json(item: Any) -> dict[str, Any]:
    document = {"session": values.session_key_json(item.session_key)}
    if item.WhichOneof("update") == "rtt":
        return {**document, "rtt": values.rtt_json(item.rtt)}
    return {**document, "status": values.enum_name(item.status, "status")}


def update_text(item: Any) -> str:
    if item.WhichOneof("update") != "rtt":
        return values.enum_name(item.status, "status")
    rtt = item.rtt
    life = f"last {rtt.last_rtt} min {rtt.min_rtt} avg {rtt.avg_rtt} max {rtt.max_rtt}"
    snapshot = f"min {rtt.snapshot_min_rtt} avg {rtt.snapshot_avg_rtt} max {rtt.snapshot_max_rtt}"
    return f"rtt {life} us, of late {snapshot} us"


def watch_sessions(agent: Agent, args: argparse.Namespace) -> None:
    request = agent.sdk.watch_sbfd_echo_session_config_msg(request_rtt_updates=args.rtt)
    show = show_json if args.json else WatchTable().show
    begun = False  # the first batch is complete
    for item in updates(agent.followed(agent.sbfd.WatchSessions, request, lambda: begun)):
        show(item)
        begun = begun or item.end_of_status_batch


def watch_routes(agent: Agent, args: argparse.Namespace) -> None:
    known = 0
    begun = False
    width = len("255.255.255.255/32")
    for part in agent.followed(agent.routing.WatchRoutes, agent.messages.watch_routes_msg(), lambda: begun):
        for change in part.change:
            known += not begun
            if args.json:
                print_json({"time": values.now_text(), **change_json(change)})
            else:
                width = max(width, len(values.prefix_text(change.route.prefix)))
                print(f"{values.now_text()}  {values.prefix_text(change.route.prefix):{width}}  {change_text(change)}")
        if part.synced:
            begun = True
            mark = {"time": values.now_text(), "synced": True, "routes": known}
            print(json.dumps(mark) if args.json else f"{values.now_text()}  -- {known} routes; changes follow --")
        sys.stdout.flush()


def change_json(change: Any) -> dict[str, Any]:
    if change.removed:
        return {"prefix": values.prefix_text(change.route.prefix), "removed": True}
    return {**values.route_json(change.route), **values.programming_json(change.programming), "removed": False}


def change_text(change: Any) -> str:
    if change.removed:
        return "removed"
    group = values.name_text(change.route.nexthop_group) if change.route.nexthop_group else "-"
    return printable(f"{group}  {change.route.tag}  {values.programming_text(change.programming)}")


def show_json(item: Any) -> None:
    news = {"end_of_batch": True} if item.end_of_status_batch else update_json(item)
    print_json({"time": values.now_text(), **news})


class WatchTable:
    """A table that grows at its end. It holds the first batch back until it is complete, to know how wide
    the sessions are."""

    def __init__(self) -> None:
        self._batch: list[Any] | None = []
        self._width = len("SESSION")

    def show(self, item: Any) -> None:
        if self._batch is None:
            self._line(item)
        elif not item.end_of_status_batch:
            self._batch.append(item)
        else:
            batch, self._batch = self._batch, None
            self._widen(*batch)
            print(f"{'TIME':{len(values.now_text())}}  {'SESSION':{self._width}}  STATUS", flush=True)
            for held in batch:
                self._line(held)

    def _widen(self, *items: Any) -> None:
        texts = (printable(values.session_key_text(item.session_key)) for item in items)
        self._width = max(self._width, *map(len, texts), 0)

    def _line(self, item: Any) -> None:
        if item.end_of_status_batch:
            return
        self._widen(item)
        session = printable(values.session_key_text(item.session_key))
        print(f"{values.now_text()}  {session:{self._width}}  {update_text(item)}", flush=True)


# ----------------------------------------------------------------------------------------------------------
# state


def state_set(agent: Agent, args: argparse.Namespace) -> None:
    config = agent.sdk.rpc_server_state_config_msg()
    for entry in args.entries:
        key, equals, value = entry.partition("=")
        if not equals or not key:
            raise UsageError(f"{entry!r} is no KEY=VALUE")
        config.set.add(key=key, value=value)
    changed(agent, args, agent.state.Configure, config)


def state_delete(agent: Agent, args: argparse.Namespace) -> None:
    config = agent.sdk.rpc_server_state_config_msg()
    for key in args.keys:
        getattr(config, "delete").add(key=key)
    changed(agent, args, agent.state.Configure, config)


def state_get(agent: Agent, args: argparse.Namespace) -> None:
    if args.keys:
        reply = agent.state.Read(agent.messages.state_keys_msg(key=args.keys), **agent.unary)
        found = [item.value for item in reply.value]
    else:
        parts = agent.state.ReadAll(agent.messages.read_all_msg(), **agent.stream)
        found = [item.value for part in parts for item in part.value]
    if args.keys and len(found) != len(args.keys):
        raise Refused(f"the agent answered {len(found)} values for {len(args.keys)} keys")
    if args.keys:
        entries = list(zip(args.keys, found))
    else:
        entries = [(key, value) for key, _, value in (text.partition("=") for text in found)]
    if args.json:
        print_json(dict(entries))
    else:
        print_table(["KEY", "VALUE"], entries)
