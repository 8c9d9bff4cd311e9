"""Counts references, memory blocks and open files over scenarios: flat. Needs python3.11-dbg."""

import gc
import os
import sys
import warnings
from itertools import product

import decision_bounds as bounds
from hazards import callbacks_that_misbehave as callbacks
from hazards import interpreters_of_their_own, objects_made_by_new_alone, rings_and_chains
from support import Kind, attempt, boom
from world import OPERATIONS, World

RUNS, WINDOWS = 20, 6
KINDS = [Kind(name) for name in ("plain", "subclass", "other condition", "derived", "native")]
warnings.simplefilter("always", ResourceWarning)  # of shares that are dropped
warnings.showwarning = boom  # which the module does not let out


def operations():
    for kind, operate in product(KINDS, OPERATIONS.values()):
        attempt(operate, World(kind))


def callbacks_that_misbehave():
    for case, due in product(callbacks.CASES, (3, 9)):
        callbacks.play(*case, due)


def counts():
    gc.collect()
    return sys.gettotalrefcount(), sys.getallocatedblocks(), len(os.listdir("/proc/self/fd"))


def is_flat(name, run):
    """Whether many runs leave nothing behind; the interpreter's caches may take a few windows."""
    before, now = counts(), counts()
    for _ in range(WINDOWS):
        for _ in range(RUNS):
            run()
        before, now = now, counts()
        if before == now:
            break
    print(f"{name}: {now} after {RUNS} more runs, {before} before")
    return before == now


if __name__ == "__main__":
    bounds._POLL_S, sys.unraisablehook = 0.0001, bounds._nothing
    named = {"operations": operations, "callbacks that misbehave": callbacks_that_misbehave}
    for hazard in (objects_made_by_new_alone, rings_and_chains, interpreters_of_their_own):
        named[hazard.__name__] = hazard.main
    sys.exit(not all(is_flat(*scenario) for scenario in named.items()))  # up to one that grows
