"""Interpreters that come and go on threads of their own, each with a module and threads."""

import sys

from support import Reply, admit, attempt, boom, bounds, in_thread

try:
    import _interpreters as interpreters
except ImportError:  # before CPython 3.13
    import _xxsubinterpreters as interpreters

GUEST = "import sys; sys.path = {}; from hazards import interpreters_of_their_own as it; it.use()"


def use_bounds(budget):
    for _ in range(1000):
        budget.hold(1.0).settle(Reply())
    for bound in (bounds.RunBudget(1, 9), bounds.DailySpend(0.25, lambda: "a day", boom)):
        with admit(bound) as share:
            share.settle(Reply())
        refused = attempt(admit, bound)
        assert isinstance(refused, bounds.DecisionBudgetExceeded), f"{bound}: {refused!r}"
        bound.me = bound  # it dies with the interpreter


def use():
    budget = bounds.RunBudget(4000, 10**6)
    # Not daemons: an interpreter of its own allows none.
    for thread in [in_thread(use_bounds, budget, daemon=False) for _ in range(4)]:
        thread.result(60)
    assert (budget.calls, budget.in_flight) == (4000, 0), budget


def visit():
    for _ in range(2):
        other = interpreters.create()
        failed = interpreters.run_string(other, GUEST.format(sys.path))  # before 3.13 it raises
        interpreters.destroy(other)
        assert failed is None, failed


def main():
    for thread in [in_thread(visit) for _ in range(4)]:
        thread.result(60)
