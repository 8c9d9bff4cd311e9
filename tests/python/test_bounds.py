"""Shares and the main scenarios, for bounds that are handled in C++ alone and by name."""

import logging
import random
import sys
import threading
import time

import decision_bounds as bounds
import pytest
from support import (DAY, INFINITY, NEXT_DAY, Boom, Broken, Reply, admit, attempt, await_waiters,
                     boom, holds_nothing, in_thread)  # fmt: skip

WARNING = (
    "The daily decision cost cap is reached: $10.0042 of $10.00 spent today (UTC); paid calls "
    "resume tomorrow, cached answers are still used"
)


def test_the_first_settlement_gives_back_and_the_rest_do_nothing():
    given, kept, reply = [], [], Reply()
    with bounds.Share(given.append) as share:
        assert share.__enter__() is share
        share.settle(reply)
        share.settle(None)
    assert len(given) == 1 and given[0] is reply
    kept.append(bounds.Share(lambda reply: (given.append(reply), kept.pop().settle(reply))))
    kept[0].settle("own")
    share._give_back = lambda reply: (given.append(reply), setattr(share, "_give_back", boom))
    share.settle("replaced")
    assert given[1:] == ["own", "replaced"] and share._give_back is boom


def test_leaving_the_block_gives_back_and_lets_the_errors_through():
    first, share = Boom("first"), bounds.Share(boom)
    with pytest.raises(Boom) as raised, bounds.Share():
        raise first
    assert raised.value is first
    with pytest.raises(Boom) as raised, share:
        raise first
    assert raised.value.__context__ is first and raised.traceback[-1].name == "boom"
    assert share._give_back is share.settle(None) is None


def test_a_thread_that_settles_while_another_gives_back_returns_at_once():
    begun, end, runs = threading.Event(), threading.Event(), []
    share = bounds.Share(lambda _: (runs.append(1), begun.set(), end.wait(20)))
    first = in_thread(share.settle, None)
    assert begun.wait(20) and share.settle(Reply()) is None
    end.set()
    assert first.result(20) is None and runs == [1]


def test_a_pass_from_admission_to_refusal(kind):
    budget = kind.budget(2, 100000)
    for tokens in (700, 800):
        with budget.hold(INFINITY) as share:
            share.settle(Reply(0.0021, tokens))
    budget.charge(Reply(cached=True))
    summary = {"calls": 2, "cache_hits": 1, "input_tokens": 1500, "cost_usd": 0.0042}
    summary |= {"max_calls": 2, "max_tokens": 100000}
    assert list(budget.summary().items()) == list(summary.items()) and budget.exhausted()
    with pytest.raises(bounds.DecisionBudgetExceeded) as refused:
        budget.hold(1.0)
    assert refused.value.args == (f"decision budget exhausted: {summary}",)
    budget.should_stop = lambda: [1]
    with pytest.raises(bounds.DecisionStopped, match="^the pass was asked to stop$"):
        budget.reserve()
    assert budget.stopping() is True and holds_nothing(budget)


@pytest.mark.parametrize("reply", [None, Reply(0.0, 0), Reply(10.0, 10), Broken()])
def test_every_waiting_call_and_host_thread_is_woken(kind, which, reply, monkeypatch):
    def wait(changed):
        with changed:
            changed.wait(60.0)

    monkeypatch.setattr(bounds, "_POLL_S", 60.0)  # a lost wake-up shows
    bound = getattr(kind, which)()
    share = admit(bound, 10.0)
    calls, host = [in_thread(admit, bound, 0.5) for _ in range(3)], in_thread(wait, bound._changed)
    await_waiters(bound, 4)
    outcome = attempt(share.settle, reply)
    assert isinstance(outcome, Boom) if isinstance(reply, Broken) else outcome is None
    for call in calls:
        if reply == Reply(10.0, 10):
            assert isinstance(call.exception(20), bounds.DecisionBudgetExceeded)
        else:
            call.result(20).settle(None)
    assert host.exception(20) is None and holds_nothing(bound)


def test_room_that_appears_just_before_a_wait_is_found(kind, which, monkeypatch):
    def make_room():
        in_thread(share.settle, None)
        time.sleep(0.05)  # enough to settle, but for the lock

    monkeypatch.setattr(bounds, "_POLL_S", 60.0)
    bound, polls = getattr(kind, which)(), iter([bool] * (which == "budget") + [make_room])
    share, bound.should_stop = admit(bound, 10.0), lambda: next(polls)()
    in_thread(lambda: admit(bound, stopping=lambda: next(polls)())).result(20).settle(None)
    assert holds_nothing(bound)


def test_a_stop_ends_a_waiting_call(kind, which):
    stop, bound = threading.Event(), getattr(kind, which)()
    bound.should_stop = stop.is_set
    share = admit(bound, INFINITY)
    call = in_thread(lambda: admit(bound, stopping=stop.is_set))
    await_waiters(bound)
    stop.set()
    assert str(call.exception(20)) == "the pass was asked to stop"
    share.settle(None)
    assert holds_nothing(bound)


