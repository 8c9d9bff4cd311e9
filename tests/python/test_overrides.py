"""Steps, records and globals that a host overrides or replaces are the ones that are used."""

from unittest.mock import Mock, call

import decision_bounds as bounds
import pytest

from support import (DAY, INFINITY, Boom, Broken, Kind, Reply, admit, attempt, boom, held_of,
                     holds_nothing, import_fresh, is_held)  # fmt: skip

STEPS = {  # how often the test below takes each
    "RunBudget.stopping": 3, "RunBudget._exhausted_locked": 4, "RunBudget._summary_locked": 2,
    "RunBudget.reserve": 3, "RunBudget.release": 1, "RunBudget.charge": 1, "Share.settle": 6,
    "DailySpend._today_locked": 4, "DailySpend._spent_since": 1, "DailySpend._give_back": 2,
    "_Held.admits": 4, "_Held.take": 4, "_Held.give_back": 4,
}  # fmt: skip


@pytest.mark.parametrize("manner", ["subclass", "type", "instance"])
@pytest.mark.parametrize("path", STEPS)
def test_an_overridden_step_runs_each_time(manner, path):
    def spy(original):
        return lambda *arguments: seen.append(step) or original(*arguments)

    def made(thing):
        if type(thing) is owner and manner == "instance":
            setattr(thing, step, spy(getattr(thing, step)))
        elif type(thing) is owner and manner == "subclass":
            thing.__class__ = type("Derived", (owner,), {step: spy(getattr(owner, step))})
        return thing

    (name, step), fresh, seen = path.split("."), import_fresh(), []
    owner = getattr(fresh, name)
    if manner == "type":
        setattr(owner, step, spy(getattr(owner, step)))
    budget = made(fresh.RunBudget(2, 9, _held_tokens=made(fresh._Held())))
    spend = made(fresh.DailySpend(1.0, lambda: DAY, None))
    made(spend._held)
    for reply in (Reply(), None):
        for share in (budget.hold(1.0), admit(spend)):
            with made(share):
                share.settle(reply) if reply else None
    budget.max_calls = 0
    pytest.raises(fresh.DecisionBudgetExceeded, budget.reserve)
    assert (budget.summary()["calls"], budget.exhausted(), spend.spent()) == (1, True, 0.25)
    assert len(seen) == STEPS[path] and holds_nothing(budget) and holds_nothing(spend)


def test_a_stop_signal_may_override_the_steps_of_the_call_that_asks_it(which):
    def stop():
        held_of(bound).admits = lambda *_: seen.append(is_held(bound._changed)) or True

    bound, seen = getattr(Kind(), which)(), []
    admit(bound, INFINITY)
    bound.should_stop = stop
    admit(bound, stopping=stop)
    assert seen == [True], "it was not asked, or without the lock"


def test_the_modules_globals_are_looked_up_at_each_use(kind, monkeypatch):
    budget, spend, ends = kind.budget(), kind.spend(), {"clock": boom, "deadline": 5.0}
    share, _ = admit(spend, 10.0), admit(budget, 10.0)
    budget._changed.wait = Mock(side_effect=Boom)
    monkeypatch.setattr(bounds, "_POLL_S", 0.5)
    pytest.raises(Boom, admit, budget)
    budget._changed.wait.assert_called_once_with(0.5)
    monkeypatch.setattr(bounds, "_POLL_S", "soon")  # it is read after the stop signal was asked
    pytest.raises(bounds.DecisionStopped, admit, spend, stopping=lambda: True)
    with pytest.raises(TypeError, match="_POLL_S"):
        admit(spend)
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


def test_an_account_binds_the_action_of_a_share_as_it_admits():
    spend, budget, seen = Kind().spend(), Kind().budget(), []
    own, read, unread = spend._give_back, admit(spend), admit(spend)
    spend._give_back = lambda held, reply: seen.append((held, reply))
    overridden = admit(spend, 2.0)
    action = read._give_back
    del spend._give_back
    assert action is read._give_back and (action.func, action.args) == (own, (1.0,))
    overridden.settle("paid")
    action(None)
    unread.settle(None)
    budget.hold(3.0)._give_back(Reply())
    assert seen == [(2.0, "paid")] and spend._held == bounds._Held(1, 2.0)
    assert unread._give_back is None and (budget.calls, budget.in_flight) == (1, 0)


def test_a_give_back_wakes_even_where_its_record_fails(kind, which):
    bound = getattr(kind, which)()
    bound._changed.notify_all = Mock()
    shares = [admit(bound) for _ in range(3)]
    held_of(bound).give_back = boom
    for share, reply in zip(shares, (None, Reply(), Broken())):
        assert type(attempt(share.settle, reply)) is Boom
    assert bound._changed.notify_all.call_count == 3
