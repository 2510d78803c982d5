"""What an agent holds as one JSON document: saved, compared with a file, and made equal to one.

The document has a list for each kind of thing, in the order in which they are set, groups before what forwards to
them; things are written as `list ... --json` writes them. Of the state it has one object.

    {"groups": [...], "mpls": [...], "redirects": [...], "routes": [...], "state": {"owner": "lab-3"}}

A kind that a document does not have is left alone.
"""

from __future__ import annotations

import argparse
import json
import sys
from collections.abc import Callable, Iterable, Iterator
from typing import TYPE_CHECKING, Any, NamedTuple

import commands
import values
from output import print_json, printable
from routes import Parts
from values import UsageError

if TYPE_CHECKING:
    from agent import Agent


class Kind(NamedTuple):
    """One kind of thing that an agent holds."""

    name: str  # in a document, and behind `list`
    word: str  # for one of them
    read: Callable[[Agent], Iterable[Any]]
    to_json: Callable[[Any], Any]
    from_json: Callable[[Agent, Any], Any]  # throws UsageError, and KeyError and the like
    key: Callable[[Any], str]  # what names it, as people write it
    text: Callable[[Any], str]  # what else is to be said of it
    set: Callable[[Agent, list[Any]], None]
    delete: Callable[[Agent, list[Any]], None]


def kinds() -> list[Kind]:
    """In the order in which they are set. They are deleted in the opposite order."""
    return [GROUPS, MPLS, REDIRECTS, ROUTES, STATE]


class Change(NamedTuple):
    """What differs in one thing: `now` is what the agent holds, `then` what the document has; None: nothing."""

    kind: Kind
    now: Any
    then: Any

    def lines(self) -> Iterator[str]:
        for sign, thing in (("-", self.now), ("+", self.then)):
            if thing is not None:
                yield f"{sign} {self.kind.word} {self.kind.key(thing)} {self.kind.text(thing)}".rstrip()


# ----------------------------------------------------------------------------------------------------------
# The commands


def save(agent: Agent, args: argparse.Namespace) -> None:
    document: dict[str, Any] = {kind.name: [kind.to_json(thing) for thing in kind.read(agent)] for kind in kinds()}
    document[STATE.name] = dict(document[STATE.name])
    json.dump(document, sys.stdout, ensure_ascii=False, indent=1)
    print(flush=True)


def diff(agent: Agent, args: argparse.Namespace) -> int:
    """Answers 1 when there is a difference, as diff does."""
    changes = differences(agent, read_document(agent, args.file), prune=True)
    show(changes, args.json)
    return 1 if changes else 0


def apply(agent: Agent, args: argparse.Namespace) -> None:
    changes = differences(agent, read_document(agent, args.file), args.prune)
    if args.dry_run:
        show(changes, args.json)
        return
    for kind in kinds():
        wanted = [change.then for change in changes if change.kind is kind and change.then is not None]
        if wanted:
            kind.set(agent, wanted)
    for kind in reversed(kinds()):
        unwanted = [change.now for change in changes if change.kind is kind and change.then is None]
        if unwanted:
            kind.delete(agent, unwanted)
    if args.wait:
        commands.all_programmed(agent)
    deleted = sum(change.then is None for change in changes)
    counts = {"set": len(changes) - deleted, "deleted": deleted}
    if args.json:
        print_json(counts)
    else:
        print(f"{counts['set']} set, {counts['deleted']} deleted")


def show(changes: list[Change], as_json: bool) -> None:
    for change in changes:
        if as_json:
            sides = {"now": change.now, "then": change.then}
            texts = {side: thing and change.kind.to_json(thing) for side, thing in sides.items()}
            print_json({"kind": change.kind.name, **texts})
        else:
            for line in change.lines():
                print(printable(line))


# ----------------------------------------------------------------------------------------------------------
# Reading and comparing


def read_document(agent: Agent, path: str) -> dict[str, list[Any]]:
    """The things of a document, by kind."""
    name = "standard input" if path == "-" else path
    try:
        with open(0 if path == "-" else path, encoding="utf-8", closefd=path != "-") as file:
            document = json.load(file)
    except (UnicodeDecodeError, json.JSONDecodeError) as error:
        raise UsageError(f"{name}: no JSON document: {error}") from error
    except OSError as error:
        raise UsageError(f"{name}: {error.strerror}") from error
    if not isinstance(document, dict):
        raise UsageError(f"{name}: no JSON object")
    known = {kind.name: kind for kind in kinds()}
    things = {}
    for field, content in document.items():
        if field == "waiting":  # which `list --json` adds
            continue
        if field not in known:
            raise UsageError(f"{name}: {field!r} is none of {', '.join(known)}")
        things[field] = read_things(agent, known[field], content, name)
    return things


def read_things(agent: Agent, kind: Kind, content: Any, name: str) -> list[Any]:
    if kind is STATE:
        if not isinstance(content, dict):
            raise UsageError(f"{name}: {kind.name} is no object")
        content = list(content.items())
    if not isinstance(content, list):
        raise UsageError(f"{name}: {kind.name} is no list")
    things: dict[str, Any] = {}
    for position, item in enumerate(content):
        place = f"{name}: {kind.name}[{position}]"
        try:
            thing = kind.from_json(agent, item)
        except UsageError as error:
            raise UsageError(f"{place}: {error}") from error
        except KeyError as error:
            raise UsageError(f"{place}: {error} is missing") from error
        except (AttributeError, TypeError, ValueError) as error:
            raise UsageError(f"{place}: not as list {kind.name} --json writes it") from error
        if things.setdefault(kind.key(thing), thing) is not thing:
            raise UsageError(f"{place}: {kind.key(thing)} stands twice")
    return list(things.values())


