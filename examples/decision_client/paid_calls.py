"""The road of one paid call, from the cache over its admission to its settlement."""

import math
import time
import uuid
from collections.abc import Callable, Mapping
from contextlib import ExitStack
from dataclasses import dataclass, field

from decision_client.attempts import Attempts
from decision_client.ends import AttemptFailed
from decision_client.engines.decision_bounds import (
    DailySpend,
    DecisionStopped,
    DecisionTimeout,
    DecisionUnavailable,
    RequestRates,
    RunBudget,
    Share,
    never,
)
from decision_client.ledger import AttemptId, Ledger
from decision_client.request import DecisionResult, Request
from decision_client.tally import Tally
from decision_client.transport import EndpointClient
from decision_client.turns import Turns


@dataclass(frozen=True)
class _Call:
    """A request, the bounds that it belongs to, and its attempts so far."""

    request: Request
    budget: RunBudget | None
    deadline: float | None
    sent: list[AttemptId]
    key: str = field(default_factory=lambda: uuid.uuid4().hex)
    """The idempotency key, the same for all attempts."""


class PaidCalls:
    """Makes the calls of one program run, all against the same daily account.

    Safe for many threads: a batch pass's threads share one object, and so may tools.
    """

    def __init__(
        self,
        client: EndpointClient,
        ledger: Ledger,
        spend: DailySpend,
        rates: Mapping[str, RequestRates],
        attempts: Attempts = Attempts(),
        resume: bool = True,
        pause: Callable[[float], object] = time.sleep,
        clock: Callable[[], float] = time.monotonic,
    ) -> None:
        """`rates`: one for each price class, here the feature: one object holds the maximum over
        all that it learned, so a dear model would have a cheap one's calls hold its price.
        `resume`: use cached answers. `pause` waits between attempts; a pass gives the wait of its
        stop signal.
        """
        self.spend = spend
        self.tally = Tally()
        self._client = client
        self._ledger = ledger
        self._resume = resume
        self._turns = Turns()
        self._rates = rates
        self._attempts = attempts
        self._clock = clock
        self._pause = pause

    def cached(self, request: Request, budget: RunBudget | None = None) -> DecisionResult | None:
        """The answer from the cache, free of charge, or none."""
        answer = self._ledger.find(request) if self._resume else None
        if answer is not None and budget is not None:
            budget.charge(answer)
        return answer

    def decide(
        self,
        request: Request,
        *,
        budget: RunBudget | None = None,
        deadline: float | None = None,
        sent: list[AttemptId] | None = None,
    ) -> DecisionResult:
        """Answer a request, from the cache or by a paid call. Equal requests wait for each other.

        A batch pass's call brings its `budget` and ends with its stop signal; a tool's call has
        none and ends at its `deadline`, seconds on the scale of `clock`. It waits for room as
        long as it may. `sent` takes the attempts that were made. Raises `DecisionBudgetExceeded`,
        `DecisionStopped`, `DecisionTimeout`, `DecisionUnavailable`, or `DecisionError` once its
        attempts are used up; and `StorageError` where an attempt cannot be recorded, which is then
        not made.
        """
        left = None if deadline is None else max(0.0, deadline - self._clock())
        with self._turns.of(request.key, left):
            answer = self.cached(request, budget)
            if answer is not None:
                return answer
            call = _Call(request, budget, deadline, [] if sent is None else sent)
            return self._attempts.make(
                lambda number: self._attempt(AttemptId(call.key, number), call),
                lambda seconds: self._back_off(seconds, call),
            )

    def most_cost(self, request: Request) -> float:
        """US dollars that a request may cost at most: as learned or, before that, the ceiling."""
        cost = self._rates[request.feature].cost(request.size, request.feature)
        return self._attempts.first_call_at_most if math.isinf(cost) else cost

    def abort(self) -> None:
        """End the attempts in flight now; they count as lost."""
        self._client.abort()

    def refused_for(self) -> float:
        """Seconds for which the endpoint still refuses requests; 0.0: it may be asked."""
        return self._client.refused_for()

    def _attempt(self, id: AttemptId, call: _Call) -> DecisionResult:
        """One attempt, with an admission of its own: nothing is held between two attempts."""
        self._client.check_open()
        request = call.request
        with ExitStack() as scope:
            shares = self._admit(scope, call)
            reply = self._ask(id, call)
            # Learned first, settled second: a settlement wakes the calls that wait. One that was
            # quicker than this thread would not know the cost yet, and run alone once more. A free
            # reply tells no price: learned, it would let all the calls of its kind in at once.
            if reply.cost > 0.0:
                self._rates[request.feature].learn(request.size, request.feature, reply)
            for share in shares:
                share.settle(reply)
            # Settled first, recorded second: if this settlement starts a new day, the ledger's
            # figure for that day must not hold the reply yet, or it would be counted twice.
            self._ledger.record_reply(id, request, reply)
        return reply

    def _admit(self, scope: ExitStack, call: _Call) -> list[Share]:
        """Take the shares of a call, which end with `scope`: of the day, and of its pass if any.

        The day's comes first, since its bound is asked again after each wait: of the calls before
        the first reply only one runs alone, and when the others are admitted, their tokens are
        known, too. All calls keep to this order, or two could wait for each other.
        """
        request, budget = call.request, call.budget
        held, asked_at = math.inf, self._clock()
        stopping = never if budget is None else budget.stopping

        def bound() -> float:
            nonlocal held
            held = self.most_cost(request)
            return held

        day = self.spend.admit(bound, deadline=call.deadline, clock=self._clock, stopping=stopping)
        shares = [scope.enter_context(day)]
        if budget is not None:
            # Each token stands for a byte at least, so the size is a bound from the start.
            tokens = min(self._rates[request.feature].tokens(request.size), request.size)
            shares.append(scope.enter_context(budget.hold(tokens)))
        scope.enter_context(self.tally.holding(held, self._clock() - asked_at))
        # Room that was found as the stop came must not start a call all the same.
        if stopping():
            raise DecisionStopped("the pass was asked to stop")
        return shares

    def _ask(self, id: AttemptId, call: _Call) -> DecisionResult:
        """Record the attempt, then make it, then record it again if it brought no reply."""
        timeout_s = min(self._attempts.timeout_s, self._left(call))
        # What an attempt cost whose reply nobody reads is never known. So it counts as the most
        # that it may cost, and the day errs on the safe side. The dearest so far is not yet the
        # dearest of all: where the user has named a ceiling, it counts as that at least.
        named, learned = self._attempts.first_call_at_most, self.most_cost(call.request)
        known = [cost for cost in (named, learned) if not math.isinf(cost)]
        assumed_cost = max(known, default=self._attempts.assumed_cost)
        self._ledger.record_sending(id, call.request, assumed_cost)
        call.sent.append(id)
        try:
            return self._client.ask(call.request, id.call, timeout_s)
        except BaseException as error:
            if isinstance(error, AttemptFailed):
                billed = error.end.billed
            else:  # of what is not known, such as an interrupt, the worst is assumed
                billed = not isinstance(error, DecisionUnavailable)
            if billed:
                self._count_lost(id, assumed_cost)
            else:
                self._ledger.record_unbilled(id)
            raise

    def _count_lost(self, id: AttemptId, assumed_cost: float) -> None:
        """Count an attempt that may be billed although nobody read its reply.

        It is counted while the attempt still holds its share, so that no other call is admitted on
        that room in between.
        """
        self.spend.charge(DecisionResult("", cached=False, input_tokens=0, cost=assumed_cost))
        self.tally.count_lost(assumed_cost)
        self._ledger.record_lost(id, assumed_cost)

    def _back_off(self, pause_s: float, call: _Call) -> None:
        self._pause(min(pause_s, self._left(call)))
        self.tally.count_retry()

    def _left(self, call: _Call) -> float:
        """Seconds until a call's deadline; raises `DecisionTimeout` when there are none."""
        left = math.inf if call.deadline is None else call.deadline - self._clock()
        if left <= 0.0:
            raise DecisionTimeout("the decision call ran out of its deadline")
        return left
