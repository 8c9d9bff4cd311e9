"""Steps, globals and locks that a host overrides or replaces are the ones that are used."""

import signal
import threading
import time
from functools import partial
from unittest.mock import Mock, call

import decision_bounds as bounds
import pytest
from support import (DAY, Boom, Broken, Kind, Reply, admit, attempt, await_waiters, boom,
                     holds_nothing, in_thread)  # fmt: skip

interrupt_main = partial(signal.pthread_kill, threading.main_thread().ident, signal.SIGINT)
STEPS = {  # how often the test below takes each
    "RunBudget": dict(stopping=3, _exhausted_locked=4, _summary_locked=2, reserve=3, release=1)
    | {"charge": 1},
    "DailySpend": {"_today_locked": 4, "_spent_since": 1, "_give_back": 2},
    "_Held": {"admits": 4, "take": 4, "give_back": 4},
    "Share": {"settle": 6},
}


@pytest.mark.parametrize("manner", ["subclass", "type", "instance"])
@pytest.mark.parametrize(("owner", "step"), [(o, s) for o, steps in STEPS.items() for s in steps])
def test_an_overridden_step_runs_each_time(fresh, manner, owner, step):
    def spy(original):
        return lambda *arguments: seen.append(step) or original(*arguments)

    def made(name, thing):
        if name == owner and manner == "instance":
            setattr(thing, step, spy(getattr(thing, step)))
        elif name == owner and manner == "subclass":
            thing.__class__ = type("Derived", (type(thing),), {step: spy(original)})
        return thing

    seen, original = [], getattr(getattr(fresh, owner), step)
    if manner == "type":
        setattr(getattr(fresh, owner), step, spy(original))
    budget = made("RunBudget", fresh.RunBudget(2, 9, _held_tokens=made("_Held", fresh._Held())))
    spend = made("DailySpend", fresh.DailySpend(1.0, lambda: DAY, None))
    spend._held = made("_Held", spend._held)
    for settle in (lambda share: share.settle(Reply()), lambda share: None):
        for share in (budget.hold(1.0), admit(spend)):
            with made("Share", share):
                settle(share)
    budget.max_calls = 0
    pytest.raises(fresh.DecisionBudgetExceeded, budget.reserve)
    assert (budget.summary()["calls"], budget.exhausted(), spend.spent()) == (1, True, 0.25)
    assert len(seen) == STEPS[owner][step] and holds_nothing(budget) and holds_nothing(spend)


def test_the_modules_globals_are_looked_up_at_each_use(kind, monkeypatch):
    budget, spend, ends = kind.budget(), kind.spend(), {"clock": boom, "deadline": 5.0}
    share, _ = admit(spend, 10.0), admit(budget, 10.0)
    budget._changed.wait = Mock(side_effect=Boom)
    monkeypatch.setattr(bounds, "_POLL_S", 0.5)
    pytest.raises(Boom, admit, budget)
    budget._changed.wait.assert_called_once_with(0.5)
    monkeypatch.setattr(bounds, "_wait", Mock(side_effect=Boom))
    pytest.raises(Boom, admit, budget)
    pytest.raises(Boom, admit, spend, stopping=boom, **ends)
    expected = [call(budget._changed, budget.stopping), call(spend._changed, boom, **ends)]
    assert bounds._wait.call_args_list == expected
    monkeypatch.setattr(bounds, "logger", Mock())
    share.settle(Reply(10.0))
    pytest.raises(bounds.DecisionBudgetExceeded, admit, spend)
    assert bounds.logger.warning.call_args.args[1:] == (10.0, 10.0)


def test_the_modules_own_wait_serves_a_host_too():
    changed, clock = Mock(), lambda: 1.0
    bounds._wait(changed, bool)
    bounds._wait(changed, lambda: [], deadline=1.0625, clock=clock)
    for error, stopping in (bounds.DecisionTimeout, bool), (bounds.DecisionStopped, lambda: [1]):
        pytest.raises(error, bounds._wait, changed, stopping, deadline=1.0, clock=clock)
    assert changed.mock_calls == [call.wait(0.1), call.wait(0.0625)]


