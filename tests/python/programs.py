"""Hostile hosts, each run in an interpreter of its own: programs.py NAME. A crash is the fault."""

import collections
import gc
import logging
import sys
import time
import weakref
from functools import partial
from itertools import product
from threading import Condition, Event, Lock, RLock

import decision_bounds as bounds
from support import (DAY, INFINITY, AcquiredCondition, Boom, NativeCondition, Reply, admit, attempt,
                     boom, in_thread, is_held)  # fmt: skip

logging.getLogger().addHandler(logging.NullHandler())


def objects_made_by_new_alone():
    for kind in ("Share", "_Held", "_Charges", "RequestRates", "RunBudget", "DailySpend"):
        made = getattr(bounds, kind)
        for name in (name for name in dir(made) if not name.startswith("__reduce")):
            thing = made.__new__(made)
            for arguments in ((), (1.0,), (Reply(),), (1, 1), (boom, 1), (1, boom, boom)):
                attempt(lambda arguments=arguments: getattr(thing, name)(*arguments))
            for change in (lambda: setattr(thing, name, None), lambda: delattr(thing, name)):
                attempt(change)
                attempt(repr, thing)


class World:
    """A pass, a day and rates whose calls into Python are counted; the one due does the deed."""

    now = None  # the world that plays
    calls, polls, locks = 0, 0, ()

    def __init__(self, deed, due, held, condition, lock, charges):
        self.deed, self.due = deed, due
        self.budget = bounds.RunBudget(9, 9, should_stop=self.stop, _held_tokens=held())
        self.spend = bounds.DailySpend(9.0, hooked(lambda: DAY), hooked(lambda day: 0.0))
        self.spend._held, self.rates = held(), bounds.RequestRates()
        self.rates._cost = charges()
        self.put_locks_in(condition, lock)

    def put_locks_in(self, condition=Condition, lock=Lock):
        self.locks += (condition(), condition(), lock())  # the list keeps those that are replaced
        self.budget._changed, self.spend._changed, self.rates._lock = self.locks[-3:]

    def step(self):
        self.calls += 1
        if self.calls == self.due:
            self.deed(self)

    def stop(self):
        self.step()
        self.polls += 1
        return self.polls % 4 == 0

    def admit(self):
        clock = hooked(lambda: 0.0)
        return admit(self.spend, hooked(lambda: 9.0), deadline=1.0, clock=clock, stopping=self.stop)

    def play(self):
        World.now = self
        for admission in (lambda: self.budget.hold(9.0), self.admit):
            self.share = attempt(admission)
            for share in (self.share, attempt(admission)):  # the second waits until it is stopped
                attempt(lambda share=share: share.settle(HookedReply()))
            attempt(lambda admission=admission: admission().__exit__())
        attempt(lambda: self.rates.learn(9, "feature", HookedReply()))
        attempt(lambda: self.rates.cost(9, "feature") + self.rates.tokens(9))
        World.now = None

    def holds_nothing(self):
        held = self.budget._held_tokens.holders, self.spend._held.holders, self.budget.in_flight
        return held == (0, 0, 0) and not any(map(is_held, self.locks))


def hooked(function):
    return lambda *arguments: World.now.step() or function(*arguments)


def hooked_type(base, *names, late):
    """A type whose methods make a step before they begin or, the one named last, when done."""
    steps = {name: hooked(getattr(base, name)) for name in names}
    steps[late] = lambda *arguments: (getattr(base, late)(*arguments), World.now.step())[0]
    return type("Hooked", (base,), steps)


HookedHeld = hooked_type(bounds._Held, "admits", "take", late="give_back")
HookedCharges = hooked_type(bounds._Charges, "bound", late="learn")
HookedWaiters = hooked_type(collections.deque, late="__len__")
HookedCondition = hooked_type(Condition, "__enter__", "wait", "notify_all", late="__exit__")


class HookedReply:
    cached, cost = property(hooked(lambda self: False)), property(hooked(lambda self: 0.25))
    input_tokens = property(hooked(lambda self: 7))


def condition_with_hooked_waiters():
    condition = Condition()
    condition._waiters = HookedWaiters()
    return condition


PLAIN = bounds._Held, Condition, Lock, bounds._Charges
HOOKED = HookedHeld, HookedCondition, HookedCondition, HookedCharges
WAITERS = bounds._Held, condition_with_hooked_waiters, RLock, bounds._Charges


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
    world.budget = world.spend = world.rates = world.share = None
    gc.collect()


