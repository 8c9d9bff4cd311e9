"""Each call into Python misbehaves in its turn: callables, replies, records, locks, queues."""

from itertools import count, product

from support import Kind, attempt, boom, bounds
from world import GIVE_BACKS, OPERATIONS, RUIN, World, interrupt, lose_the_locks, operate, replace

LOSE_NOTHING = boom, interrupt, lose_the_locks, replace
CASES = [*product(("plain", "derived", "waiters"), OPERATIONS, LOSE_NOTHING + RUIN)]


class PythonReply:
    cached, cost = property(lambda self: False), property(lambda self: 0.25)
    input_tokens = property(lambda self: 7)


# An error that comes in one of these frames loses what the operation has returned.
OWN_FRAMES = {f.__code__ for f in (operate, World.admit, World.by_hand, *OPERATIONS.values())}


def left(world, outcome=None):
    """What is held once each share is settled."""
    for share in (world.tokens, world.dollars, outcome):
        attempt(lambda share=share: share.settle(None))
    held = world.budget._held_tokens, world.spend._held
    return world.budget.in_flight, *((record.holders, record.amount) for record in held)


def play(kind, name, deed, due):
    """Does the deed at the step that is due. Whether there was one."""
    world, steps = World(Kind(kind)), 0
    world.reply, world.budget.should_stop, world.spend._day = PythonReply(), world.stop, ""

    def step(frame, event, argument):
        nonlocal steps
        steps += frame.f_code not in OWN_FRAMES
        if steps == due:
            steps += 1
            of_record = getattr(frame.f_locals.get("step"), "__objclass__", None) is bounds._Held
            if not of_record or deed not in (boom, lose_the_locks):  # an error there is the host's
                deed(world)

    outcome = attempt(operate, name, world, step)
    if deed in LOSE_NOTHING:
        where, done = f"{name}, {kind}: {deed.__name__} at step {due}", World()
        ends = [left(done, attempt(OPERATIONS[name], done))]
        ends += [] if name in GIVE_BACKS else [left(World())]
        found = left(world, outcome)
        assert found in ends, f"{where}: {found} are held in the end, not one of {ends}"
        assert not world.holds_a_lock(), f"{where}: a lock is held"
    return steps > due


def main():
    bounds._POLL_S = 0.0001
    steps = [next(due for due in count(1) if not play(*case, due)) for case in CASES]
    assert sum(steps) > 9 * len(CASES), "hardly any step was seen"