def test_a_touched_account_binds_its_action_when_it_admits(fresh):
    spend, seen = fresh.DailySpend(9.0, lambda: DAY, None), []
    before = [admit(spend), admit(spend)]
    spend._give_back = lambda held, reply: seen.append((held, reply))
    after = admit(spend, 2.0)
    del spend._give_back
    after.settle("paid")
    before[0]._give_back(None)
    before[1].settle(None)
    assert seen == [(2.0, "paid")] and spend._held == fresh._Held(1, 2.0)


@pytest.mark.parametrize("method", ["acquire", "release"])
def test_a_condition_of_which_a_method_was_replaced_is_used_like_a_with_block(method, which):
    bound = getattr(Kind("plain"), which)()
    setattr(bound._changed, method, boom)
    admit(bound).settle(None)
    assert len(bound._changed._waiters) == 0 and not bound._changed._is_owned()


def test_a_spied_wake_up_is_called_for_each_give_back_but_for_no_cache_hit(kind):
    budget, spend = kind.budget(), kind.spend()
    for bound, held, calls in (budget, budget._held_tokens, 6), (spend, spend._held, 7):
        admit(bound).settle(None)
        bound._changed.notify_all = Mock()
        for _ in range(2):
            for reply in (None, Reply(), object()):
                attempt(admit(bound).settle, reply)
            held.give_back = boom  # from now on it fails, and wakes all the same
        bound.charge(Reply(cached=True))
        assert bound._changed.notify_all.call_count == calls


def test_every_operation_waits_for_a_lock_that_the_host_holds(kind):
    budget, spend, rates, reply = kind.budget(), kind.spend(), bounds.RequestRates(), Reply()
    of_budget, of_spend = budget.hold(1.0), admit(spend)
    under_way = []
    with budget._changed, spend._changed, rates._lock:
        for operation, *arguments in [
            (budget.summary,), (budget.exhausted,), (budget.reserve,), (budget.release,),
            (budget.charge, reply), (of_budget.settle, None), (of_spend.settle, reply),
            (spend.spent,), (spend.charge, reply), (admit, spend), (rates.cost, 1, "a"),
            (rates.tokens, 1), (rates.learn, 1, "a", reply),
        ]:  # fmt: skip
            under_way.append(in_thread(operation, *arguments))
        time.sleep(0.05)
        assert not any(future.done() for future in under_way)
    assert not any(future.exception(20) for future in under_way)


@pytest.mark.parametrize("reply", [None, Broken()])
@pytest.mark.parametrize("name", ["plain", "subclass", "derived condition"])
def test_an_interrupt_ends_waits_not_settlements(name, which, reply, monkeypatch):
    def interrupt_and_wait():
        with bound._changed:
            locked.set()
            settling.wait(20)
            time.sleep(0.1)  # until the settlement waits for the lock
            interrupt_main()
            bound._changed.wait()

    monkeypatch.setattr(bounds, "_POLL_S", 60.0)
    bound, locked, settling = getattr(Kind(name), which)(), threading.Event(), threading.Event()
    share, call = admit(bound, 10.0), in_thread(admit, bound, 10.0)
    await_waiters(bound)
    host = in_thread(interrupt_and_wait)
    assert locked.wait(20)
    settling.set()
    pytest.raises(KeyboardInterrupt, share.settle, reply)
    share = call.result(20)
    in_thread(lambda: (await_waiters(bound), interrupt_main()))
    pytest.raises(KeyboardInterrupt, admit, bound)
    share.settle(None)
    assert host.exception(20) is None and holds_nothing(bound)


def test_an_interrupt_in_a_hosts_own_lock_is_put_off_too(which):
    bound = getattr(Kind("other condition"), which)()
    one, other = admit(bound), admit(bound)
    bound._changed.notify_all = notify_all = Mock(side_effect=[KeyboardInterrupt, None])
    pytest.raises(KeyboardInterrupt, one.settle, None)
    bound._changed.__enter__ = Mock(side_effect=[KeyboardInterrupt, Boom])
    pytest.raises(KeyboardInterrupt, other.settle, Broken())
    assert notify_all.call_count == 2 and holds_nothing(bound)
