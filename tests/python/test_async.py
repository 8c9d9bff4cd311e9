"""Paid calls from an event loop: nothing stays held, nothing deadlocks, and the loop runs on."""

import asyncio
import time
from contextlib import suppress
from operator import sub
from random import Random
from threading import Timer

import pytest
from decision_client.async_calls import AsyncCalls
from decision_client.engines import decision_bounds as bounds
from support import DAY, Boom, Reply, admit, attempt, await_waiters, boom, holds_nothing, in_thread

REPLY, ENDLESS = Reply(2.0**-20, 0), 10**9  # costs next to nothing: what is held takes the room


class Rig:
    """A pass and a day; one of them, if named, has room for one call at a time."""

    def __init__(self, narrow=None, threads=6):
        self.rates, self.paid, self.most_at_once = bounds.RequestRates(), 0, 0
        self.rates.learn(100, "triage", Reply(0.25, 7))
        self.spend = bounds.DailySpend(0.1 if narrow == "spend" else ENDLESS, lambda: DAY, None)
        self.calls = AsyncCalls(self.spend, self.rates, threads)
        tokens, stop = 1 if narrow == "budget" else ENDLESS, self.calls.stopping
        self.budget = bounds.RunBudget(ENDLESS, tokens, should_stop=stop)

    async def pay(self, seconds=0.0, reply=REPLY):
        async with self.calls.paid_call(100, "triage", self.budget) as call:
            self.most_at_once = max(self.most_at_once, self.spend._held.holders)
            await asyncio.sleep(seconds)
            self.rates.learn(100, "triage", Reply(0.25, 7))
            self.paid += 1
            call.settle(reply)

    def ended_well(self, paid):
        in_thread(self.calls._pool.shutdown).result(2)
        counted = self.paid, self.budget.calls, self.spend.spent()
        assert counted == (paid, paid, paid * REPLY.cost)
        return holds_nothing(self.budget) and holds_nothing(self.spend)


@pytest.mark.parametrize(("narrow", "threads"), [("budget", 6), ("spend", 6), (None, 1)])
def test_more_calls_than_threads_pass_and_what_was_queued_need_not_run_alone(narrow, threads):
    async def main():
        await asyncio.wait_for(asyncio.gather(*[rig.pay(0.05) for _ in range(7)]), 10)

    with (rig := Rig(narrow, threads)).calls:
        if narrow is None:  # the first one runs alone
            rig.rates.__init__()
        asyncio.run(main())
    assert rig.ended_well(7) and (narrow or rig.most_at_once == 6), "one alone, then all at once"


def test_a_thousand_calls_cancelled_at_random_moments_leave_nothing_held():
    async def pay_in_time():
        with suppress(TimeoutError):
            async with gate, asyncio.timeout(random.uniform(0, 0.01)):
                await rig.pay(random.uniform(0, 0.002))

    async def main():
        await asyncio.wait_for(asyncio.gather(*[pay_in_time() for _ in range(1000)]), 20)

    random, gate = Random(7), asyncio.Semaphore(12)
    with (rig := Rig()).calls:
        rig.spend._cap = 0.6
        asyncio.run(main())
    assert rig.ended_well(rig.paid) and 100 < rig.paid < 900 and rig.most_at_once == 3


@pytest.mark.parametrize("seen", [True, False])
def test_a_call_that_is_cancelled_as_its_thread_waits_holds_nothing(which, seen):
    with (rig := Rig(which)).calls, admit(bound := getattr(rig, which)):
        if not seen:  # the thread waits on, and is admitted in the end
            rig.budget.should_stop = rig.calls.stopping = bounds.never
        with pytest.raises(TimeoutError):
            asyncio.run(asyncio.wait_for(rig.pay(), 0.05))
        in_thread(await_waiters, bound, int(not seen)).result(2)
    assert rig.ended_well(0)


def test_a_call_that_is_cancelled_between_admission_and_block_holds_nothing():
    async def main():
        task = asyncio.create_task(rig.pay())
        await asyncio.sleep(0)
        while rig.spend._held.holders == 0:
            time.sleep(0.02)  # on the loop, so that the task does not see it yet
        task.cancel()
        await task

    with (rig := Rig()).calls, pytest.raises(asyncio.CancelledError):
        asyncio.run(main())
    assert rig.ended_well(0)


def test_errors_reach_the_task_and_lose_nothing():
    with (rig := Rig()).calls:
        rig.spend._today = boom
        assert type(attempt(asyncio.run, rig.pay())) is Boom and holds_nothing(rig.budget)
        rig.spend._today, rig.spend._cap = lambda: DAY, 0.0
        assert type(attempt(asyncio.run, rig.pay())) is bounds.DecisionBudgetExceeded
        rig.spend._cap = ENDLESS
        unread = Reply(REPLY.cost, "many")  # the pass cannot count it: the day must all the same
        assert type(attempt(asyncio.run, rig.pay(reply=unread))) is TypeError
        # A stop that comes with the room:
        rig.spend._today = lambda: setattr(rig.budget, "should_stop", lambda: True) or DAY
        assert type(attempt(asyncio.run, rig.pay())) is bounds.DecisionStopped
    assert rig.ended_well(1)


def test_the_programs_end_stops_the_calls_that_wait(which):
    rig, loop = Rig(which), asyncio.new_event_loop()  # a loop that is left as it stands
    if which == "spend":
        rig.budget.should_stop = bounds.never
    with admit(getattr(rig, which)):
        with rig.calls:
            waiting = [loop.create_task(rig.pay()) for _ in range(9)]
            loop.run_until_complete(asyncio.sleep(0.1))
        in_thread(rig.calls._pool.shutdown).result(2)
        late = asyncio.gather(*waiting, loop.create_task(rig.pay()), return_exceptions=True)
        ends = loop.run_until_complete(late)
    assert {type(end) for end in ends} == {bounds.DecisionStopped} and rig.ended_well(0)


def test_the_loop_is_not_late_while_calls_wait():
    async def lateness():
        with (rig := Rig("budget")).calls, admit(rig.budget):
            waiting = asyncio.gather(rig.pay(), rig.pay(), return_exceptions=True)
            Timer(0.25, rig.calls.stop).start()
            ticks = [time.monotonic()]
            while not waiting.done():
                await asyncio.sleep(0.001)
                ticks.append(time.monotonic())
        return max(map(sub, ticks[1:], ticks)) - 0.001

    assert min(windows := [asyncio.run(lateness()) for _ in range(5)]) < 0.015, windows
