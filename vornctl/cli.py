"""The command line: what can be said, its help, and its exit codes."""

import argparse
import math
import os
import re
import sys
from collections.abc import Container
from typing import Any, NoReturn

import commands
import documents
import policy
import status
import stubs
import values
from output import complain, printable
from values import FAILED, OK, USAGE, Refused, UsageError

DESCRIPTION = """\
Sets, deletes, lists and watches what a routing agent forwards by: IP routes, next-hop groups, MPLS
routes, redirects and SBFD echo sessions; and the key/value state that its clients leave for each other.
"""

EXAMPLES = """\
examples:
  vornctl set group core nexthop 192.0.2.1 interface eth0 nexthop 192.0.2.5 interface eth1
  vornctl set route 10.0.0.0/8 group core --tag 7
  vornctl list routes
  vornctl list routes --json | jq '.routes[].prefix'
  vornctl list routes > saved && vornctl set routes --file saved
  vornctl watch sessions --rtt
  vornctl state set owner=lab-3
  vornctl show route 10.50.3.4
  vornctl save > agent.json; vornctl diff agent.json; vornctl apply agent.json --prune
  vornctl --server unix:/run/agent.sock --local --user alice delete route 10.0.0.0/8
  vornctl --server agent.example:50051 --tls-ca ca.pem --tls-cert me.pem --tls-key me.key list groups

The agent takes a change at once and programs it a little later; lists show what has been programmed.

completion:
  bash: eval "$(register-python-argcomplete vornctl)", with Debian's python3-argcomplete
  zsh:  the same, after: autoload -U bashcompinit && bashcompinit

exit codes:
  0  done
  1  the agent refused, or failed, or its answer can't be printed; or diff found a difference
  2  the command line, or a file that it names, can't be used, a package is missing, or the agent's socket may
     not be opened; nothing was sent
  3  no agent to be reached, or it says that it is unavailable or has no room, which has been tried again for
     as long as --timeout: the same may work later
"""

ANYWHERE = "--server, --json and the other options of vornctl --help may stand here too."

NEXTHOP_HELP = """\
A next hop is ADDRESS and, in any order:
  interface NAME     the outgoing interface
  push N,N...        push MPLS labels, top of the stack first
  swap N             replace the top label
  pop, pop-to-ipv4, pop-to-ipv6
                     remove the top label
  replicate N        how often the next hop counts in the group's hashing
  session INTERFACE ADDRESS [labels N,N...] [dscp N] [exp N]
                     the SBFD echo session that watches the next hop
ADDRESS is none where the interface alone says where to.
"""

SESSION_HELP = """\
A session is named by its INTERFACE and ADDRESS and, where it has them, by its labels (top of the stack
first), DSCP and MPLS EXP bits, as in: eth0 192.0.2.1 labels 100,200 dscp 46 exp 5
"""


class Parser(argparse.ArgumentParser):
    """A parser whose errors are one line, and which takes no abbreviations."""

    def __init__(self, **options: Any) -> None:
        super().__init__(formatter_class=argparse.RawDescriptionHelpFormatter, allow_abbrev=False, **options)

    def error(self, message: str) -> NoReturn:
        hint = self._meant(message)
        hint = f"did you mean {hint}?" if hint else f"see {self.prog} --help"
        self.exit(USAGE, f"{self.prog}: {printable(message)} ({hint})\n")

    def _meant(self, message: str) -> str:
        """The word that stands for what the message complains of with a letter or two wrong, if there is one."""
        if choice := re.search(r"invalid choice: '([^']+)' \(choose from (.*)\)", message):
            known = re.findall(r"'([^']+)'", choice[2])
        elif choice := re.search(r"unrecognized arguments: (--[\w-]+)", message):
            known = [option for option in self._option_string_actions if option.startswith("--")]
        import difflib

        return next(iter(difflib.get_close_matches(choice[1], known, 1)), "") if choice else ""


def server_address(text: str) -> str:
    host, colon, port = text.rpartition(":")
    unix = text.startswith(("unix:", "unix-abstract:")) and port
    if not unix and not (host and colon and port.isascii() and port.isdigit() and int(port) < 65536):
        raise UsageError(f"{text!r} is neither HOST:PORT nor unix:PATH")
    return text


def seconds(text: str) -> float:
    try:
        value = float(text)
    except ValueError:
        value = math.nan
    if not 0 < value < 1e9:
        raise UsageError(f"{text!r} is no number of seconds above 0")
    return value


