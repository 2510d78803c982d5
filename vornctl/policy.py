"""The policy commands: whether a file is a good policy, who may call what, and what has been decided."""

from __future__ import annotations

import argparse
import time
from typing import TYPE_CHECKING, Any

from output import print_json, print_table
from values import UsageError

if TYPE_CHECKING:
    from agent import Agent


def check(agent: Agent, args: argparse.Namespace) -> None:
    try:
        with open(args.file, encoding="utf-8") as file:
            text = file.read()
    except UnicodeDecodeError as error:
        raise UsageError(f"{args.file}: no UTF-8 text") from error
    except OSError as error:
        raise UsageError(f"{args.file}: {error.strerror}") from error
    if not text:
        raise UsageError(f"{args.file}: is empty")
    answers = asked(agent, args, args.methods or [""], text)
    if args.methods:
        show_answers(args, answers)
    elif args.json:
        print_json({"policy": answers[0].policy})
    else:
        print(f"{args.file} is a good policy: {answers[0].policy}")


def probe(agent: Agent, args: argparse.Namespace) -> None:
    show_answers(args, asked(agent, args, args.methods, ""))


def show(agent: Agent, args: argparse.Namespace) -> None:
    policy = agent.policy.Get(agent.policy_messages.get_policy_msg(), **agent.unary)
    rules = [(rule.name, "allow" if rule.allows else "deny", rule.hits) for rule in policy.rule]
    loaded = time.strftime("%Y-%m-%d %H:%M:%S %z", time.localtime(policy.loaded_seconds))
    if args.json:
        print_json(
            {
                "policy": policy.name,
                "generation": policy.generation,
                "loaded": policy.loaded_seconds,
                "dry_run": policy.dry_run,
                "error": policy.error,
                "rules": [dict(zip(("name", "effect", "hits"), rule)) for rule in rules],
                "unmatched": policy.unmatched,
            }
        )
        return
    print_table(
        ["POLICY", "IN FORCE SINCE", "MODE"], [(policy.name, loaded, "dry run" if policy.dry_run else "enforced")]
    )
    if policy.error:
        print_table(["NOT TAKEN"], [(policy.error,)])
    print_table(["RULE", "EFFECT", "DECIDED"], [*rules, ("(none matched)", "deny", policy.unmatched)])


def withdraw(agent: Agent, args: argparse.Namespace) -> None:
    withdrawn = agent.policy.Withdraw(agent.policy_messages.withdraw_msg(), **agent.unary)
    if args.json:
        print_json({"calls": withdrawn.calls})
    else:
        print(f"{withdrawn.calls} calls ended")


def asked(agent: Agent, args: argparse.Namespace, methods: list[str], text: str) -> list[Any]:
    """What the agent answers about each method."""
    headers = [{"key": key, "value": value} for key, value in args.headers]
    return [
        agent.policy.Probe(
            agent.policy_messages.policy_probe_msg(
                principal=args.principals, method=method, header=headers, policy=text
            ),
            **agent.unary,
        )
        for method in methods
    ]


def show_answers(args: argparse.Namespace, answers: list[Any]) -> None:
    rows = [
        (method, "allowed" if answer.allowed else "denied", answer.rule)
        for method, answer in zip(args.methods, answers)
    ]
    if args.json:
        print_json([dict(zip(("method", "decision", "rule"), row)) for row in rows])
    else:
        print_table(["METHOD", "DECISION", "RULE"], [(*row[:2], row[2] or "(none matches)") for row in rows])


def method_name(text: str) -> str:
    if not text.startswith("/"):
        raise UsageError(f"{text!r} is no method, such as /routing_agent.Routing/SetRoute")
    return text


def header(text: str) -> tuple[str, str]:
    key, equals, value = text.partition("=")
    if not equals or not key:
        raise UsageError(f"{text!r} is no KEY=VALUE")
    return key.lower(), value
