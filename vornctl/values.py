"""The values of the SDK's messages as people write them, and as JSON.

Addresses are texts, "none" (in JSON null) where there is none. A next hop and an SBFD session are written
in the words of the command line, which the tables show too; what list routes prints can be set again as a
file.
"""

import argparse
import datetime
import functools
import ipaddress
import json
import re
from collections.abc import Callable, Iterable
from typing import Any


Network = ipaddress.IPv4Network | ipaddress.IPv6Network


OK, FAILED, USAGE, UNREACHABLE = range(4)  # exit codes


class UsageError(argparse.ArgumentTypeError):
    """Something in the command or its file can't be used; one line for the user."""


class Refused(Exception):
    """The agent has answered, but not as asked; one line for the user."""


WORD = re.compile(r'"(?:[^"\\]|\\.)*"(?!\S)|\S+')  # of a line in a file: a JSON string, or what no blank is in


def name(word: str) -> str:
    """The name that a word of a line in a file spells."""
    if not word.startswith('"'):
        return word
    try:
        text: str = json.loads(word)
        text.encode()  # half a character is none
        return text
    except ValueError as error:
        raise UsageError(f"{word} is no JSON string") from error


def name_text(text: str) -> str:
    """The name as one word of a line in a file."""
    plain = text != "-" and text.isprintable() and " " not in text and text[0] not in '#"'
    return text if plain else json.dumps(text)


def number(text: str) -> int:
    """A number that fits the messages. Whether it means anything, the agent says."""
    if not (text.isascii() and text.isdigit() and len(text) <= 10 and int(text) < 1 << 32):
        raise UsageError(f"{text!r} is no number from 0 to {(1 << 32) - 1}")
    return int(text)


def election_id(text: str) -> str:
    parts = text.split(":")
    good = all(part.isascii() and part.isdigit() and len(part) <= 20 and int(part) < 1 << 64 for part in parts)
    if not good or len(parts) > 2 or not any(map(int, parts)):
        raise UsageError(f"{text!r} is neither NUMBER nor HIGH:NUMBER, of 64 bits each and not zero")
    return text


def numbers(text: str) -> list[int]:
    return [number(part) for part in text.split(",")]


def address(text: str) -> bytes:
    if text == "none":
        return b""
    try:
        parsed = ipaddress.ip_address(text)
    except ValueError as error:
        raise UsageError(f"{text!r} is no IPv4 or IPv6 address") from error
    if "%" in text:
        raise UsageError(f"{text!r} names an interface: give the interface by itself")
    return parsed.packed


def prefix(text: str) -> dict[str, Any]:
    """The fields of an ip_prefix_msg."""
    try:
        interface = ipaddress.ip_interface(text)
    except ValueError as error:
        raise UsageError(f"{text!r} is no IPv4 or IPv6 prefix, such as 10.0.0.0/8") from error
    network = interface.network
    if "%" in text:
        raise UsageError(f"{text!r} names an interface, which a prefix can't")
    if interface.ip != network.network_address:
        raise UsageError(f"{text!r} has bits set behind its length; the prefix is {network}")
    return {"addr": network.network_address.packed, "mask_length": network.prefixlen}


def address_or_prefix(text: str) -> tuple[Network, bool]:
    """What a command asks for: a prefix, and whether it was given as an address."""
    try:
        if "/" not in text:
            return ipaddress.ip_network(text), True
    except ValueError as error:
        raise UsageError(f"{text!r} is no IPv4 or IPv6 address") from error
    fields = prefix(text)
    return ipaddress.ip_network((fields["addr"], fields["mask_length"])), False


def network(message: Any) -> Network | None:
    """An ip_prefix_msg; None when it is none."""
    try:
        return ipaddress.ip_network((message.addr, message.mask_length))
    except ValueError:
        return None


def address_text(addr: bytes) -> str:
    if not addr:
        return "none"
    try:
        return str(ipaddress.ip_address(addr))
    except ValueError:  # an agent that sends another length still gets its answer shown
        return f"0x{addr.hex()}"


