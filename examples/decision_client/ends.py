"""How an attempt may end: whether it may be billed, what follows, and what the user reads.

What went wrong decides, never what the endpoint says in words: a load balancer's page of HTML and
an endpoint's own JSON mean the same. Where it cannot be known, an attempt counts as billed.
"""

import enum
import json
import math
from email.utils import parsedate_to_datetime
from http import HTTPStatus
from typing import Any

from decision_client.engines.decision_bounds import DecisionError, DecisionUnavailable
from decision_client.ledger import utc_now
from decision_client.request import DecisionResult

MOST_COST = 1_000.0
"""US dollars: a reply that says it cost more is not believed."""
MOST_TOKENS = 10**9
LONGEST_WINDOW_S = 60.0
"""Seconds for which the endpoint is left alone at most, whatever its `Retry-After` says."""
SHORTEST_WINDOW_S = 1.0
"""Seconds for which it is left alone when it does not say."""


class Next(enum.Enum):
    """What follows an attempt that failed."""

    RETRY = "another attempt"
    GIVE_UP = "the request fails: another attempt would end alike"
    WAIT = "no request before the endpoint's window ends"
    NO_MORE = "no more paid calls: somebody has to set something right first"


class End(enum.Enum):
    """(may it be billed, what follows, what the user reads, with details after it)."""

    NOT_SENT = False, Next.RETRY, "the endpoint cannot be reached"
    LOST = True, Next.RETRY, "the reply was lost"
    # A repeated attempt has the same key, so an endpoint that knows such keys bills it once. One
    # that answers nonsense would be asked for more of it.
    GARBAGE = True, Next.GIVE_UP, "the endpoint's reply makes no sense"
    INTERRUPTED = True, Next.GIVE_UP, "the attempt was interrupted"
    REDIRECT = False, Next.GIVE_UP, "the endpoint is elsewhere, name that one"
    NO_ACCESS = False, Next.NO_MORE, "the endpoint does not accept the credentials"
    UNPAID = False, Next.NO_MORE, "the endpoint asks for payment first"
    NOT_IN_TIME = False, Next.RETRY, "the endpoint did not get the request in time"
    REFUSED = False, Next.WAIT, "the endpoint refuses requests"
    NOT_TAKEN = False, Next.GIVE_UP, "the endpoint does not take the request"
    FAILED = False, Next.RETRY, "the endpoint failed"
    # What is behind the gateway may have gone on with the request.
    GATEWAY_TIMEOUT = True, Next.RETRY, "the endpoint's gateway gave up waiting"

    def __init__(self, billed: bool, then: Next, message: str) -> None:
        self.billed = billed
        self.then = then
        self.message = message


class AttemptFailed(DecisionError):
    """One attempt failed; `end` says what that means."""

    def __init__(self, end: End, detail: object) -> None:
        super().__init__(f"{end.message}: {detail}")
        self.end = end


class NoMoreCalls(DecisionUnavailable):
    """No call can succeed before somebody sets something right, such as the credentials."""


BY_STATUS = {
    HTTPStatus.UNAUTHORIZED: End.NO_ACCESS,
    HTTPStatus.FORBIDDEN: End.NO_ACCESS,
    HTTPStatus.PAYMENT_REQUIRED: End.UNPAID,
    HTTPStatus.REQUEST_TIMEOUT: End.NOT_IN_TIME,
    HTTPStatus.TOO_MANY_REQUESTS: End.REFUSED,
    HTTPStatus.GATEWAY_TIMEOUT: End.GATEWAY_TIMEOUT,
}


def end_by_status(status: int, retry_after: str | None) -> End | None:
    """How an attempt ended by its reply's status; none when its body is to be read."""
    if status == HTTPStatus.SERVICE_UNAVAILABLE and retry_after is not None:
        return End.REFUSED
    if status in BY_STATUS:
        return BY_STATUS[HTTPStatus(status)]
    by_class = {2: None, 3: End.REDIRECT, 4: End.NOT_TAKEN, 5: End.FAILED}
    return by_class.get(status // 100, End.GARBAGE)


def window_s(retry_after: str | None) -> float:
    """Seconds for which to leave the endpoint alone, by its `Retry-After`: seconds or a date."""
    seconds = math.nan
    if retry_after is not None:
        try:
            seconds = float(retry_after)
        except ValueError:
            try:
                seconds = (parsedate_to_datetime(retry_after) - utc_now()).total_seconds()
            except (TypeError, ValueError):  # neither, or a date without a zone
                pass
    if math.isnan(seconds):
        return SHORTEST_WINDOW_S
    return min(max(0.0, seconds), LONGEST_WINDOW_S)


def read_reply(content: bytes) -> DecisionResult:
    """A reply, once it has been found sound; raises `AttemptFailed` with `End.GARBAGE`."""
    try:
        answer = json.loads(content)
        decision = answer["decision"]
        if not isinstance(decision, str) or not decision:
            raise ValueError("its decision is no text")
        decision.encode()  # half a surrogate pair would be a text that no file takes
        tokens = _number(answer, "input_tokens", MOST_TOKENS)
        if not isinstance(tokens, int):
            raise ValueError("its input_tokens is no whole number")
        cost = float(_number(answer, "cost", MOST_COST))
    except (ValueError, KeyError, TypeError, RecursionError) as error:
        raise AttemptFailed(End.GARBAGE, f"{type(error).__name__}: {error}") from error
    return DecisionResult(decision, cached=False, input_tokens=tokens, cost=cost)


def _number(answer: Any, name: str, most: float) -> int | float:
    """A number from 0 to `most`. NaN compares as false, and so does what is infinite."""
    value = answer[name]
    if isinstance(value, bool) or not isinstance(value, int | float) or not 0 <= value <= most:
        raise ValueError(f"its {name} is no number from 0 to {most:,.0f}")
    return value
