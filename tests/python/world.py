"""A world of bounds in use, what can be done with it, and what a hostile host does to it."""

import gc
import sys
from itertools import cycle
from threading import Condition, Lock

from support import DAY, INFINITY, Boom, Kind, Reply, admit, attempt, boom, bounds, is_held


class World:
    """A pass, a day and rates, of figures that the interpreter does not keep ready.

    Of each bound there is a share, and another call in flight that holds 100.5.
    """

    def __init__(self, kind=Kind()):
        budget, spend, rates = kind.types
        self.budget, self.rates, self.reply = budget(900, 90000, 300), rates(), Reply(300.5, 3000)
        self.spend = spend(900.5, lambda: DAY, lambda day: 300.25)
        self.tokens, self.dollars = self.budget.hold(300.5), admit(self.spend, 300.5)
        self.rates.learn(3000, "feature", self.reply)
        self.budget._held_tokens, self.spend._held = kind.held(2, 401.0), kind.held(2, 401.0)
        self.budget.in_flight, self.rates._cost = 2, kind.charges(0.125, 300.5)
        self.locks = ()
        self.put_locks_in(kind.condition, kind.lock)
        polls = cycle((False, False, True))
        self.stop = lambda: next(polls)
        # Made here: without memory, CPython 3.12.1 and 3.13.0 crash as they make a function.
        self.ends = {"deadline": 1.0, "clock": lambda: 0.0, "stopping": self.stop}
        self.dear, self.unknown = lambda: 700.5, lambda: INFINITY
        # nor any dict or float: all that there was to reuse are in use
        self.in_use = [{} for _ in range(100)], [number / 3 for number in range(200)]

    def put_locks_in(self, condition=Condition, lock=Lock):
        self.locks += (condition(), condition(), lock())  # the list keeps those that are replaced
        self.budget._changed, self.spend._changed, self.rates._lock = self.locks[-3:]

    def admit(self, bound):
        return self.spend.admit(bound, **self.ends)

    def hold_and_wait(self):
        self.budget.should_stop = self.stop
        return self.budget.hold(INFINITY)

    def by_hand(self):
        """The pass, of which a call is ended without its share."""
        self.tokens._give_back = None
        return self.budget

    def state(self):
        budget, spend, rates = self.budget, self.spend, self.rates
        return repr((budget, budget._held_tokens, spend._held, spend._day, spend._cost,
                     rates._features, rates._cost, rates._tokens))  # fmt: skip

    def holds_a_lock(self):
        return any(map(is_held, self.locks))


GIVE_BACKS = {
    "settle a pass's share, paid": lambda w: w.tokens.settle(w.reply),
    "settle a pass's share": lambda w: w.tokens.settle(None),
    "settle a day's share, paid": lambda w: w.dollars.settle(w.reply),
    "settle a day's share": lambda w: w.dollars.settle(None),
    "release": lambda w: w.by_hand().release(300.5),
    "charge what was reserved": lambda w: w.by_hand().charge(w.reply, 300.5),
}
LOCKED = GIVE_BACKS | {
    "hold": lambda w: w.budget.hold(700.5), "hold and wait": World.hold_and_wait,
    "summary": lambda w: w.budget.summary(), "exhausted": lambda w: w.budget.exhausted(),
    "charge a pass": lambda w: w.budget.charge(w.reply),
    "charge a pass for 0.0": lambda w: w.budget.charge(w.reply, 0.0),
    "admit": lambda w: w.admit(w.dear), "admit and wait": lambda w: w.admit(w.unknown),
    "spent": lambda w: w.spend.spent(), "charge a day": lambda w: w.spend.charge(w.reply),
    "learn": lambda w: w.rates.learn(300, "another", w.reply),
    "cost": lambda w: w.rates.cost(300, "feature"), "tokens": lambda w: w.rates.tokens(300),
}  # fmt: skip
OPERATIONS = LOCKED | {
    "repr": lambda w: repr(w.budget),
    "actions": lambda w: (w.tokens._give_back, w.dollars._give_back),
    "new bounds": lambda w: (bounds.RunBudget(900, 900), bounds.DailySpend(900.5, str, None)),
    "new records": lambda w: (bounds._Held(), bounds._Charges(300.5)),
    "new others": lambda w: (bounds.RequestRates(), bounds.Share(boom)),
}


def operate(name, world, step):
    """What the operation returns; `step` sees each Python function begin and end."""
    sys.setprofile(step)
    try:
        return OPERATIONS[name](world)
    finally:
        sys.setprofile(None)


def interrupt(world):
    raise KeyboardInterrupt


def lose_the_locks(world):
    for lock in world.locks:
        attempt(getattr(lock, "_release_save", None) or lock.release)
    raise Boom


def replace(world):
    """Puts other locks and records in the place of those in use, and uses them."""
    world.put_locks_in()
    for bound, name in (world.budget, "_held_tokens"), (world.spend, "_held"):
        if type(held := getattr(bound, name)) is bounds._Held:  # another may be at work
            setattr(bound, name, bounds._Held(held.holders, held.amount, held.unbounded))
    return world.budget.summary(), world.spend.spent(), world.rates.tokens(9)


def override(world):
    """Puts steps in the place of the records' own that fail without the lock."""
    held, cost = world.budget._held_tokens, world.rates._cost
    held.give_back = lambda share: type(held).give_back(held, share / is_held(world.locks[0]))
    cost.bound = lambda size: type(cost).bound(cost, size // is_held(world.locks[2]))


def begin_again(world):
    world.budget.__init__(9, 9, should_stop=world.stop)
    world.spend.__init__(9.0, lambda: DAY, None)
    world.rates.__init__()


def remove(world):
    for name in "_changed _held_tokens _held should_stop _today _ledger _lock _cost".split():
        for thing in (world.budget, world.spend, world.rates):
            attempt(delattr, thing, name)


def drop(world):
    world.budget = world.spend = world.rates = world.tokens = world.dollars = None
    gc.collect()


def enter_again(world):
    for name in ("hold", "admit", "release", "summary", "spent", "settle a pass's share"):
        attempt(OPERATIONS[name], world)


RUIN = begin_again, remove, drop, enter_again
