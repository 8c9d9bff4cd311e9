"""Counts references, memory blocks and open files over scenarios: flat. Needs python3.11-dbg."""

import gc
import os
import sys
import warnings
from itertools import product

import decision_bounds as bounds
from hazards import callbacks_that_misbehave as callbacks
from hazards import interpreters_of_their_own, objects_made_by_new_alone, rings_and_chains
from support import INFINITY, Kind, admit, attempt, await_waiters, boom, in_thread
from world import OPERATIONS, World

WARM_UP, RUNS, WINDOWS = 3, 20, 6
KINDS = [Kind(name) for name in ("plain", "subclass", "other condition", "derived", "native")]
warnings.simplefilter("always", ResourceWarning)  # of shares that are dropped
warnings.showwarning = boom  # which the module does not let out


def operations():
    for kind, operate in product(KINDS, OPERATIONS.values()):
        attempt(operate, World(kind))


def threads_that_wait():
    for bound in [make() for kind in KINDS[:3] for make in (kind.budget, kind.spend)]:
        share = admit(bound, INFINITY)
        calls = [in_thread(admit, bound) for _ in range(3)]
        await_waiters(bound, 3)
        share.settle(None)
        for call in calls:
            call.result(20).settle(None)


def callbacks_that_misbehave():
    for case, due in product(callbacks.CASES, (3, 9)):
        callbacks.play(*case, due)


def counts():
    gc.collect()
    return sys.gettotalrefcount(), sys.getallocatedblocks(), len(os.listdir("/proc/self/fd"))


def growth(run, times):
    before = counts()
    for _ in range(times):
        run()
    return [after - earlier for after, earlier in zip(counts(), before)]


def is_flat(name, run):
    """Whether many runs add no more than one; the interpreter's caches may take a few windows."""
    growth(run, WARM_UP)
    for _ in range(WINDOWS):
        once = growth(run, 1)
        grown = [many - one for many, one in zip(growth(run, 1 + RUNS), once)]
        if not any(grown):
            break
    print(f"{name}: grows by {grown} in {RUNS} runs")
    return not any(grown)


if __name__ == "__main__":
    bounds._POLL_S, sys.unraisablehook = 0.0001, bounds._nothing
    named = {run.__name__: run for run in (operations, threads_that_wait, callbacks_that_misbehave)}
    for hazard in (objects_made_by_new_alone, rings_and_chains, interpreters_of_their_own):
        named[hazard.__name__] = hazard.main
    sys.exit(not all(is_flat(*scenario) for scenario in named.items()))  # up to one that grows