def user_name(text: str) -> str:
    if not text or not (text.isascii() and text.isprintable()):
        raise UsageError(f"{text!r} is not made of printable ASCII characters")
    return text


COMMON: dict[str, dict[str, Any]] = {
    "--server": {
        "metavar": "ADDRESS",
        "type": server_address,
        "help": "the agent: HOST:PORT or unix:PATH (default: VORNCTL_SERVER of the environment, or else"
        " 127.0.0.1:50051)",
    },
    "--timeout": {
        "metavar": "SECONDS",
        "type": seconds,
        "help": "give a call up after this time (default: 10 for a single change or read of"
        " the state, no limit for set routes and list); how long a watch lasts",
    },
    "--json": {"action": "store_true", "help": "print one JSON document, or with watch one line of JSON per update"},
    "--user": {
        "metavar": "NAME",
        "type": user_name,
        "help": "who calls, for an agent that takes a local caller's word for it",
    },
    "--election-id": {
        "metavar": "ID",
        "type": values.election_id,
        "help": "the id by which this client is elected among those that change the agent: NUMBER or HIGH:NUMBER."
        " The largest that the agent has seen is the primary's, whose changes alone it takes",
    },
    "--local": {
        "action": "store_true",
        "help": "gRPC's local credentials: for an agent on this host that asks for them, at a"
        " Unix socket or a loopback address",
    },
    "--tls-ca": {"metavar": "FILE", "help": "TLS; the authorities that may vouch for the agent (PEM)"},
    "--tls-cert": {"metavar": "FILE", "help": "TLS; this client's certificate (PEM)"},
    "--tls-key": {"metavar": "FILE", "help": "TLS; the private key of --tls-cert (PEM)"},
    "--tls-name": {
        "metavar": "NAME",
        "help": "TLS; the name in the agent's certificate, where it is not that of --server",
    },
}

DEFAULTS = {
    "server": None,
    "timeout": None,
    "json": False,
    "user": None,
    "election_id": None,
    "local": False,
    "tls_ca": None,
    "tls_cert": None,
    "tls_key": None,
    "tls_name": None,
}


def add_common_options(parser: Parser, shown: bool) -> None:
    """Without defaults, which would undo what stands further to the left."""
    group = parser.add_argument_group("connection and output, before or after the command")
    for name, options in COMMON.items():
        text = options["help"] if shown else argparse.SUPPRESS
        group.add_argument(name, **{**options, "default": argparse.SUPPRESS, "help": text})


class Version(argparse.Action):
    def __call__(self, parser: argparse.ArgumentParser, *_: Any) -> None:
        print(f"vornctl {stubs.version()}")
        parser.exit()


class Unsaid(Parser):
    """Stands for a command that the line does not have: to put the parsers of all commands together takes longer than
    what most of them do."""

    def __init__(self) -> None:
        pass

    def add_argument(self, *_: Any, **__: Any) -> Any:
        pass


class Level:
    """A command that has commands of its own. Those that the line does not have are listed, and nothing else."""

    words: Container[str] | None = None  # of the line; None: every command is to be told of

    def __init__(self, parser: Parser, title: str, dest: str) -> None:
        self._commands: Any = None
        make: Any = self._parser
        if not isinstance(parser, Unsaid):
            self._commands = parser.add_subparsers(
                title=title, metavar=dest.upper(), dest=dest, required=True, parser_class=make
            )

    def _parser(self, prog: str, **options: Any) -> Parser:
        said = self.words is None or prog.rpartition(" ")[2] in self.words
        return Parser(prog=prog, **options) if said else Unsaid()

    def add(self, name: str, text: str, examples: str, run: Any = None, more: str = "") -> Parser:
        """`run` is what a command without commands of its own does."""
        if not self._commands:
            return Unsaid()
        parser: Parser = self._commands.add_parser(
            name,
            help=text,
            description=f"{text[0].upper()}{text[1:]}.\n\n{more}".strip(),
            epilog=f"examples:\n{examples}\n\n{ANYWHERE}",
        )
        if isinstance(parser, Unsaid):
            return parser
        add_common_options(parser, shown=False)
        if run:
            parser.set_defaults(run=run)
        return parser


def lines(*examples: str) -> str:
    return "\n".join(f"  vornctl {example}" for example in examples)


