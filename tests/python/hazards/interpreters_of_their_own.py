"""Interpreters that come and go, each with a module of its own."""

import os
import sys

import _xxsubinterpreters as interpreters
from support import Reply, admit, attempt, boom, bounds
from world import isolated

GUEST = "import os, sys; sys.path[:] = path.split(os.pathsep); import {0}; {0}.use()"


def use():
    for bound in (bounds.RunBudget(1, 9), bounds.DailySpend(0.25, lambda: "a day", boom)):
        with admit(bound) as share:
            share.settle(Reply())
        refused = attempt(admit, bound)
        assert isinstance(refused, bounds.DecisionBudgetExceeded), f"{bound}: {refused!r}"
        bound.me = bound  # it dies with the interpreter


@isolated(seconds=30)
def main():
    folder, file = os.path.split(__file__)
    path = {"path": os.pathsep.join([folder, *sys.path])}
    for _ in range(2):
        other = interpreters.create()
        interpreters.run_string(other, GUEST.format(file.removesuffix(".py")), shared=path)
        interpreters.destroy(other)