def prefix_text(message: Any) -> str:
    return f"{address_text(message.addr)}/{message.mask_length}" if message.addr else "none"


def enum_name(message: Any, field: str) -> str:
    """The name of a field's value, or its number where this side knows no name."""
    value = getattr(message, field)
    named = message.DESCRIPTOR.fields_by_name[field].enum_type.values_by_number.get(value)
    return str(named.name if named else value)


def operation(message: Any) -> str:
    """The word of an mpls_op: "pop-to-ipv4" of MPLS_POP_TO_IPV4."""
    return enum_name(message, "mpls_op").removeprefix("MPLS_").lower().replace("_", "-")


def operations(message: Any) -> dict[str, int]:
    """Every word that an mpls_op can have, with its number."""
    values = message.DESCRIPTOR.fields_by_name["mpls_op"].enum_type.values
    return {v.name.removeprefix("MPLS_").lower().replace("_", "-"): v.number for v in values}


class Words:
    """The words of a command line, taken one after another."""

    def __init__(self, words: Iterable[str]) -> None:
        self._words = list(words)
        self._taken = 0

    def __bool__(self) -> bool:
        return self._taken < len(self._words)

    def peek(self) -> str:
        return self._words[self._taken] if self else ""

    def take(self, what: str) -> str:
        if not self:
            raise UsageError(f"expected {what} after {self._words[-1]!r}")
        self._taken += 1
        return self._words[self._taken - 1]

    def unexpected(self) -> UsageError:
        return UsageError(f"unexpected word {self.peek()!r}")

    def clauses(self, readers: dict[str, Callable[[], None]]) -> None:
        """Reads clauses in any order, each at most once, up to the first word that begins none."""
        unread = dict(readers)
        while self.peek() in readers:
            word = self.take("")
            reader = unread.pop(word, None)
            if reader is None:
                raise UsageError(f"{word!r} stands twice")
            reader()


def fill_session_key(key: Any, words: Words) -> None:
    """INTERFACE ADDRESS [labels N,N...] [dscp N] [exp N]"""
    key.outgoing_interface = words.take("the session's interface")
    key.nexthop.addr = address(words.take("the session's address"))

    def read_labels() -> None:
        key.labels.extend(numbers(words.take("the labels")))

    words.clauses(
        {
            "labels": read_labels,
            "dscp": lambda: setattr(key, "dscp", number(words.take("the DSCP"))),
            "exp": lambda: setattr(key, "mpls_exp", number(words.take("the EXP bits"))),
        }
    )


def fill_nexthop(hop: Any, words: Words) -> None:
    """ADDRESS [interface NAME] [OPERATION [N,N...]] [replicate N] [session KEY]"""
    known = operations(hop)

    def read_operation(word: str) -> None:
        if hop.mpls_op:
            raise UsageError(f"{word!r} is a second operation on the same next hop")
        hop.mpls_op = known[word]
        if words.peek()[:1].isdigit():
            hop.labels.extend(numbers(words.take("the labels")))

    hop.nexthop_ip.addr = address(words.take("the next hop's address"))
    words.clauses(
        {
            "interface": lambda: setattr(hop, "nexthop_interface", words.take("the interface")),
            "replicate": lambda: setattr(hop, "replicate_count", number(words.take("the count"))),
            "session": lambda: fill_session_key(hop.sbfd_session_key, words),
            **{word: functools.partial(read_operation, word) for word in known},
        }
    )


def list_text(values: Iterable[int]) -> str:
    return ",".join(map(str, values))


def session_key_text(key: Any) -> str:
    text = f"{key.outgoing_interface or '-'} {address_text(key.nexthop.addr)}"
    text += f" labels {list_text(key.labels)}" if key.labels else ""
    text += f" dscp {key.dscp}" if key.dscp else ""
    return text + (f" exp {key.mpls_exp}" if key.mpls_exp else "")


