"""Shares and the main scenarios, for bounds that are handled in C++ alone and by look-up."""

import random
import sys
import threading
import time
import warnings
from itertools import chain, repeat
from unittest.mock import DEFAULT, Mock

import decision_bounds as bounds
import pytest

from support import (DAY, INFINITY, NEXT_DAY, Boom, Broken, Reply, admit, attempt, await_waiters,
                     boom, holds_nothing, in_thread)  # fmt: skip

REACHED = "he daily decision cost cap is reached: $10.0042 of $10.00 spent today (UTC)"
Unreadable = type("Unreadable", (), {"cached": property(boom)})
FLOAT = type("Float", (), {"__float__": lambda self: 2.5})()


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
    first, shares = Boom("first"), (bounds.Share(), bounds.Share(boom))
    for share in shares:
        with pytest.raises(Boom) as raised, share:
            raise first
        assert first in (raised.value, raised.value.__context__)
        assert share._give_back is share.settle(None) is None
    assert raised.value is not first and raised.traceback[-1].name == "boom"


@pytest.mark.parametrize("action", ["always", "error"])
def test_a_share_that_is_dropped_unsettled_says_so(action, kind, monkeypatch):
    budget, spend, given, ignored = kind.budget(), kind.spend(), [], []
    monkeypatch.setattr(sys, "unraisablehook", lambda error: ignored.append(error.exc_type))
    with warnings.catch_warnings(record=True) as warned:
        warnings.simplefilter(action)
        for quiet in (budget.hold(1.0), admit(spend), bounds.Share(boom)):
            attempt(quiet.settle, None)
        quiet = bounds.Share(), bounds.Share.__new__(bounds.Share)
        del quiet
        assert warned == ignored == []
        for drop in (lambda: budget.hold(1.0), lambda: admit(spend), lambda: bounds.Share(boom)):
            drop()
    assert [warning.category for warning in warned] + ignored == [ResourceWarning] * 3
    assert budget.in_flight == budget._held_tokens.holders == spend._held.holders == 1


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


def test_a_reply_that_cannot_say_whether_it_is_cached_ends_only_a_call_that_held(kind):
    budget, reply = kind.budget(max_tokens=1000), Unreadable()
    shares = [budget.hold(amount) for amount in (0.0, 7.0, 5.0)]
    pytest.raises(Boom, budget.charge, reply)
    pytest.raises(Boom, budget.charge, reply, 0.0)
    assert budget.in_flight == 3 and budget._held_tokens == bounds._Held(3, 12.0)
    pytest.raises(Boom, budget.charge, reply, 5.0)
    assert budget.in_flight == 2 and budget._held_tokens == bounds._Held(2, 7.0)
    pytest.raises(Boom, shares[0].settle, reply)
    assert budget.in_flight == 1 and budget._held_tokens == bounds._Held(1, 7.0)
    pytest.raises(Boom, shares[1].settle, reply)
    assert holds_nothing(budget) and (budget.calls, budget.cache_hits) == (0, 0)


ENDINGS = [(None, None), (Reply(0.0, 0), None), (Reply(10.0, 10), None), (Broken(), Boom),
           (None, KeyboardInterrupt), (Reply(0.0, 0), Boom)]  # fmt: skip


@pytest.mark.parametrize(("reply", "error"), ENDINGS)
def test_every_waiting_call_and_host_thread_is_woken(kind, which, reply, error, monkeypatch):
    """Also where the first try to wake them fails."""

    def wait(changed):
        with changed:
            changed.wait(60.0)

    monkeypatch.setattr(bounds, "_POLL_S", 60.0)  # a lost wake-up shows
    bound = getattr(kind, which)()
    share, wake = admit(bound, 10.0), bound._changed.notify_all
    calls, host = [in_thread(admit, bound, 0.5) for _ in range(3)], in_thread(wait, bound._changed)
    await_waiters(bound, 4)
    if error and not isinstance(reply, Broken):
        bound._changed.notify_all = Mock(side_effect=chain([error], repeat(DEFAULT)), wraps=wake)
    assert type(attempt(share.settle, reply)) is (error or type(None))
    for call in calls:
        if reply == Reply(10.0, 10):
            assert isinstance(call.exception(20), bounds.DecisionBudgetExceeded)
        else:
            call.result(20).settle(None)
    assert host.exception(20) is None and holds_nothing(bound)


