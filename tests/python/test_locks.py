"""Locks and conditions: those of the host's own, patched, replaced, failing and interrupted."""

import copy
import signal
import threading
import time
from _thread import RLock, allocate_lock
from contextlib import ExitStack
from itertools import product
from unittest.mock import Mock

import pytest

from support import (Boom, Kind, NativeCondition, OtherCondition, admit, attempt, boom,
                     held_of, import_fresh, in_thread)  # fmt: skip
from world import GIVE_BACKS, LOCKED, World, operate

AT_ONCE = [name for name in LOCKED if not name.endswith("and wait")]
CHARGES = [name for name in LOCKED if name.startswith("charge a")]


class PythonLock:
    """A plain lock with methods in Python, which notes how it is acquired."""

    def __init__(self):
        self.inner, self.acquired = allocate_lock(), []
        self.locked = self.inner.locked

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
def test_every_operation_waits_for_the_hosts_lock(kind, name, patch, monkeypatch):
    monkeypatch.setattr(threading, name, patch)  # while the module is imported
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
def test_a_method_of_a_hosts_own_is_called(on, when, method, monkeypatch):
    spy = lambda self, *arguments: seen.append(self) or original(self, *arguments)
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
    call.result(20).settle(None)
    bound._changed = threading.Condition(type("Derived", (RLock,), {"__enter__": boom})())
    assert isinstance(attempt(admit, bound), Boom), "it did not use the lock's own __enter__"
    condition.acquire = condition.release = condition.__enter__ = boom  # none of a with block
    bound._changed = condition
    admit(bound).settle(None)
    assert not condition._is_owned() and held_of(bound).holders == 0


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


@pytest.mark.parametrize("conditions", [*product([threading.Condition, OtherCondition], repeat=2)])
@pytest.mark.parametrize("name", [*GIVE_BACKS, *CHARGES])
def test_an_interrupt_ends_the_wait_for_a_lock_but_a_give_back_begins_afresh(name, conditions):
    def interrupt(*_):
        if not interrupted.is_set():  # the host may have sent it twice
            interrupted.set()
            world.put_locks_in(conditions[1])  # which the next try takes
            raise KeyboardInterrupt

    def host():
        with world.locks[-3], world.locks[-2]:
            held.set()
            while not interrupted.wait(0.05):  # until the operation waits
                signal.pthread_kill(threading.main_thread().ident, signal.SIGINT)
            assert ended.wait(5), "it tried again with the condition that was replaced"

    world, done = World(), World()
    held, interrupted, ended = threading.Event(), threading.Event(), threading.Event()
    LOCKED[name](done)
    expected = (done if name in GIVE_BACKS else world).state()
    world.put_locks_in(conditions[0])
    before, thread = signal.signal(signal.SIGINT, interrupt), in_thread(host)
    assert held.wait(20)
    outcome = attempt(LOCKED[name], world)
    ended.set()
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


@pytest.mark.parametrize("act", [copy.copy, copy.deepcopy, lambda it: type(it).__annotations__])
def test_what_changes_no_method_of_a_condition_leaves_the_quick_way_open(act):
    for left_by_an_act in {"__slotnames__", "__annotations__"} & vars(threading.Condition).keys():
        delattr(threading.Condition, left_by_an_act)
    kind, run = Kind("plain", import_fresh()), set()
    attempt(act, threading.Condition())
    for name in AT_ONCE:
        operate(name, World(kind), lambda frame, *_: run.add(frame.f_code))
    assert threading.Condition.__enter__.__code__ not in run