def test_a_deadline_bounds_each_wait_and_ends_the_call(kind):
    spend, waits, asked, clock = kind.spend(), [], [], iter((0.0, 0.125, 0.25)).__next__
    share = admit(spend, INFINITY)
    spend._changed.wait = waits.append
    with pytest.raises(bounds.DecisionTimeout, match="^the decision call ran out of its deadline"):
        admit(spend, lambda: asked.append(1) or 1.0, deadline=0.1875, clock=clock)
    assert waits == [0.1, 0.0625] and len(asked) == 3
    share.settle(None)
    assert holds_nothing(spend)


def test_the_cap_refuses_with_one_warning_a_day_and_the_lock_free(kind, caplog):
    day, free, handler = [DAY], [], logging.Handler()
    spend = kind.spend(10, lambda: day[0], lambda date: 10.00421)
    handler.emit = lambda record: free.append(holds_nothing(spend))
    bounds.logger.addHandler(handler)
    for day[0] in (DAY, DAY, NEXT_DAY):
        with pytest.raises(bounds.DecisionBudgetExceeded) as refused:
            admit(spend, boom, stopping=boom, clock=boom, deadline=0.0)
        assert str(refused.value) == "t" + WARNING[1:].partition(";")[0]
    bounds.logger.removeHandler(handler)
    assert free == [True, True] and caplog.messages == [WARNING] * 2
    assert {record.args for record in caplog.records} == {(10.00421, 10.0)}


FLOAT = type("Float", (), {"__float__": lambda self: 2.5})()


@pytest.mark.parametrize("answer", ["3.5", True, FLOAT, None, "much", 10**400, boom])
def test_a_ledger_is_read_like_a_float_and_its_failure_is_logged(kind, caplog, answer):
    def ledger(day):
        asked.append(day)
        return answer() if answer is boom else answer

    asked, figure = [], attempt(float, answer)
    failed = isinstance(figure, Exception)
    spend = kind.spend(ledger=ledger)
    assert spend.spent() == spend.spent() == (0.0 if failed else figure)
    assert asked == [DAY] and len(caplog.records) == failed
    for record in caplog.records:
        error = record.exc_info[1]
        assert isinstance(error, Boom if answer is boom else type(figure))
        assert error.__traceback__ is record.exc_info[2] and record.args == (DAY,)
        assert record.getMessage().endswith(f"calls of {DAY} cost; the daily cap counts from 0")


def test_calls_count_on_the_day_they_settle_and_an_exit_keeps_the_old_day(kind):
    day, figures = [DAY], {DAY: 3.5, NEXT_DAY: 1.0}
    spend = kind.spend(10.0, lambda: day[0], figures.get)
    paid, unpaid = admit(spend, 0.5), admit(spend, 2.0)
    day[0], spend._ledger = NEXT_DAY, lambda date: sys.exit()
    for ask in (spend.spent, lambda: spend.charge(Reply()), lambda: admit(spend)):
        pytest.raises(SystemExit, ask)
    unpaid.settle(None)
    assert (spend._day, spend._cost, spend._held.amount) == (DAY, 3.5, 0.5)
    spend._ledger = figures.get
    paid.settle(Reply(0.25, cached=True))
    spend.charge(Reply(0.5))
    assert (spend.spent(), spend._day) == (1.75, NEXT_DAY) and holds_nothing(spend)


def test_rates_bound_a_request_once_its_feature_was_paid_for():
    rates = bounds.RequestRates()
    rates.learn(1000, "a", Reply(0.002, 500))
    assert (rates.cost(1000, "a"), rates.tokens(4000), rates.cost(1, "b")) == (0.002, 2000, INFINITY)
    strange = type("Text", (str,), {"__eq__": boom, "__hash__": boom})("b")
    pytest.raises(Boom, rates.learn, 1, strange, Broken())
    assert rates.cost(0, "b") == 0.002 and not rates._lock.locked() and rates._features == {"a", "b"}


def test_many_threads_fill_a_bound_and_never_pass_it(kind, which, monkeypatch, switch_interval):
    bound = kind.budget(10**9, 29_999) if which == "budget" else kind.spend(29_999.0)
    monkeypatch.setattr(bounds, "_POLL_S", 60.0)
    used, held = ("input_tokens", "_held_tokens") if which == "budget" else ("_cost", "_held")

    def work(seed):
        draw, settled = random.Random(seed), 0
        while True:
            amount = draw.choice((1.0, 2.0, 3.0, INFINITY))
            try:
                with admit(bound, amount) as share:
                    with bound._changed:
                        now = getattr(bound, held)
                        assert getattr(bound, used) + now.amount < 29_999 + 3
                        assert now.unbounded == 0 or now.holders == now.unbounded == 1
                    if draw.random() < 0.7:
                        cost = min(amount, 2.0)
                        share.settle(Reply(cost, int(cost)))
                        settled += cost
            except bounds.DecisionBudgetExceeded:
                return settled

    switch_interval(1e-6)  # else hardly two threads meet
    total = sum(worker.result(60) for worker in [in_thread(work, seed) for seed in range(8)])
    assert total == getattr(bound, used) in range(29_999, 30_002) and holds_nothing(bound)