def make_parser() -> Parser:
    parser = Parser(prog="vornctl", description=DESCRIPTION, epilog=EXAMPLES)
    parser.add_argument("--version", action=Version, nargs=0, help="show the version, and exit")
    add_common_options(parser, shown=True)
    top = Level(parser, "commands", "command")
    add_set(top)
    add_delete(top)
    add_list(top)
    watch = top.add("watch", "show changes as they come", lines("watch routes", "watch sessions --rtt"))
    what = Level(watch, "what to watch", "what")
    what.add(
        "routes",
        "show the IP routes, and then every change of them, until Ctrl-C",
        lines("watch routes", "watch routes --json | jq --unbuffered 'select(.state == \"failed\")'"),
        commands.watch_routes,
        more="A line for each route, a mark, and from then on a line for what changes: what is set and removed, and"
        " what becomes of it in the kernel. A terminal that is slow is shown the latest of a route alone.",
    )
    sessions = what.add(
        "sessions",
        "show the sessions' status, and then every change of it, until Ctrl-C",
        lines(
            "watch sessions",
            "watch sessions --rtt --timeout 60",
            "watch sessions --json | jq --unbuffered 'select(.status == \"DOWN\")'",
        ),
        commands.watch_sessions,
    )
    sessions.add_argument("--rtt", action="store_true", help="show round-trip times too, in microseconds")
    add_state(top)
    add_policy(top)
    add_show(top)
    add_status(top)
    add_documents(top)
    top.add(
        "end-sync",
        "tell an agent that was started anew that everything has been set again",
        lines("apply agent.json && vornctl end-sync"),
        commands.end_sync,
        more="What it has found in the kernel and nobody has set since is removed.",
    )
    top.add(
        "announce",
        "make this client the primary, without a change",
        lines("announce --election-id 7"),
        commands.announce,
        more="What the former primary has set and is not programmed yet is dropped. See --election-id.",
    )
    return parser


def add_set(top: Level) -> None:
    parser = top.add(
        "set",
        "set something, in place of what has the same name",
        lines(
            "set route 10.0.0.0/8 group core --tag 7",
            "set mpls 100 group core pop",
            "set session eth0 192.0.2.1 --rtt --min-tx 100000 --multiplier 3",
        ),
    )
    level = Level(parser, "what to set", "what")

    leaf = level.add(
        "route",
        "set an IP route",
        lines("set route 10.0.0.0/8 group core", "set route 2001:db8::/32 group core --tag 7"),
        commands.set_route,
    )
    leaf.add_argument("prefix", metavar="PREFIX", type=values.prefix, help="such as 10.0.0.0/8")
    leaf.add_argument("word", metavar="group", choices=["group"], help="the word group")
    leaf.add_argument("group", metavar="GROUP", help="the next-hop group to forward to")
    leaf.add_argument("--tag", metavar="N", type=values.number, default=0, help="the route's tag")
    add_wait(leaf)

    leaf = level.add(
        "routes",
        "set the IP routes of a file, through one stream",
        lines("set routes --file routes.txt", "list routes | vornctl set routes --file -"),
        commands.set_routes,
        more="""\
Each line is PREFIX GROUP [TAG], as list routes prints it; a word that begins with # begins a comment, and a
group in double quotes is a JSON string. The file is read to its end before the first route is sent. When the
agent refuses a route, those before it are set.""",
    )
    leaf.add_argument("--file", metavar="FILE", required=True, help="the file; - is standard input")
    add_wait(leaf)

    leaf = level.add(
        "group",
        "set a next-hop group",
        lines(
            "set group core nexthop 192.0.2.1 interface eth0",
            "set group te nexthop 192.0.2.1 interface eth0 push 100,200 replicate 2 \\\n"
            "    backup 192.0.2.9 interface eth1",
        ),
        commands.set_group,
        more=NEXTHOP_HELP,
    )
    leaf.usage = "%(prog)s [-h] [--wait] NAME [nexthop ADDRESS ... | backup ADDRESS ...]..."
    leaf.add_argument("name", metavar="NAME", help="the group's name")
    leaf.add_argument(
        "nexthops",
        metavar="nexthop|backup ADDRESS ...",
        nargs="*",
        help="the next hops in order, and those that take over from them",
    )
    add_wait(leaf)

    leaf = level.add(
        "mpls",
        "set an MPLS route",
        lines(
            "set mpls 100 nexthop 192.0.2.1 interface eth0 swap 200",
            "set mpls 101 group core pop",
            "set mpls 102 vrf red",
        ),
        commands.set_mpls,
        more="""\
Forwarding is one of:
  nexthop ADDRESS ...      to one next hop
  group NAME [pop|swap]    to a next-hop group; pop is the default
  vrf NAME                 the label is removed, the packet forwarded in the VRF

"""
        + NEXTHOP_HELP,
    )
    leaf.usage = "%(prog)s [-h] [--wait] LABEL {nexthop ADDRESS ... | group NAME [pop|swap] | vrf NAME}"
    leaf.add_argument("label", metavar="LABEL", type=values.number, help="the incoming label")
    leaf.add_argument("forwarding", metavar="nexthop|group|vrf ...", nargs="+", help="where to")
    add_wait(leaf)

    leaf = level.add(
        "redirect",
        "set a class-based-forwarding redirect",
        lines("set redirect core to gold --ipv4-dscp 46,48 --ipv6-dscp 46"),
        commands.set_redirect,
    )
    leaf.add_argument("group", metavar="GROUP", help="the group whose traffic is matched")
    leaf.add_argument("word", metavar="to", choices=["to"], help="the word to")
    leaf.add_argument("target", metavar="TARGET", help="the group that the matched traffic goes to")
    for family in ("IPv4", "IPv6"):
        leaf.add_argument(
            f"--{family.lower()}-dscp",
            metavar="N,N...",
            type=values.numbers,
            default=[],
            help=f"the DSCP values matched on {family} traffic",
        )
    add_wait(leaf)

    leaf = level.add(
        "session",
        "set an SBFD echo session",
        lines(
            "set session eth0 192.0.2.1 --rtt --min-tx 100000 --multiplier 3",
            "set session eth0 192.0.2.1 labels 100,200 dscp 46 --track-interface",
        ),
        commands.set_session,
        more=SESSION_HELP,
    )
    add_session_key(leaf, " [--rtt] [--min-tx USEC] [--multiplier N] [--track-interface]")
    leaf.add_argument("--rtt", action="store_true", help="measure round-trip times")
    leaf.add_argument(
        "--min-tx",
        metavar="USEC",
        type=values.number,
        default=0,
        help="least interval between two echo packets, in microseconds",
    )
    leaf.add_argument(
        "--multiplier",
        metavar="N",
        type=values.number,
        default=0,
        help="how many missed echoes in a row make the session DOWN",
    )
    leaf.add_argument("--track-interface", action="store_true", help="go down with the interface")