def enter_again(world):
    budget, spend = world.budget, world.spend
    for call in (budget.summary, budget.exhausted, budget.release, spend.spent,
                 lambda: budget.hold(1.0), lambda: admit(spend, stopping=world.stop),
                 lambda: world.share.settle(None)):  # fmt: skip
        attempt(call)


LOSE_NOTHING = boom, interrupt, lose_the_locks, replace
DEEDS = (*LOSE_NOTHING, begin_again, remove, drop, enter_again)


def callables_that_misbehave():
    bounds._POLL_S = 0.0001
    for deed, parts in product(DEEDS, (PLAIN, HOOKED, WAITERS)):
        due, world = 0, None
        while world is None or world.calls >= world.due:
            due += 1
            world = World(deed, due, *parts)
            world.play()
            if deed in LOSE_NOTHING:
                assert world.holds_nothing(), (deed, parts, due)
        assert due > 20


def rings():
    """Weak references to objects each of which only itself keeps alive, by one of its fields."""
    budget, other, spend, dated, held, share = (
        bounds.RunBudget(9, 9), bounds.RunBudget(9, 9), bounds.DailySpend(9.0, str, None),
        bounds.DailySpend(9.0, str, None), bounds._Held(), bounds.Share(),
    )  # fmt: skip
    budget.should_stop, spend._ledger, dated._today = budget.hold, spend.charge, dated.spent
    share._give_back, held.me, other.share = share.settle, held, other.hold(1.0)
    return [weakref.ref(thing) for thing in (budget, other, spend, dated, held, share)]


def weak_chain():
    """Ended shares of which each, as it goes, lets a dict let the next one go."""
    following = weakref.WeakKeyDictionary()
    share = None
    for _ in range(5000):
        before = bounds.Share()
        before.settle(None)
        if share is not None:
            following[before] = share
        share = before
    del share, before
    assert len(following) == 0


def cycles_and_chains():
    references = rings()
    gc.collect()
    assert not any(reference() for reference in references)
    share, budget = bounds.Share(), bounds.RunBudget(9, 9)
    for _ in range(5000):
        share = bounds.Share(share.settle)
        budget = bounds.RunBudget(9, 9, should_stop=budget.stopping)
    assert isinstance(attempt(share.settle, None), RecursionError)
    assert isinstance(attempt(budget.hold, 1.0), RecursionError)
    weak_chain()


OTHER_INTERPRETER = """if True:
    import sys
    sys.path[:] = {}
    from programs import Reply, admit, boom, bounds
    for bound in (bounds.RunBudget(1, 9), bounds.DailySpend(0.25, lambda: "a day", boom)):
        with admit(bound) as share:
            share.settle(Reply())
        try:
            admit(bound)
            raise AssertionError
        except bounds.DecisionBudgetExceeded:
            bound.me = bound  # it dies with the interpreter
"""


def interpreters_of_their_own():
    import _xxsubinterpreters as interpreters

    for _ in range(2):
        other = interpreters.create()
        interpreters.run_string(other, OTHER_INTERPRETER.format(sys.path))
        interpreters.destroy(other)


def daemon_threads_at_the_end_of_the_interpreter():
    class Slow:
        def __del__(self):
            time.sleep(0.4)

    bounds.slow = Slow()  # so that waits end while the interpreter does
    budget, locked = bounds.RunBudget(9, 9), bounds.RunBudget(9, 9)
    spend, derived = (bounds.DailySpend(9.0, str, None) for _ in range(2))
    derived.__class__ = type("Derived", (bounds.DailySpend,), {})  # its steps go by name
    *_, share = [admit(bound, 9.0) for bound in (budget, spend, derived, locked)]
    busy = bounds.RunBudget(9, 9, should_stop=lambda: [None for _ in iter(int, 1)])  # for ever
    for bound in (budget, spend, derived, busy) * 4:
        in_thread(admit, bound)
    locked._changed.acquire()
    in_thread(share.settle, None)
    warned = Event()
    bounds.logger.addFilter(lambda record: warned.set() or time.sleep(0.2) or True)
    in_thread(bounds.DailySpend(9.0, DAY.title, boom).spent)  # ends while it handles the ledger's error
    assert warned.wait(20)


