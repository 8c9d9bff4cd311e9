"""How a call is tried again, and for how long."""

import math
from collections.abc import Callable
from dataclasses import dataclass

from tenacity import (
    RetryError,
    Retrying,
    retry_if_exception,
    stop_after_attempt,
    wait_random_exponential,
)

from decision_client.ends import AttemptFailed, Next
from decision_client.engines.decision_bounds import DecisionError
from decision_client.request import DecisionResult


@dataclass(frozen=True)
class Attempts:
    """How a call is tried."""

    limit: int = 4
    """The most attempts of one call."""
    backoff_s: float = 0.1
    """The most seconds before the second attempt; they double before each further one, and a
    random part of them is waited, so that calls that failed together do not return together."""
    longest_backoff_s: float = 10.0
    timeout_s: float = 10.0
    """The most seconds that an attempt may take in all."""
    first_call_at_most: float = math.inf
    """US dollars that a call holds while no reply of its feature has told a cost; without such a
    ceiling it holds all that is left, and runs alone. A lost reply counts as that at least."""
    assumed_cost: float = 0.05
    """US dollars counted for a lost reply while nothing else is known."""

    def make(
        self, attempt: Callable[[int], DecisionResult], back_off: Callable[[float], None]
    ) -> DecisionResult:
        """Call `attempt` with 1, 2, ... until it brings a reply, and `back_off` in between.

        Raises what it raises, and `DecisionError` once its attempts are used up.
        """
        tries = Retrying(
            retry=retry_if_exception(_is_worth_another),
            stop=stop_after_attempt(self.limit),
            wait=wait_random_exponential(self.backoff_s, self.longest_backoff_s),
            sleep=back_off,
        )
        try:
            for one in tries:
                with one:
                    return attempt(one.retry_state.attempt_number)
        except RetryError as error:
            last = error.last_attempt
            message = f"the decision call failed at attempt {last.attempt_number}, its last: "
            raise DecisionError(message + str(last.exception())) from last.exception()
        raise AssertionError("the attempts end with a reply or an error")


def _is_worth_another(error: BaseException) -> bool:
    return isinstance(error, AttemptFailed) and error.end.then is Next.RETRY
