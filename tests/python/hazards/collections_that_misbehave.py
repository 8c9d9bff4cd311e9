"""The garbage collector runs a hostile host's code at each point of each operation."""

import gc
from itertools import count, product

from support import attempt, bounds
from world import OPERATIONS, RUIN, World, override, replace

LOSE_NOTHING = replace, override


def play(name, deed, k):
    """Does the deed once k objects are new since the last collection. Whether there were k."""
    world, control, done = World(), World(), []
    gc.collect()
    gc.callbacks.append(lambda phase, info: done.append(deed(world)))
    gc.set_threshold(k)
    outcome = attempt(OPERATIONS[name], world)
    gc.set_threshold(0)
    gc.callbacks.clear()
    where = f"{name}: {deed.__name__} in the collection after {k} new objects"
    assert not world.holds_a_lock(), f"{where}: a lock is held"
    if deed in LOSE_NOTHING:
        expected = type(attempt(OPERATIONS[name], control)), control.state()
        found = type(outcome), world.state()
        assert found == expected, f"{where}: {found} for {expected}"
    return len(done) > 0


def main():
    bounds._POLL_S = 0.0001
    for case in product(OPERATIONS, LOSE_NOTHING + RUIN):
        next(k for k in count(1) if not play(*case, k))
