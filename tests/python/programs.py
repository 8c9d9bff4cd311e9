"""Hostile hosts, each run in an interpreter of its own: programs.py NAME. A crash is the fault."""

import gc
import logging
import sys
import threading
import time
import weakref

import decision_bounds as bounds
from support import DAY, Boom, Reply, admit, attempt, boom, in_thread

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
    """A pass and a day whose calls into Python are counted; the one that is due does a deed."""

    now = None

    def __init__(self, deed, due, held, condition):
        World.now, self.deed, self.due, self.calls, self.polls = self, deed, due, 0, 0
        self.budget = bounds.RunBudget(9, 9, should_stop=self.stop, _held_tokens=held())
        self.spend = bounds.DailySpend(9.0, hooked(lambda: DAY), hooked(lambda day: 0.0))
        self.budget._changed, self.spend._changed = condition(), condition()
        self.spend._held = held()

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
        for admission in (lambda: self.budget.hold(9.0), self.admit):
            self.share = attempt(admission)
            for share in (self.share, attempt(admission)):  # the second waits until it is stopped
                attempt(lambda share=share: share.settle(HookedReply()))
            attempt(lambda admission=admission: admission().__exit__())


def hooked(function):
    return lambda *arguments: World.now.step() or function(*arguments)


class HookedHeld(bounds._Held):
    admits, take = hooked(bounds._Held.admits), hooked(bounds._Held.take)

    def give_back(self, share):
        super().give_back(share)
        World.now.step()


class HookedCondition(threading.Condition):
    __enter__, wait = hooked(threading.Condition.__enter__), hooked(threading.Condition.wait)
    notify_all = hooked(threading.Condition.notify_all)

    def __exit__(self, *error):
        super().__exit__(*error)
        World.now.step()


class HookedReply:
    cached, cost = property(hooked(lambda self: False)), property(hooked(lambda self: 0.25))
    input_tokens = property(hooked(lambda self: 7))


def begin_again(world):
    world.budget.__init__(9, 9, should_stop=world.stop)
    world.spend.__init__(9.0, lambda: DAY, None)


def remove(world):
    for name in "_changed _held_tokens _held should_stop _today _ledger".split():
        attempt(delattr, world.budget, name)
        attempt(delattr, world.spend, name)


def drop(world):
    world.budget = world.spend = world.share = None
    gc.collect()


def lose_the_lock(world):
    for bound in (world.budget, world.spend):
        attempt(bound._changed._release_save)
    raise Boom


def enter_again(world):
    budget, spend = world.budget, world.spend
    for call in (budget.summary, budget.exhausted, budget.release, spend.spent,
                 lambda: budget.hold(1.0), lambda: admit(spend, stopping=world.stop),
                 lambda: world.share.settle(None)):  # fmt: skip
        attempt(call)


def callables_that_misbehave():
    bounds._POLL_S = 0.0005
    for parts in ((bounds._Held, threading.Condition), (HookedHeld, HookedCondition)):
        for deed in (boom, lose_the_lock, begin_again, remove, drop, enter_again):
            due, world = 0, None
            while world is None or world.calls >= world.due:
                due += 1
                world = World(deed, due, *parts)
                world.play()
                if deed in (boom, lose_the_lock):
                    holders = world.budget._held_tokens.holders, world.spend._held.holders
                    assert (*holders, world.budget.in_flight) == (0, 0, 0), (parts, due)
                    for bound in (world.budget, world.spend):
                        assert not bound._changed._is_owned(), (parts, due)
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


OTHER_INTERPRETER = """if True:
    import sys
    sys.path[:] = {}
    from programs import Reply, admit, boom, bounds
    for bound in (bounds.RunBudget(1, 9), bounds.DailySpend(0.25, lambda: "a day", boom)):
        with admit(bound) as share:
            share.settle(Reply())
        try:
            admit(bound)
            raise SystemError
        except bounds.DecisionBudgetExceeded:
            bound.me = bound
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

    bounds.slow, budget, locked = Slow(), bounds.RunBudget(9, 9), bounds.RunBudget(9, 9)
    spend, derived = (bounds.DailySpend(9.0, str, None) for _ in range(2))
    derived.__class__ = type("Derived", (bounds.DailySpend,), {})
    held = [admit(bound, 9.0) for bound in (budget, spend, derived, locked)]
    loops = bounds.RunBudget(9, 9, should_stop=lambda: [None for _ in iter(int, 1)])
    for bound in (budget, spend, derived, loops) * 4:
        in_thread(admit, bound)
    locked._changed.acquire()
    in_thread(held[3].settle, None)
    time.sleep(0.1)


class Things:
    def __init__(self):
        self.budget, self.rates = bounds.RunBudget(900, 90000, 300), bounds.RequestRates()
        self.spend = bounds.DailySpend(900.5, lambda: DAY, lambda day: 300.25)
        self.reply, self.pair = Reply(300.5, 3000), [self.budget, self.spend]
        self.tokens, self.dollars = [admit(bound, 300.5) for bound in self.pair]

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
    lambda t: t.rates.learn(300, "feature", t.reply), lambda t: t.rates.cost(300, "feature"),
    lambda t: t.rates.tokens(300), lambda t: (t.tokens._give_back, t.dollars._give_back),
    lambda t: (bounds.RunBudget(900, 900), bounds.DailySpend(900.5, str, None)),
    lambda t: (bounds.RequestRates(), bounds.Share(boom), bounds._Held(), bounds._Charges(300.5)),
]  # fmt: skip


def memory_that_fails_at_each_step():
    from _testcapi import remove_mem_hooks, set_nomemory

    for number, operate in enumerate(OPERATIONS):
        things, k, quiet = Things(), 0, 0
        before = things.state()
        operate(things)
        after = things.state()
        while quiet < 12:
            things = Things()
            set_nomemory(k, k + 1)
            try:
                operate(things)
                quiet += 1
            except (MemoryError, RuntimeError):  # the latter from threading.RLock()
                quiet = 0
            finally:
                remove_mem_hooks()
            if things.state() == before:
                operate(things)
            assert things.state() == after, (number, k)
            assert not any(bound._changed._is_owned() for bound in things.pair)
            k += 1


if __name__ == "__main__":
    globals()[sys.argv[1]]()
