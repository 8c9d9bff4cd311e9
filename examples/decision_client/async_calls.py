"""Paid calls from an event loop: what waits for room waits on a few threads of its own.

`RunBudget.hold` and `DailySpend.admit` block the thread that calls them, so neither belongs on an
event loop. Nor does `asyncio.to_thread` for each share help: calls that wait fill its threads, and
the one that has its first share never gets a thread for its second. And the share of a task that is
cancelled in the meantime would stay held. This file needs nothing of the client's but the module.
"""

import asyncio
import threading
import time
from collections.abc import AsyncIterator
from concurrent.futures import ThreadPoolExecutor
from contextlib import ExitStack, asynccontextmanager
from functools import partial

from decision_client.engines.decision_bounds import (
    DailySpend,
    DecisionStopped,
    PaidReply,
    RequestRates,
    RunBudget,
    Share,
)


class PaidCall:
    """One call's shares, from its admission to its end."""

    def __init__(self) -> None:
        self.ended = False
        """Whether the call needs no more shares, because its task left or was cancelled."""
        self._shares: list[Share] = []

    def settle(self, reply: PaidReply | None) -> None:
        """Give each share back, counting `reply`; None when the call was not paid.

        Made for the loop's thread: it does not wait for room, only for each bound's lock, which
        nobody holds for long, save where a new day begins and the ledger is asked. A second call
        does nothing. An error of one share propagates after the other was settled, too.
        """
        with ExitStack() as each:
            for share in reversed(self._shares):
                each.callback(share.settle, reply)

    def take(self, share: Share) -> None:
        """Keep a share for the call or, when it comes after the call's end, give it back."""
        # This thread adds, then looks; end() marks, then gives back. So at least one of them sees
        # what the other did, and settling a share twice is harmless.
        self._shares.append(share)
        if self.ended:
            share.settle(None)

    def end(self) -> None:
        """Give back what was not settled, now or as it comes."""
        self.ended = True
        self.settle(None)


class AsyncCalls:
    """Admits the paid calls of an event loop's tasks, all against the same daily account.

    Use it in a with block, inside the loop or around it. The block's end stops the calls that still
    wait, so that neither the loop's shutdown nor the interpreter's exit has to wait for them.

    At most `threads` calls wait at the bounds; the others queue before them. That is no deadlock:
    what a call waits for is held by calls that were admitted, which need no thread to end, or that
    wait themselves, never by one in the queue. But calls of a full pass can be in the way of those
    of another pass, which has room: give each pass an AsyncCalls of its own where that matters.
    Never make a paid call within the block of another: it may wait for what the outer one holds.
    """

    def __init__(self, spend: DailySpend, rates: RequestRates, threads: int = 4) -> None:
        self._spend = spend
        self._rates = rates
        self._pool = ThreadPoolExecutor(threads, "paid-call")
        self._stopped = False
        self._here = threading.local()

    def __enter__(self) -> "AsyncCalls":
        return self

    def __exit__(self, *_error: object) -> None:
        self.stop()
        self._pool.shutdown(wait=False)

    def stop(self) -> None:
        """Have the calls that wait, and those to come, raise `DecisionStopped` within 0.1 s.

        Calls in flight go on. Any thread and any signal handler may call it.
        """
        self._stopped = True

    def stopping(self) -> bool:
        """The stop signal for each budget that is used here: its `should_stop`, or part of it.

        A bound asks it on the thread that waits. So it can say not only that `stop()` was called,
        but also that the one call that this thread admits has been cancelled.
        """
        call: PaidCall | None = getattr(self._here, "call", None)
        return self._stopped or (call is not None and call.ended)

    @asynccontextmanager
    async def paid_call(
        self, size: int, feature: str, budget: RunBudget | None = None
    ) -> AsyncIterator[PaidCall]:
        """A block that begins once a call with a request of `size` bytes is admitted.

        `budget` is the pass that the call belongs to; a tool's call has none. The block's end gives
        back what was not settled, whatever ends it. Raises what the bounds raise. For a deadline
        use `asyncio.timeout`. A request that was sent may be billed although its reply is never
        read: count it with `DailySpend.charge` before the block ends.

        A task that is cancelled while its call waits goes on at once. The thread sees it within
        0.1 s or, where it waits for a budget whose stop signal leaves out `stopping`, when there is
        room. What arrives too late is given back.
        """
        call = PaidCall()
        self._check(self.stopping())
        try:
            loop = asyncio.get_running_loop()
            await loop.run_in_executor(self._pool, self._admit, call, size, feature, budget)
            yield call
        finally:
            call.end()

    def _admit(self, call: PaidCall, size: int, feature: str, budget: RunBudget | None) -> None:
        """Take all the shares of a call, on a thread of the pool.

        First the day's, then the pass's, as in `PaidCalls`: in two orders calls could wait for each
        other. The day's bound is asked again after each wait, and the tokens only when it has been
        met: so of all the calls before the first reply only one runs alone.
        """

        def stopping() -> bool:
            return self.stopping() or (budget is not None and budget.stopping())

        self._here.call = call
        cost, clock = partial(self._rates.cost, size, feature), time.monotonic
        call.take(self._spend.admit(cost, deadline=None, clock=clock, stopping=stopping))
        if budget is not None:
            call.take(budget.hold(self._rates.tokens(size)))
        self._check(stopping())  # a stop that came with the room must not start a call

    @staticmethod
    def _check(stopping: bool) -> None:
        if stopping:
            raise DecisionStopped("the pass was asked to stop")