def add_wait(*leaves: Parser) -> None:
    for leaf in leaves:
        leaf.add_argument(
            "--wait", action="store_true", help="wait until it is programmed; exit code 1 when it is refused"
        )


def add_session_key(leaf: Parser, options: str = "") -> None:
    leaf.usage = f"%(prog)s [-h] INTERFACE ADDRESS [labels N,N...] [dscp N] [exp N]{options}"
    leaf.add_argument("key", metavar="INTERFACE ADDRESS ...", nargs="+", help="the session")


def add_delete(top: Level) -> None:
    parser = top.add(
        "delete",
        "delete something; what is not there is an error (NOT_FOUND)",
        lines("delete route 10.0.0.0/8", "delete session eth0 192.0.2.1"),
    )
    level = Level(parser, "what to delete", "what")

    leaf = level.add("route", "delete an IP route", lines("delete route 10.0.0.0/8"), commands.delete_route)
    leaf.add_argument("prefix", metavar="PREFIX", type=values.prefix, help="such as 10.0.0.0/8")
    leaf = level.add(
        "routes",
        "delete the IP routes of a file",
        lines("delete routes --file routes.txt", "list routes | vornctl delete routes --file -"),
        commands.delete_routes,
        more="""\
Each line is PREFIX [GROUP [TAG]], as for set routes; the prefix alone counts. One that is not there is passed
over.""",
    )
    leaf.add_argument("--file", metavar="FILE", required=True, help="the file; - is standard input")
    leaf = level.add("group", "delete a next-hop group", lines("delete group core"), commands.delete_group)
    leaf.add_argument("name", metavar="NAME", help="the group's name")
    leaf = level.add("mpls", "delete an MPLS route", lines("delete mpls 100"), commands.delete_mpls)
    leaf.add_argument("label", metavar="LABEL", type=values.number, help="the incoming label")
    leaf = level.add("redirect", "delete a redirect", lines("delete redirect core"), commands.delete_redirect)
    leaf.add_argument("group", metavar="GROUP", help="the group whose traffic is matched")
    leaf = level.add(
        "session",
        "delete an SBFD echo session",
        lines("delete session eth0 192.0.2.1", "delete session eth0 192.0.2.1 labels 100,200 dscp 46"),
        commands.delete_session,
        more=SESSION_HELP,
    )
    add_session_key(leaf)


