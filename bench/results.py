"""What is measured: figures and ratios by name, in the rows of one table."""

import argparse
from typing import TypedDict

Figures = dict[str, float]
Sample = dict[str, float]  # of a long run, after so many calls
Plan = argparse.Namespace  # how much of everything is done


class Row(TypedDict):
    work: str
    subject: str
    peer: str | None  # whose figures those of the subject were divided by
    figures: Figures
    ratios: Figures


class Aim(TypedDict):
    aim: str
    value: float
    met: bool


class Result(TypedDict):
    machine: str
    date: str
    minutes: float
    rows: list[Row]
    growth: list[Sample]
    aims: list[Aim]