def nexthop_text(hop: Any) -> str:
    text = address_text(hop.nexthop_ip.addr)
    text += f" interface {hop.nexthop_interface}" if hop.nexthop_interface else ""
    text += f" {operation(hop)}" if hop.mpls_op or hop.labels else ""
    text += f" {list_text(hop.labels)}" if hop.labels else ""
    text += f" replicate {hop.replicate_count}" if hop.replicate_count else ""
    if hop.HasField("sbfd_session_key"):
        text += f" session {session_key_text(hop.sbfd_session_key)}"
    return text


def mpls_forwarding_text(route: Any) -> str:
    forwarding = route.WhichOneof("forwarding")
    if forwarding == "nexthop":
        return f"nexthop {nexthop_text(route.nexthop)}"
    if forwarding == "nexthop_group":
        return f"group {route.nexthop_group.nexthop_group} {operation(route.nexthop_group)}"
    return f"vrf {route.pop_and_forward_vrf_name}" if forwarding else "-"


def address_json(addr: bytes) -> str | None:
    return address_text(addr) if addr else None


def session_key_json(key: Any) -> dict[str, Any]:
    return {
        "interface": key.outgoing_interface,
        "address": address_json(key.nexthop.addr),
        "labels": list(key.labels),
        "dscp": key.dscp,
        "exp": key.mpls_exp,
    }


def nexthop_json(hop: Any) -> dict[str, Any]:
    return {
        "address": address_json(hop.nexthop_ip.addr),
        "interface": hop.nexthop_interface,
        "operation": operation(hop),
        "labels": list(hop.labels),
        "replicate": hop.replicate_count,
        "session": session_key_json(hop.sbfd_session_key) if hop.HasField("sbfd_session_key") else None,
    }


def route_json(route: Any) -> dict[str, Any]:
    prefix_ = prefix_text(route.prefix) if route.prefix.addr else None
    group = route.nexthop_group if route.HasField("nexthop_group") else None
    return {"prefix": prefix_, "group": group, "tag": route.tag}


def group_json(group: Any) -> dict[str, Any]:
    return {
        "name": group.name,
        "nexthops": [nexthop_json(hop) for hop in group.nexthop],
        "backups": [nexthop_json(hop) for hop in group.backup_nexthop],
    }


def mpls_route_json(route: Any) -> dict[str, Any]:
    forwarding = route.WhichOneof("forwarding")
    result: dict[str, Any] = {"label": route.label, "nexthop": None, "group": None, "vrf": None}
    if forwarding == "nexthop":
        result["nexthop"] = nexthop_json(route.nexthop)
    elif forwarding == "nexthop_group":
        group = route.nexthop_group
        result["group"] = {"name": group.nexthop_group, "operation": operation(group)}
    elif forwarding:
        result["vrf"] = route.pop_and_forward_vrf_name
    return result


def redirect_json(redirect: Any) -> dict[str, Any]:
    return {
        "group": redirect.match_nexthop_group,
        "to": redirect.redirect_nexthop_group,
        "ipv4_dscp": list(redirect.match_ipv4_dscp),
        "ipv6_dscp": list(redirect.match_ipv6_dscp),
    }


def programming_json(programming: Any) -> dict[str, Any]:
    """What became of something in the kernel; nothing where the agent does not say."""
    if programming is None:
        return {}
    since = time_text(programming.time) if programming.time else None
    return {"state": enum_name(programming, "state").lower(), "reason": programming.reason, "since": since}


def programming_text(programming: Any) -> str:
    if programming is None:
        return "-"
    text = enum_name(programming, "state").lower()
    if programming.reason:
        text += f": {programming.reason}"
    if programming.time and programming.state != programming.PROGRAMMED:
        text += f" (since {time_text(programming.time)})"
    return text


