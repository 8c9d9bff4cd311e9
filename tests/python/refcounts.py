"""Counts references, memory blocks and open files over scenarios: flat. Needs python3.11-dbg."""

import gc
import os
import sys
from unittest.mock import patch

import decision_bounds as bounds
import programs
from support import (INFINITY, Kind, AcquiredCondition, Reply, admit, attempt, await_waiters, boom,
                     in_thread)  # fmt: skip

WARM_UP, RUNS, WINDOWS = 3, 20, 6
KINDS = [Kind(name) for name in ("plain", "subclass", "other condition")]


def calls_from_admission_to_refusal():
    for kind in KINDS:
        rates = bounds.RequestRates()
        for bound in (kind.budget(2, 500), kind.spend(1.0, ledger=lambda day: "0.25")):
            for reply in (Reply(), None, Reply(cached=True)):
                with admit(bound, min(rates.tokens(300), rates.cost(300, "a"))) as share:
                    rates.learn(300, "a", Reply())
                    action = share._give_back if reply is None else share.settle
                    action(reply)
            bound.charge(Reply())
            assert isinstance(attempt(admit, bound), bounds.DecisionBudgetExceeded)
        assert kind.budget().summary() and repr(bound) and kind.spend(ledger=boom).spent() == 0.0


def arguments_that_are_refused():
    for make in (bounds.RunBudget, bounds.DailySpend, bounds.Share, bounds._Held, bounds._Charges):
        for arguments in (("x",) * 3, (1, 2, 3, 4, "x"), (2**70,), (1.5, boom, 5), (1,) * 11):
            attempt(make, *arguments)
            attempt(make, **dict.fromkeys(("amount", "unknown", "cap"), arguments))


def threads_that_wait():
    for bound in [make() for kind in KINDS for make in (kind.budget, kind.spend)]:
        share = admit(bound, INFINITY)
        calls = [in_thread(admit, bound) for _ in range(3)]
        await_waiters(bound, 3)
        share.settle(None)
        for call in calls:
            call.result(20).settle(None)


def what_few_hosts_use():
    budget, wait = bounds.RunBudget(9, 9, _changed=AcquiredCondition()), bounds._wait
    budget.hold(INFINITY)._give_back = bounds._nothing  # it holds its room for good
    budget.should_stop = iter((False, True)).__next__
    with patch.object(bounds, "_wait", lambda *arguments: wait(*arguments)):
        assert isinstance(attempt(budget.hold, 1.0), bounds.DecisionStopped)
    assert not bounds.never() and bounds._nothing(None) is None
    assert all(record().__reduce__() for record in (bounds._Held, bounds._Charges))


def counts():
    gc.collect()
    return sys.gettotalrefcount(), sys.getallocatedblocks(), len(os.listdir("/proc/self/fd"))


def growth(run, times):
    before = counts()
    for _ in range(times):
        run()
    return [after - earlier for after, earlier in zip(counts(), before)]


def is_flat(run):
    """Whether many runs add no more than one; the interpreter's caches may take a few windows."""
    for _ in range(WARM_UP):
        run()
    windows = []
    while len(windows) < WINDOWS and (not windows or any(windows[-1])):
        once = growth(run, 1)
        windows.append([many - one for many, one in zip(growth(run, 1 + RUNS), once)])
    print(f"{run.__name__}: grows by {windows[-1]} in {RUNS} runs")
    return not any(windows[-1])


if __name__ == "__main__":
    scenarios = [calls_from_admission_to_refusal, arguments_that_are_refused, threads_that_wait,
                 what_few_hosts_use, programs.objects_made_by_new_alone, programs.cycles_and_chains,
                 programs.callables_that_misbehave, programs.interpreters_of_their_own]  # fmt: skip
    sys.exit(not all(map(is_flat, scenarios)))  # up to the first that grows
