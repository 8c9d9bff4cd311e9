"""Objects that only keep one another alive, and chains too deep to be walked or freed by calls."""

import gc
import sys
import weakref

from support import attempt, bounds

DEPTH = 20_000  # some versions run 10,000 calls of C functions one within another


def collect_rings():
    """Of objects each of which only itself keeps alive, by one of its fields."""
    budget, other = bounds.RunBudget(9, 9), bounds.RunBudget(9, 9)
    spend, dated = bounds.DailySpend(9.0, str, None), bounds.DailySpend(9.0, str, None)
    held, share = bounds._Held(), bounds.Share()
    budget.should_stop, spend._ledger, dated._today = budget.hold, spend.charge, dated.spent
    share._give_back, held.me, other.share = share.settle, held, other.hold(1.0)
    rings = [weakref.ref(thing) for thing in (budget, other, spend, dated, held, share)]
    del budget, other, spend, dated, held, share
    gc.collect()
    kept = [ring() for ring in rings if ring() is not None]
    assert not kept, f"the garbage collector does not see the rings of {kept}"


def walk_deep_chains():
    share, budget = bounds.Share(), bounds.RunBudget(9, 9)
    for _ in range(DEPTH):
        share = bounds.Share(share.settle)
        budget = bounds.RunBudget(9, 9, should_stop=budget.stopping)
    for step, argument in (share.settle, None), (budget.hold, 1.0):
        error = attempt(step, argument)
        assert isinstance(error, RecursionError), f"{step}, {DEPTH} deep: {error!r}"


def drop_a_weak_chain():
    """Ended shares of which each, as it goes, lets a dict let the next one go."""
    limit = sys.getrecursionlimit()
    sys.setrecursionlimit(10**6)  # CPython 3.13 begins late to break a chain up
    following, share = weakref.WeakKeyDictionary(), bounds.Share()
    for _ in range(DEPTH):
        share.settle(None)
        before, share = share, bounds.Share()
        following[share] = before
    del share, before
    sys.setrecursionlimit(limit)
    assert len(following) == 0, f"{len(following)} ended shares of a chain are still there"


def main():
    for hazard in (collect_rings, walk_deep_chains, drop_a_weak_chain):
        hazard()
