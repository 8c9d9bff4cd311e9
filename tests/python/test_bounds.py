"""Shares and the main scenarios, for bounds that are handled in C++ alone and by look-up."""

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

REACHED = ("The daily decision cost cap is reached: $10.0042 of $10.00 spent today (UTC); "
           "paid calls resume tomorrow, cached answers are still used")  # fmt: skip
FLOAT = type("Float", (), {"__float__": lambda self: 2.5})()


def test_the_first_settlement_gives_back_and_the_rest_do_nothing():
    given, reply = [], Reply()
    with bounds.Share(given.append) as share:
        assert share.__enter__() is share
        share.settle(reply)
        share.settle(None)
    share._give_back = lambda reply: (given.append(reply), setattr(share, "_give_back", boom))
    share.settle("replaced")
    assert given == [reply, "replaced"] and given[0] is reply and share._give_back is boom


def test_leaving_the_block_gives_back_and_lets_the_errors_through():
    for share in (bounds.Share(), bounds.Share(boom)):
        with pytest.raises(Boom) as raised, share:
            raise (first := Boom("first"))
        assert first in (raised.value, raised.value.__context__)
        assert share._give_back is share.settle(None) is None
    assert raised.value is not first and raised.traceback[-1].name == "boom"


@pytest.mark.parametrize("action", ["always", "error"])
def test_a_share_that_is_dropped_unsettled_says_so(action, kind, monkeypatch):
    budget, spend, said = kind.budget(), kind.spend(), []
    monkeypatch.setattr(sys, "unraisablehook", lambda error: said.append(error.exc_type))
    monkeypatch.setattr(warnings, "showwarning", lambda text, category, *_: said.append(category))
    with warnings.catch_warnings():
        warnings.simplefilter(action)
        for make in (lambda: budget.hold(1.0), lambda: admit(spend), lambda: bounds.Share(boom)):
            attempt(make().settle, None)
            bounds.Share(), bounds.Share.__new__(bounds.Share)
            assert said == []
            make()
            assert said.pop() == ResourceWarning
    assert budget.in_flight == budget._held_tokens.holders == spend._held.holders == 1


def test_a_pass_from_admission_to_refusal(kind):
    budget = kind.budget(2, 100000)
    for tokens in (700, 800):
        with budget.hold(INFINITY) as share:
            share.settle(Reply(0.0021, tokens))
    budget.charge(Reply(cached=True))
    summary = {"calls": 2, "cache_hits": 1, "input_tokens": 1500, "cost_usd": 0.0042,
               "max_calls": 2, "max_tokens": 100000}  # fmt: skip
    assert str(budget.summary()) == str(summary) and budget.exhausted()
    with pytest.raises(bounds.DecisionBudgetExceeded) as refused:
        budget.hold(1.0)
    assert refused.value.args == (f"decision budget exhausted: {summary}",)
    budget.should_stop = lambda: [1]
    pytest.raises(bounds.DecisionStopped, budget.reserve)
    assert budget.stopping() is True and holds_nothing(budget)


ENDINGS = [(None, None), (Reply(0.0, 0), None), (Reply(10.0, 10), None), (Broken(), Boom),
           (None, KeyboardInterrupt), (Reply(0.0, 0), Boom)]  # fmt: skip


@pytest.mark.parametrize(("reply", "error"), ENDINGS)
def test_every_waiting_call_and_host_thread_is_woken(kind, which, reply, error, monkeypatch):
    def wait(changed):
        with changed:
            changed.wait(60.0)

    monkeypatch.setattr(bounds, "_POLL_S", 60.0)  # a lost wake-up shows
    bound = getattr(kind, which)()
    share, wake = admit(bound, 10.0), bound._changed.notify_all
    calls, host = [in_thread(admit, bound, 0.5) for _ in range(3)], in_thread(wait, bound._changed)
    await_waiters(bound, 4)
    if error and not isinstance(reply, Broken):  # the first try to wake them fails
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
        with pytest.raises(bounds.DecisionBudgetExceeded):
            admit(spend, boom, stopping=boom, clock=boom, deadline=0.0)
    assert free == [True, True] and caplog.messages == [REACHED] * 2
    assert {record.args for record in caplog.records} == {(10.00421, 10.0)}


@pytest.mark.parametrize("answer", ["3.5", True, FLOAT, None, "much", 10**400, Boom])
def test_a_ledger_is_read_like_a_float_and_its_failure_is_logged(kind, caplog, answer):
    figure = attempt(float, answer)
    failed = isinstance(figure, Exception)
    spend = kind.spend(ledger=Mock(side_effect=[answer]))
    assert spend.spent() == spend.spent() == (0.0 if failed else figure)
    spend._ledger.assert_called_once_with(DAY)
    assert len(caplog.records) == failed
    for record in caplog.records:
        error = record.exc_info[1]
        assert isinstance(error, Boom if answer is Boom else type(figure))
        assert error.__traceback__ is record.exc_info[2] and record.args == (DAY,)
        assert record.getMessage().endswith(f"calls of {DAY} cost; the daily cap counts from 0")


def test_an_exit_while_the_ledger_is_read_begins_no_day(kind):
    spend = kind.spend(ledger={DAY: 3.5}.get)
    _, spend._today, spend._ledger = admit(spend, 0.5), lambda: NEXT_DAY, sys.exit
    for ask in (spend.spent, lambda: spend.charge(Reply()), lambda: admit(spend)):
        pytest.raises(SystemExit, ask)
    assert (spend._day, spend._cost, spend._held) == (DAY, 3.5, bounds._Held(1, 0.5))


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
            if threading.current_thread() is threading.main_thread() and not learning:
                learning.append(in_thread(rates.learn, 1000, "a", SlowReply()))
                reading.wait(0.5)
            return False

    class SlowReply:
        cost = property(lambda self: reading.set() or time.sleep(0.2) or 0.5)
        cached, input_tokens = False, 7

    rates, learning, reading = bounds.RequestRates(), [], threading.Event()
    rates._features.add(Odd("a"))
    assert rates.cost(1000, "a") in (0.5, INFINITY)
    assert learning[0].exception(20) is None and rates.cost(1000, "a") == 0.5