def differences(agent: Agent, document: dict[str, list[Any]], prune: bool) -> list[Change]:
    """What is to be set, and with `prune` what is to be deleted, for the agent to hold what the document has."""
    changes = []
    for kind in kinds():
        if kind.name not in document:
            continue
        held = {kind.key(thing): thing for thing in kind.read(agent)}
        for thing in document[kind.name]:
            now = held.pop(kind.key(thing), None)
            if now is None or kind.to_json(now) != kind.to_json(thing):
                changes.append(Change(kind, now, thing))
        if prune:
            changes += [Change(kind, now, None) for now in held.values()]
    return changes


# ----------------------------------------------------------------------------------------------------------
# The kinds


def parts(method: str, field: str) -> Callable[[Agent], Iterator[Any]]:
    """Reads a list."""

    def read(agent: Agent) -> Iterator[Any]:
        for thing, programming in commands.items_of(agent, getattr(agent.routing, method), field):
            # What an earlier run of the agent has left in the kernel is nobody's wish.
            if programming is None or programming.state != programming.ADOPTED:
                yield thing

    return read


def each(method: str, delete: bool = False) -> Callable[[Agent, list[Any]], None]:
    """Makes a change for each thing."""

    def change(agent: Agent, things: list[Any]) -> None:
        for thing in things:
            request = thing
            if delete:
                request = type(thing)()
                request.CopyFrom(thing)
                request.request_delete = True
            agent.change(getattr(agent.routing, method), request)

    return change


def set_routes(agent: Agent, routes: list[Any]) -> None:
    commands.send_routes(agent, in_parts(routes))


def delete_routes(agent: Agent, routes: list[Any]) -> None:
    commands.send_deletions(agent, in_parts(routes))


def in_parts(routes: list[Any]) -> Parts:
    parts = Parts()
    for route in routes:
        parts.add_message(route)
    return parts


def read_state(agent: Agent) -> Iterator[tuple[str, str]]:
    for part in agent.state.ReadAll(agent.messages.read_all_msg(), **agent.stream):
        for item in part.value:
            key, _, value = item.value.partition("=")
            yield key, value


def entry_from_json(_: Agent, entry: tuple[str, Any]) -> tuple[str, str]:
    key, value = entry
    if not key or not isinstance(value, str):
        raise UsageError(f"{key!r} has no text")
    return key, value


def set_state(agent: Agent, entries: list[tuple[str, str]]) -> None:
    config = agent.sdk.rpc_server_state_config_msg()
    for key, value in entries:
        config.set.add(key=key, value=value)
    agent.change(agent.state.Configure, config)


def delete_state(agent: Agent, entries: list[tuple[str, str]]) -> None:
    config = agent.sdk.rpc_server_state_config_msg()
    for key, _ in entries:
        getattr(config, "delete").add(key=key)
    agent.change(agent.state.Configure, config)


def group_text(group: Any) -> str:
    hops = [f"nexthop {values.nexthop_text(hop)}" for hop in group.nexthop]
    return " ".join(hops + [f"backup {values.nexthop_text(hop)}" for hop in group.backup_nexthop])


def redirect_text(redirect: Any) -> str:
    text = f"to {redirect.redirect_nexthop_group}"
    for family, dscp in (("ipv4", redirect.match_ipv4_dscp), ("ipv6", redirect.match_ipv6_dscp)):
        text += f" --{family}-dscp {values.list_text(dscp)}" if dscp else ""
    return text


def route_text(route: Any) -> str:
    text = f"group {values.name_text(route.nexthop_group)}" if route.nexthop_group else ""
    return text + (f" --tag {route.tag}" if route.tag else "")


GROUPS = Kind(
    name="groups",
    word="group",
    read=parts("GetNexthopGroups", "group"),
    to_json=values.group_json,
    from_json=values.group_from_json,
    key=lambda group: str(group.name),
    text=group_text,
    set=each("SetNexthopGroup"),
    delete=each("SetNexthopGroup", delete=True),
)
MPLS = Kind(
    name="mpls",
    word="mpls",
    read=parts("GetMplsRoutes", "route"),
    to_json=values.mpls_route_json,
    from_json=values.mpls_route_from_json,
    key=lambda route: str(route.label),
    text=values.mpls_forwarding_text,
    set=each("SetMplsRoute"),
    delete=each("SetMplsRoute", delete=True),
)
REDIRECTS = Kind(
    name="redirects",
    word="redirect",
    read=parts("GetRedirects", "redirect"),
    to_json=values.redirect_json,
    from_json=values.redirect_from_json,
    key=lambda redirect: str(redirect.match_nexthop_group),
    text=redirect_text,
    set=each("SetRedirect"),
    delete=each("SetRedirect", delete=True),
)
ROUTES = Kind(
    name="routes",
    word="route",
    read=parts("GetRoutes", "route"),
    to_json=values.route_json,
    from_json=values.route_from_json,
    key=lambda route: values.prefix_text(route.prefix),
    text=route_text,
    set=set_routes,
    delete=delete_routes,
)
STATE = Kind(
    name="state",
    word="state",
    read=read_state,
    to_json=list,
    from_json=entry_from_json,
    key=lambda entry: str(entry[0]),
    text=lambda entry: f"= {entry[1]}",
    set=set_state,
    delete=delete_state,
)