def test_the_cap_refuses_with_one_warning_a_day_and_the_lock_free(kind, caplog, monkeypatch):
    day, free = [DAY], []
    spend = kind.spend(10, lambda: day[0], lambda date: 10.00421)
    monkeypatch.setattr(caplog.handler, "filter", lambda _: free.append(holds_nothing(spend)) or 1)
    for day[0] in (DAY, DAY, NEXT_DAY):
        with pytest.raises(bounds.DecisionBudgetExceeded) as refused:
            admit(spend, boom, stopping=boom, clock=boom, deadline=0.0)
        assert str(refused.value) == "t" + REACHED
    rest = "; paid calls resume tomorrow, cached answers are still used"
    assert free == [True, True] and caplog.messages == ["T" + REACHED + rest] * 2
    assert {record.args for record in caplog.records} == {(10.00421, 10.0)}


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


def test_an_exit_while_the_ledger_is_read_begins_no_day(kind):
    spend = kind.spend(ledger={DAY: 3.5}.get)
    share, spend._today, spend._ledger = admit(spend, 0.5), lambda: NEXT_DAY, sys.exit
    for ask in (spend.spent, lambda: spend.charge(Reply()), lambda: admit(spend)):
        pytest.raises(SystemExit, ask)
    assert (spend._day, spend._cost, spend._held) == (DAY, 3.5, bounds._Held(1, 0.5))
    spend._ledger = {NEXT_DAY: 1.0}.get
    share.settle(Reply(0.25, cached=True))
    assert (spend.spent(), spend._day) == (1.25, NEXT_DAY) and holds_nothing(spend)


def test_features_are_told_apart_as_exact_strings():
    rates, strange = bounds.RequestRates(), type("Text", (str,), {"__eq__": boom, "__hash__": boom})
    rates.learn(1000, "a", Reply(0.002, 500))
    pytest.raises(Boom, rates.learn, 1, strange("b"), Broken())
    assert [rates.cost(1000, name) for name in "abc"] == [0.002, 0.002, INFINITY]
    assert not rates._lock.locked() and rates._features == {"a", "b"}


def test_a_cost_never_comes_from_maxima_that_lack_a_learned_reply():
    class Odd(str):
        __hash__ = str.__hash__

        def __eq__(self, other):  # lets another thread begin to learn
            if not begun.is_set():
                begun.set()
                learning.append(in_thread(rates.learn, 1000, "a", SlowReply()))
                reading.wait(0.5)
            return False

    class SlowReply:
        cost = property(lambda self: reading.set() or time.sleep(0.2) or 0.5)
        cached, input_tokens = False, 7

    rates, learning = bounds.RequestRates(), []
    begun, reading = threading.Event(), threading.Event()
    assert rates.tokens(1) == INFINITY  # and the lock's methods are at hand
    rates._features.add(Odd("a"))
    assert rates.cost(1000, "a") in (0.5, INFINITY)
    assert learning[0].exception(20) is None and rates.cost(1000, "a") == 0.5


def test_many_threads_fill_a_bound_and_never_pass_it(kind, which, monkeypatch):
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

    before = sys.getswitchinterval()
    sys.setswitchinterval(1e-6)  # else hardly two threads meet
    total = sum(worker.result(60) for worker in [in_thread(work, seed) for seed in range(8)])
    sys.setswitchinterval(before)
    assert total == getattr(bound, used) in range(29_999, 30_002) and holds_nothing(bound)
