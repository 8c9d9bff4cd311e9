"""The network side of one attempt: what was sent, what came back, what may have been billed."""

import json
import time
from collections.abc import Callable
from http import HTTPStatus
from http.client import HTTPConnection, HTTPException
from urllib.parse import urlsplit

from decision_client.engines.decision_bounds import DecisionError, DecisionUnavailable
from decision_client.request import DecisionResult, Request


class AttemptFailed(DecisionError):
    """One attempt failed and was not billed; another may do better."""


class LostReply(AttemptFailed):
    """The request was sent and its reply never read: the endpoint may bill it all the same."""


class EndpointClient:
    """Asks the endpoint, and leaves it alone while it refuses requests. Safe for many threads."""

    def __init__(self, url: str, clock: Callable[[], float] = time.monotonic) -> None:
        """`url`: of the endpoint, such as `http://127.0.0.1:8080/`."""
        self._address = urlsplit(url).netloc
        self._clock = clock
        self._refused_until = 0.0

    def refused_for(self) -> float:
        """Seconds until the refusal window ends; 0.0 when the endpoint may be asked."""
        return max(0.0, self._refused_until - self._clock())

    def check_open(self) -> None:
        """Raise `DecisionUnavailable` while the refusal window lasts."""
        left = self.refused_for()
        if left > 0.0:
            raise DecisionUnavailable(f"the endpoint refuses requests for another {left:.1f} s")

    def ask(self, request: Request, key: str, timeout_s: float) -> DecisionResult:
        """Send one request under an idempotency key; no single network operation takes longer than `timeout_s` seconds.

        Raises `AttemptFailed`, `LostReply`, `DecisionUnavailable`, or `DecisionError` for a
        request that the endpoint will never take.
        """
        self.check_open()
        connection = HTTPConnection(self._address, timeout=timeout_s)
        try:
            connection.connect()
        except OSError as error:
            raise AttemptFailed(f"the endpoint cannot be reached: {error}") from error
        try:
            headers = {"Idempotency-Key": key}
            connection.request("POST", "/decide", body=request.body, headers=headers)
            response = connection.getresponse()
            return self._read(response.status, response.read())
        except (OSError, HTTPException, ValueError, KeyError, TypeError) as error:
            raise LostReply(f"the reply was lost: {error}") from error
        finally:
            connection.close()

    def _read(self, status: int, content: bytes) -> DecisionResult:
        answer = json.loads(content)
        if status == HTTPStatus.OK:
            return DecisionResult(
                decision=str(answer["decision"]),
                cached=False,
                input_tokens=int(answer["input_tokens"]),
                cost=float(answer["cost"]),
            )
        if status == HTTPStatus.SERVICE_UNAVAILABLE:
            self._refused_until = self._clock() + float(answer["retry_after_s"])
            self.check_open()
        if status < HTTPStatus.INTERNAL_SERVER_ERROR:
            raise DecisionError(f"the endpoint does not take the request: {answer['error']}")
        raise AttemptFailed(f"the endpoint failed with status {status}")