def add_list(top: Level) -> None:
    parser = top.add("list", "list what has been programmed", lines("list routes", "list groups --json"))
    level = Level(parser, "what to list", "what")
    for name, text, run in (
        ("routes", "list the IP routes", commands.list_routes),
        ("groups", "list the next-hop groups, a line for each next hop", commands.list_groups),
        ("mpls", "list the MPLS routes", commands.list_mpls),
        ("redirects", "list the class-based-forwarding redirects", commands.list_redirects),
        ("sessions", "list the SBFD echo sessions with their status", commands.list_sessions),
    ):
        leaf = level.add(name, text, lines(f"list {name}", f"list {name} --json"), run)
        if name != "sessions":
            leaf.add_argument("--failed", action="store_true", help="only what is not programmed, and why")


def add_state(top: Level) -> None:
    parser = top.add(
        "state",
        "set, read and delete the entries that clients leave for each other",
        lines("state set owner=lab-3 window=02:00", "state get", "state delete owner"),
    )
    level = Level(parser, "what to do", "action")
    leaf = level.add("set", "set entries", lines("state set owner=lab-3 'note=back at noon'"), commands.state_set)
    leaf.add_argument("entries", metavar="KEY=VALUE", nargs="+", help="an entry")
    leaf = level.add(
        "get",
        "read the values of keys, or every entry",
        lines("state get", "state get owner", "state get owner --json | jq -r .owner"),
        commands.state_get,
        more="A key that is not there has the empty value.",
    )
    leaf.add_argument("keys", metavar="KEY", nargs="*", help="what to read (default: everything)")
    leaf = level.add(
        "delete",
        "delete entries",
        lines("state delete owner window"),
        commands.state_delete,
        more="Deleting a key that is not there changes nothing.",
    )
    leaf.add_argument("keys", metavar="KEY", nargs="+", help="what to delete")


def add_policy(top: Level) -> None:
    parser = top.add(
        "policy",
        "ask who may call what",
        lines(
            "policy show",
            "policy check policy.json",
            "policy probe --as user:alice --as group:users /routing_agent.Routing/SetRoute",
        ),
    )
    level = Level(parser, "what to ask", "action")
    level.add(
        "show",
        "show the policy in force, and how often each rule has decided",
        lines("policy show", "policy show --json | jq .rules"),
        policy.show,
    )
    level.add(
        "withdraw",
        "end the calls of clients whose certificates are not accepted any more",
        lines("policy withdraw"),
        policy.withdraw,
        more="For when an authority is gone from the agent's files, or has revoked somebody, and connections last.",
    )
    leaf = level.add(
        "check",
        "have the agent say whether a file is a policy that it would take",
        lines("policy check policy.json", "policy check policy.json /routing_agent.Routing/GetRoutes --as CN=bob"),
        policy.check,
        more="Nothing is put into force. With METHODs, which stand before --as, it also says what the policy would"
        " decide.",
    )
    leaf.add_argument("file", metavar="FILE", help="the policy, in gRPC's authorization format (JSON)")
    add_caller(leaf, "*")
    leaf = level.add(
        "probe",
        "ask whether a caller may call methods",
        lines(
            "policy probe /grpc.health.v1.Health/Check",
            "policy probe --as uid:1000 --header env=lab /routing_agent.Routing/SetRoute",
        ),
        policy.probe,
        more="No call is made and nothing is counted.",
    )
    add_caller(leaf, "+")


def add_caller(leaf: Parser, methods: str) -> None:
    leaf.add_argument(
        "methods", metavar="METHOD", nargs=methods, type=policy.method_name, help="such as /routing_agent.State/Read"
    )
    leaf.add_argument(
        "--as",
        metavar="PRINCIPAL",
        dest="principals",
        action="append",
        default=[],
        help="who calls, as a policy writes it: user:NAME, uid:N, group:NAME, gid:N, or a name in a certificate; may"
        " be given again (default: a stranger)",
    )
    leaf.add_argument(
        "--header",
        metavar="KEY=VALUE",
        dest="headers",
        action="append",
        default=[],
        type=policy.header,
        help="metadata of the call; may be given again",
    )


