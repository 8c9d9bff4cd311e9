"""Locks and conditions: those of the host's own, patched, replaced, failing and interrupted."""

import copy
import signal
import sys
import threading
import time
from _thread import RLock, allocate_lock
from contextlib import ExitStack
from itertools import count, product
from operator import attrgetter
from unittest.mock import Mock

import pytest

from support import (Boom, Kind, NativeCondition, OtherCondition, admit, attempt, boom,
                     holds_nothing, in_thread)  # fmt: skip
from world import GIVE_BACKS, LOCKED, World

AT_ONCE = [name for name in LOCKED if not name.endswith("and wait")]
CHARGES = [name for name in LOCKED if name.startswith("charge a")]


class PythonLock:
    """A plain lock with methods in Python, which notes how it is acquired."""

    def __init__(self):
        self.inner, self.acquired = allocate_lock(), []

    def acquire(self, *how):
        self.acquired.append(how)
        return self.inner.acquire(*how)

    def release(self, *error):
        self.inner.release()

    __enter__, __exit__ = acquire, release


PATCHES = [("Lock", threading.Lock), ("Lock", threading.RLock), ("Lock", PythonLock),
           ("Condition", OtherCondition)]  # fmt: skip


@pytest.mark.parametrize(("name", "patch"), PATCHES)
@pytest.mark.parametrize("kind", ["plain", "subclass", "other condition"])
def test_every_operation_waits_for_the_hosts_lock(kind, name, patch, import_fresh, monkeypatch):
    """Also for one that stood in threading as the module was imported."""
    monkeypatch.setattr(threading, name, patch)
    made = Kind(kind, import_fresh())
    worlds = {name: World(made) for name in AT_ONCE}
    monkeypatch.undo()
    with ExitStack() as held:
        for lock in (lock for world in worlds.values() for lock in world.locks):
            held.enter_context(lock)
        calls = {name: in_thread(LOCKED[name], world) for name, world in worlds.items()}
        time.sleep(0.1)
        assert [name for name, call in calls.items() if call.done()] == []
    assert {call.exception(20) for call in calls.values()} == {None}


@pytest.mark.parametrize("method", ["__enter__", "__exit__", "notify_all"])
@pytest.mark.parametrize("when", ["before the import", "after it"])
@pytest.mark.parametrize("on", ["threading's type", "a subclass in its place"])
def test_a_method_of_a_hosts_own_is_called(on, when, method, import_fresh, monkeypatch):
    def spy(self, *arguments):
        seen.append(self)
        return original(self, *arguments)

    original, seen, module = getattr(threading.Condition, method), [], import_fresh()
    own = type("Own", (threading.Condition,), {method: spy})
    patch = (threading, "Condition", own) if "sub" in on else (threading.Condition, method, spy)
    monkeypatch.setattr(*patch)
    kind = Kind("plain", import_fresh() if when == "before the import" else module)
    for name in GIVE_BACKS:
        GIVE_BACKS[name](world := World(kind))
        assert {*seen} & {*world.locks}, name


def test_changes_of_a_condition_are_seen_by_the_next_operation(which):
    bound, other = getattr(Kind(), which)(), threading.Condition()
    share, condition = admit(bound), bound._changed
    condition.__dict__ = vars(condition) | {"notify_all": Mock()}
    share.settle(None)
    assert condition.notify_all.call_count == 1
    condition.__dict__ = dict(vars(other))
    with other:
        call = in_thread(admit, bound)
        time.sleep(0.05)
        assert not call.done(), "it did not take the lock of now"
    entered = Mock(side_effect=RLock.__enter__)
    own_lock = type("Derived", (RLock,), {"__enter__": lambda self: entered(self)})()
    bound._changed = threading.Condition(own_lock)
    call.result(20).settle(None)
    assert entered.called and holds_nothing(bound)
    condition.acquire = condition.release = condition.__enter__ = boom  # none of a with block
    bound._changed = condition
    admit(bound).settle(None)
    assert not condition._is_owned()


@pytest.mark.parametrize("taken", [False, True])
@pytest.mark.parametrize("error", [Boom, KeyboardInterrupt])
@pytest.mark.parametrize("name", LOCKED)
def test_a_lock_that_fails_is_let_go_and_stops_all_but_a_give_back(name, error, taken):
    class Failing(NativeCondition):
        def __enter__(self):
            if taken:
                super().__enter__()
            raise error

    world, done = World(), World()
    attempt(LOCKED[name], done)
    expected = (done if name in GIVE_BACKS else world).state()
    world.put_locks_in(Failing, Failing)
    assert type(attempt(LOCKED[name], world)) is error
    assert world.state() == expected and not world.holds_a_lock()


@pytest.mark.parametrize("conditions", product([threading.Condition, OtherCondition], repeat=2))
@pytest.mark.parametrize("name", [*GIVE_BACKS, *CHARGES])
def test_an_interrupt_ends_the_wait_for_a_lock_but_no_give_back(name, conditions):
    """Which begins afresh, with the condition that was put in place meanwhile."""

    def interrupt(*_):
        world.put_locks_in(conditions[1])
        raise KeyboardInterrupt

    def host():
        with world.locks[-3], world.locks[-2]:
            held.set()
            time.sleep(0.05)  # until the operation waits
            signal.pthread_kill(threading.main_thread().ident, signal.SIGINT)
            time.sleep(0.02)  # until it has tried again

    world, done, held = World(), World(), threading.Event()
    LOCKED[name](done)
    expected = (done if name in GIVE_BACKS else world).state()
    world.put_locks_in(conditions[0])
    before, thread = signal.signal(signal.SIGINT, interrupt), in_thread(host)
    assert held.wait(20)
    outcome = attempt(LOCKED[name], world)
    signal.signal(signal.SIGINT, before)
    assert thread.exception(20) is None and isinstance(outcome, KeyboardInterrupt)
    assert world.state() == expected and not world.holds_a_lock()


@pytest.mark.parametrize("step", ["__enter__", "wait"])
def test_a_lock_is_not_taken_to_learn_who_holds_it(step, which):
    bound, lock = getattr(Kind(), which)(), PythonLock()
    share = admit(bound, 10.0)
    methods = {"notify_all": lambda self: None, "wait": boom, step: boom}
    bound._changed = type("Derived", (threading.Condition,), methods)(lock)
    assert isinstance(attempt(admit, bound), Boom)
    attempt(share.settle, None)
    assert (False,) not in lock.acquired and not lock.inner.locked()


def depth(name, kind):
    """How deep the operation's own calls go: the least recursion limit under which it ends."""
    before = sys.getrecursionlimit()
    for limit in count(1):
        world = World(kind)
        try:
            sys.setrecursionlimit(limit)
            LOCKED[name](world)
            return limit
        except RecursionError:
            pass
        finally:
            sys.setrecursionlimit(before)


ACTS = {"copy": copy.copy, "deep copy": copy.deepcopy}
ACTS["annotations"] = lambda thing: type(thing).__annotations__


@pytest.mark.parametrize("act", ACTS)
@pytest.mark.parametrize("path", ["budget", "spend", "budget._held_tokens", "budget._changed"])
def test_what_changes_no_method_leaves_the_quick_way_open(path, act, import_fresh):
    for left_by_an_act in {"__slotnames__", "__annotations__"} & vars(threading.Condition).keys():
        delattr(threading.Condition, left_by_an_act)
    kind = Kind("plain", import_fresh())
    before = {name: depth(name, kind) for name in AT_ONCE}
    attempt(ACTS[act], attrgetter(path)(World(kind)))
    assert {name: depth(name, kind) for name in AT_ONCE} == before
