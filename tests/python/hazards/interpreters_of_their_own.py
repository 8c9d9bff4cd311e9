"""Interpreters that come and go, each with a module of its own."""

import sys

import _xxsubinterpreters as interpreters
from support import Reply, admit, attempt, boom, bounds

GUEST = "import sys; sys.path = {}; from hazards import interpreters_of_their_own as it; it.use()"


def use():
    for bound in (bounds.RunBudget(1, 9), bounds.DailySpend(0.25, lambda: "a day", boom)):
        with admit(bound) as share:
            share.settle(Reply())
        refused = attempt(admit, bound)
        assert isinstance(refused, bounds.DecisionBudgetExceeded), f"{bound}: {refused!r}"
        bound.me = bound  # it dies with the interpreter


def main():
    for _ in range(2):
        other = interpreters.create()
        interpreters.run_string(other, GUEST.format(sys.path))
        interpreters.destroy(other)
