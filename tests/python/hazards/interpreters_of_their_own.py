"""Interpreters that come and go on threads of their own, each with a module and threads."""

import sys

from support import Reply, admit, attempt, boom, bounds, in_thread

if sys.version_info >= (3, 13):
    import _interpreters as interpreters
else:
    import _xxsubinterpreters as interpreters

# An isolated one has a lock of its own from CPython 3.12 on, and no threads before that.
HOW = {} if sys.version_info >= (3, 12) else {"isolated": False}

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
        other = interpreters.create(**HOW)
        failed = interpreters.run_string(other, GUEST.format(sys.path))  # before 3.13 it raises
        interpreters.destroy(other)
        assert failed is None, failed


def main():
    for thread in [in_thread(visit) for _ in range(4)]:
        thread.result(60)
