"""What the tests of the module share: replies, bounds of every kind, threads, locks."""

import importlib.util
import logging
import threading
import time
from collections import deque
from concurrent.futures import Future
from dataclasses import dataclass

import decision_bounds as bounds

DAY, NEXT_DAY, INFINITY = "2024-05-01", "2024-05-02", float("inf")
REAL_CONDITION = threading.Condition  # whatever a test puts in its place
bounds.logger.addHandler(logging.NullHandler())


@dataclass
class Reply:
    cost: float = 0.25
    input_tokens: int = 7
    cached: bool = False


class Boom(Exception):
    pass


def boom(*_):
    raise Boom


class Broken:
    cached, input_tokens, cost = False, 7, property(boom)


def attempt(call, *arguments, **keywords):
    """What the call returns, or the error or interrupt that it raises."""
    try:
        return call(*arguments, **keywords)
    except (SystemError, AssertionError):  # the former: a rule of the interpreter's was broken
        raise
    except (Exception, KeyboardInterrupt) as error:
        return error


def derived(base, *names):
    """A subclass that has these methods in Python, where each only calls its base's."""
    steps = [(name, getattr(base, name)) for name in names]
    methods = {name: lambda *a, step=step: step(*a) for name, step in steps}
    return type("Derived", (base,), methods)


def import_fresh():
    """A module of one test's own, whose types may be patched."""
    spec = importlib.util.spec_from_file_location("a.decision_bounds", bounds.__file__)
    spec.loader.exec_module(module := importlib.util.module_from_spec(spec))
    return module


class OtherCondition:
    """No more than a bound needs of a condition, and no __dict__."""

    __slots__ = "inner", "wait", "notify_all"

    def __init__(self):
        self.inner = REAL_CONDITION()
        self.wait, self.notify_all = self.inner.wait, self.inner.notify_all

    def __enter__(self):
        return self.inner.__enter__()

    def __exit__(self, *error):
        self.inner.__exit__(*error)


class NativeCondition(type(threading.RLock())):
    """A lock, or a condition that nobody waits on: a host's own, yet all its methods are in C."""

    wait, notify_all = time.sleep, [].clear


def with_waiters_in_python():
    condition = threading.Condition()
    condition._waiters = derived(deque, "__len__")()
    return condition


class Kind:
    """Makes bounds that the module handles in C++ alone (plain), or by looking steps up."""

    CONDITIONS = {
        "other condition": OtherCondition, "native": NativeCondition,
        "waiters": with_waiters_in_python,
        "derived": derived(REAL_CONDITION, "__enter__", "__exit__", "wait", "notify_all"),
    }  # fmt: skip

    def __init__(self, name="plain", module=bounds):
        self.types = [module.RunBudget, module.DailySpend, module.RequestRates]
        self.held, self.charges, self.lock = module._Held, module._Charges, threading.Lock
        self.condition = self.CONDITIONS.get(name, threading.Condition)
        if name == "subclass":
            self.types = [derived(base) for base in self.types]
        if name in ("derived", "native"):
            in_python = name == "derived"
            self.held = derived(self.held, *("admits", "take", "give_back") * in_python)
            self.charges = derived(self.charges, *("bound", "learn") * in_python)
            self.lock = self.condition

    def budget(self, max_calls=10, max_tokens=10):
        return self.types[0](max_calls, max_tokens, _changed=self.condition())

    def spend(self, cap=10.0, today=lambda: DAY, ledger=None):
        spend = self.types[1](cap, today, ledger)
        spend._changed = self.condition()
        return spend


def admit(bound, amount=1.0, *, deadline=None, clock=lambda: 0.0, stopping=bounds.never):
    """A share of either kind of bound."""
    if hasattr(bound, "hold"):
        return bound.hold(amount)
    ask = amount if callable(amount) else lambda: amount
    return bound.admit(ask, deadline=deadline, clock=clock, stopping=stopping)


def in_thread(function, *arguments, daemon=True):
    """Starts a call on a thread of its own; the future of what it returns or raises."""
    future = Future()

    def run():
        try:
            future.set_result(function(*arguments))
        except BaseException as error:
            future.set_exception(error)

    threading.Thread(target=run, daemon=daemon).start()
    return future


def condition_of(bound):
    return getattr(bound._changed, "inner", bound._changed)


def held_of(bound):
    return bound._held_tokens if hasattr(bound, "hold") else bound._held


def is_held(lock):
    """Whether this thread holds a lock or condition (any thread: a lock that has no owner)."""
    lock = super(NativeCondition, lock) if isinstance(lock, NativeCondition) else lock
    lock = getattr(lock, "inner", lock)
    return lock._is_owned() if hasattr(lock, "_is_owned") else lock.locked()


def await_waiters(bound, count=1):
    end = time.monotonic() + 20
    while len(condition_of(bound)._waiters) != count:
        assert time.monotonic() < end, f"never {count} waiting"
        time.sleep(0.001)


def holds_nothing(bound):
    """Whether all is given back and the lock is free."""
    lock = condition_of(bound)
    free = in_thread(lambda: lock.acquire(blocking=False) and lock.release() is None).result(20)
    held = held_of(bound)
    return free and (held.holders, held.amount, getattr(bound, "in_flight", 0)) == (0, 0.0, 0)