def add_show(top: Level) -> None:
    parser = top.add("show", "show what the agent would forward by", lines("show route 10.50.3.4", "show summary"))
    level = Level(parser, "what to show", "what")
    leaf = level.add(
        "route",
        "show the IP route of an address, or those of a prefix and of all within it",
        lines("show route 10.50.3.4", "show route 10.50.0.0/16", "show route 2001:db8::1 --json"),
        commands.show_route,
        more="For an address, the longest prefix that it lies in, with the next hops of its group.",
    )
    leaf.add_argument("wanted", metavar="ADDRESS|PREFIX", type=values.address_or_prefix, help="such as 10.50.3.4")
    level.add(
        "tech",
        "print all that the agent tells of itself, for a report",
        lines("show tech > report.txt"),
        status.show_tech,
        more="What can't be had says why, and the rest follows.",
    )
    level.add(
        "summary", "count what the agent holds", lines("show summary", "show summary --json"), commands.show_summary
    )


def add_status(top: Level) -> None:
    top.add(
        "status",
        "show how the agent is: version, uptime, tables, kernel, backlog, what expires",
        lines("status", "status --json | jq .backlog"),
        status.show,
    )
    leaf = top.add(
        "top",
        "show how the agent is as a live picture, with a curve of the backlog, until Ctrl-C",
        lines("top", "top --interval 0.5"),
        status.top,
    )
    leaf.add_argument("--interval", metavar="SECONDS", type=seconds, default=1.0, help="between two looks (default: 1)")
    leaf.add_argument("--count", metavar="N", type=values.number, default=0, help="end after N looks (default: never)")


def add_documents(top: Level) -> None:
    top.add(
        "save",
        "print what the agent holds, as a document that diff and apply read",
        lines("save > agent.json"),
        documents.save,
        more="""\
JSON: next-hop groups, MPLS routes, redirects, IP routes and the state, each as list --json prints it. SBFD
sessions are not in it: the agent tells their status, not how they were set.""",
    )
    leaf = top.add(
        "diff",
        "show how a document differs from what the agent holds",
        lines("diff agent.json", "list routes --json | vornctl --server other:50051 diff -"),
        documents.diff,
        more="""\
Lines with - are what the agent holds and the document does not, lines with + the other way round. The exit code
is 1 when there are any. A kind that the document does not have is not compared.""",
    )
    leaf.add_argument("file", metavar="FILE", help="the document; - is standard input")
    leaf = top.add(
        "apply",
        "set what a document has and the agent does not hold",
        lines("apply agent.json", "apply agent.json --prune --dry-run"),
        documents.apply,
        more="""\
The document is read to its end and compared before anything is sent, and nothing that is as it should be is sent.
Groups are set first. It can be applied again after a failure.""",
    )
    leaf.add_argument("file", metavar="FILE", help="the document; - is standard input")
    leaf.add_argument(
        "--prune", action="store_true", help="delete what the agent holds and the document does not, of its kinds"
    )
    add_wait(leaf)
    leaf.add_argument("--dry-run", action="store_true", help="only show what would be changed, as diff does")


def parse(arguments: list[str]) -> argparse.Namespace:
    for argument in arguments:
        try:
            argument.encode()
        except UnicodeEncodeError as error:
            raise UsageError(f"{argument!r} is no UTF-8 text") from error
    completes = "_ARGCOMPLETE" in os.environ  # a shell asks how the line could go on
    Level.words = None if completes else set(arguments)
    parser = make_parser()
    if completes:
        import argcomplete  # type: ignore[import]

        argcomplete.autocomplete(parser)
    args = parser.parse_args(arguments, argparse.Namespace(**DEFAULTS))
    if args.server is None:
        args.server = server_address(os.environ.get("VORNCTL_SERVER") or "127.0.0.1:50051")
    return args


def main(arguments: list[str]) -> int:
    try:
        args = parse(arguments)
        import agent  # which is slow, and not needed to say what is wrong with the command line

        return agent.run(args)
    except Refused as error:
        complain(str(error))
        return FAILED
    except (UsageError, stubs.StubError) as error:
        complain(str(error))
        return USAGE
    except OSError as error:  # standard output is closed, or can't take more
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        if not isinstance(error, BrokenPipeError):
            complain(f"standard output: {error.strerror}")
            return FAILED
        return OK