class Things(World):
    """A world that makes no steps, of figures that the interpreter does not keep ready."""

    def __init__(self, condition=Condition, lock=Lock, held=bounds._Held):
        self.budget, self.rates = bounds.RunBudget(900, 90000, 300), bounds.RequestRates()
        self.spend = bounds.DailySpend(900.5, lambda: DAY, lambda day: 300.25)
        self.tokens, self.dollars = self.budget.hold(300.5), admit(self.spend, 300.5)
        self.reply = Reply(300.5, 3000)
        self.rates.learn(3000, "feature", self.reply)
        self.budget._held_tokens, self.spend._held = held(1, 300.5), held(1, 300.5)
        self.put_locks_in(condition, lock)
        # nor any dict or float: all that it had to reuse are in use
        self.in_use = [{} for _ in range(100)], [number / 3 for number in range(200)]

    def state(self):
        budget, spend, rates = self.budget, self.spend, self.rates
        return repr((budget, budget._held_tokens, spend._held, spend._day, spend._cost,
                     rates._features, rates._cost, rates._tokens))  # fmt: skip


OPERATIONS = [
    lambda t: t.budget.hold(700.5), lambda t: t.tokens.settle(t.reply),
    lambda t: t.tokens.settle(None), lambda t: t.budget.release(300.5),
    lambda t: t.budget.charge(t.reply, 300.5), lambda t: t.budget.summary(),
    lambda t: t.budget.exhausted(), lambda t: repr(t.budget), lambda t: admit(t.spend, 700.5),
    lambda t: t.dollars.settle(t.reply), lambda t: t.dollars.settle(None),
    lambda t: t.spend.spent(), lambda t: t.spend.charge(t.reply),
    lambda t: t.rates.learn(300, "another", t.reply), lambda t: t.rates.cost(300, "feature"),
    lambda t: t.rates.tokens(300), lambda t: (t.tokens._give_back, t.dollars._give_back),
    lambda t: (bounds.RunBudget(900, 900), bounds.DailySpend(900.5, str, None)),
    lambda t: (bounds.RequestRates(), bounds.Share(boom), bounds._Held(), bounds._Charges(300.5)),
]  # fmt: skip


def memory_that_fails_at_each_step():
    from _testcapi import remove_mem_hooks, set_nomemory

    derived = type("Derived", (bounds._Held,), {})  # used by name, in C all the same
    kinds = (Condition, Lock), (NativeCondition,) * 2, (AcquiredCondition, Lock, derived)
    for (number, operate), kind in product(enumerate(OPERATIONS), kinds):
        things, k, quiet = Things(*kind), 0, 0
        before = things.state()
        operate(things)
        after = things.state()
        while quiet < 12:  # an operation may do without an allocation that fails
            things = None  # before the next ones, which take over what it used
            things = Things(*kind)
            set_nomemory(k, k + 1)
            try:
                operate(things)
                quiet += 1
            except (MemoryError, RuntimeError):  # the latter from threading.RLock()
                quiet = 0
            finally:
                remove_mem_hooks()
            assert not any(map(is_held, things.locks)), (number, kind, k)
            if things.state() == before:
                operate(things)
            assert things.state() == after, (number, kind, k)
            k += 1


def collections_that_misbehave():
    """The garbage collector runs what does the deeds, in the middle of an operation."""
    bounds._POLL_S = 0.0001
    wait = lambda t: attempt(admit, t.spend, INFINITY, stopping=iter((False, True)).__next__)
    collected = lambda phase, info: done.append(deed(things))
    deeds = replace, override, begin_again, remove, drop, enter_again
    for deed, operate in product(deeds, (*OPERATIONS, wait)):
        k, done, things = 0, [True], Things()
        expected = type(operate(things)), things.state()
        while done:
            k, done, things = k + 1, [], Things()
            gc.collect()
            gc.callbacks.append(collected)
            gc.set_threshold(k)  # new objects until the next
            outcome = attempt(operate, things)
            gc.set_threshold(0)
            gc.callbacks.clear()
            assert not any(map(is_held, things.locks)), (deed, operate, k)
            if deed in (replace, override):
                assert (type(outcome), things.state()) == expected, (deed, operate, k)


if __name__ == "__main__":
    globals()[sys.argv[1]]()