def time_text(nanoseconds: int) -> str:
    """A time since 1970, in this host's zone."""
    return datetime.datetime.fromtimestamp(nanoseconds // 10**9).astimezone().isoformat(sep=" ")


def now_text() -> str:
    """The time by this host's clock and zone, to the millisecond."""
    return datetime.datetime.now().astimezone().isoformat(sep=" ", timespec="milliseconds")


def rtt_json(rtt: Any) -> dict[str, int]:
    """Microseconds."""
    return {field.name.replace("_rtt", ""): getattr(rtt, field.name) for field in rtt.DESCRIPTOR.fields}


# ----------------------------------------------------------------------------------------------------------
# From JSON, as the functions above write it. They throw UsageError, and KeyError, TypeError or ValueError when a
# field is missing or of another type; a field that they don't know is an error as well.


PROGRAMMING = ("state", "reason", "since")  # what lists add to a thing, and nobody sets


def known_fields(document: dict[str, Any], *names: str) -> None:
    for field in document:
        if field not in names:
            raise UsageError(f"{field!r} is none of {', '.join(names)}")


def session_key_from_json(key: Any, document: dict[str, Any]) -> None:
    known_fields(document, "interface", "address", "labels", "dscp", "exp")
    key.outgoing_interface = document["interface"]
    key.nexthop.addr = address(document["address"] or "none")
    key.labels.extend(document.get("labels", []))
    key.dscp = document.get("dscp", 0)
    key.mpls_exp = document.get("exp", 0)


def operation_number(message: Any, word: str) -> int:
    known = operations(message)
    if word not in known:
        raise UsageError(f"{word!r} is none of {', '.join(known)}")
    return known[word]


def nexthop_from_json(hop: Any, document: dict[str, Any]) -> None:
    known_fields(document, "address", "interface", "operation", "labels", "replicate", "session")
    hop.nexthop_ip.addr = address(document["address"] or "none")
    hop.nexthop_interface = document.get("interface", "")
    hop.mpls_op = operation_number(hop, document.get("operation", "none"))
    hop.labels.extend(document.get("labels", []))
    hop.replicate_count = document.get("replicate", 0)
    if document.get("session") is not None:
        session_key_from_json(hop.sbfd_session_key, document["session"])


def route_from_json(agent: Any, document: dict[str, Any]) -> Any:
    known_fields(document, "prefix", "group", "tag", *PROGRAMMING)
    route = agent.sdk.ip_route_msg(prefix=prefix(document["prefix"]), tag=document.get("tag", 0))
    if document.get("group") is not None:
        route.nexthop_group = document["group"]
    return route


def group_from_json(agent: Any, document: dict[str, Any]) -> Any:
    known_fields(document, "name", "nexthops", "backups", *PROGRAMMING)
    group = agent.sdk.nexthop_group_msg(name=document["name"])
    for hop in document["nexthops"]:
        nexthop_from_json(group.nexthop.add(), hop)
    for hop in document.get("backups", []):
        nexthop_from_json(group.backup_nexthop.add(), hop)
    return group


def mpls_route_from_json(agent: Any, document: dict[str, Any]) -> Any:
    known_fields(document, "label", "nexthop", "group", "vrf", *PROGRAMMING)
    route = agent.sdk.mpls_route_msg(label=document["label"])
    if document.get("nexthop") is not None:
        nexthop_from_json(route.nexthop, document["nexthop"])
    elif document.get("group") is not None:
        group = route.nexthop_group
        known_fields(document["group"], "name", "operation")
        group.nexthop_group = document["group"]["name"]
        group.mpls_op = operation_number(group, document["group"].get("operation", "none"))
    elif document.get("vrf") is not None:
        route.pop_and_forward_vrf_name = document["vrf"]
    return route


def redirect_from_json(agent: Any, document: dict[str, Any]) -> Any:
    known_fields(document, "group", "to", "ipv4_dscp", "ipv6_dscp", *PROGRAMMING)
    return agent.sdk.cbf_nexthop_group_redirect_msg(
        match_nexthop_group=document["group"],
        redirect_nexthop_group=document["to"],
        match_ipv4_dscp=document.get("ipv4_dscp", []),
        match_ipv6_dscp=document.get("ipv6_dscp", []),
    )
