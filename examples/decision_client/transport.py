"""The network side of one attempt: it ends in time, whatever the endpoint does.

The time-outs of an HTTP library hold for one operation, so a body that drips a byte now and then
never meets them. Here each exchange runs on one event loop, where it can be cancelled at any
moment: by its own time-out, and by the user.
"""

import asyncio
import ssl
import threading
import time
from collections.abc import Callable
from concurrent.futures import CancelledError, Future
from itertools import cycle

import httpx

from decision_client.ends import (
    AttemptFailed,
    End,
    Next,
    NoMoreCalls,
    end_by_status,
    read_reply,
    window_s,
)
from decision_client.engines.decision_bounds import DecisionUnavailable
from decision_client.request import DecisionResult, Request

POOLS = 16
"""Pools of connections: for each request, one looks at all that are idle in it."""
LARGEST_REPLY = 1 << 20
"""Bytes of a body that are read at most."""
CLOSING_S = 0.1
"""Seconds that an exchange which is cancelled may take to close its connection."""
SHOWN = 200
"""Bytes of a failure's body that its message shows."""


class _Exchange:
    """One request and what has come of it so far."""

    def __init__(self) -> None:
        self.status: int | None = None
        self.retry_after: str | None = None
        self.location = ""
        self.end: End | None = None
        """How the attempt ended, by its status; none when its body says."""
        self.content = b""
        self._last_event = "connection"

    async def run(self, http: httpx.AsyncClient, url: str, request: Request, key: str) -> None:
        """Send the request and read what is wanted of the reply."""
        headers, trace = {"Idempotency-Key": key}, {"trace": self._trace}
        async with http.stream(
            "POST", url, content=request.body, headers=headers, extensions=trace
        ) as response:
            self.retry_after = response.headers.get("Retry-After")
            self.location = response.headers.get("Location", "")
            self.end = end_by_status(response.status_code, self.retry_after)
            self.status = response.status_code
            most = LARGEST_REPLY if self.end is None else SHOWN
            async for piece in response.aiter_raw():
                self.content += piece
                if len(self.content) > most:
                    break

    @property
    def unsent(self) -> bool:
        """Whether some of the request is still here, so that the endpoint cannot act on it."""
        sending = self._last_event.startswith("connection") or ".send_request" in self._last_event
        return sending and not self._last_event.endswith("send_request_body.complete")

    async def _trace(self, event: str, _info: object) -> None:
        self._last_event = event


class EndpointClient:
    """Asks the endpoint, and leaves it alone while it refuses requests. Safe for many threads."""

    def __init__(
        self,
        url: str,
        clock: Callable[[], float] = time.monotonic,
        api_key: str | None = None,
        trust_env: bool = False,
    ) -> None:
        """`api_key`: sent as a bearer token. `trust_env`: use the environment's proxies."""
        self._url, self._clock = url, clock
        self._refused_until = 0.0
        self._no_more: str | None = None
        self._aborted = False
        self._in_flight: set[Future[DecisionResult]] = set()
        self._loop = asyncio.new_event_loop()
        # Nothing is unpacked, so that a small body cannot become a large one.
        headers = {"Accept-Encoding": "identity", "Content-Type": "application/json"}
        if api_key:
            headers["Authorization"] = f"Bearer {api_key}"
        # Redirects are not followed, so plain HTTP needs no certificates, which take a while.
        verify: ssl.SSLContext | bool = False
        if url.startswith("https:"):
            verify = httpx.create_ssl_context()
        self._pools = [
            httpx.AsyncClient(
                timeout=None,  # each exchange has one for all of it
                limits=httpx.Limits(max_connections=None, max_keepalive_connections=None),
                headers=headers,
                trust_env=trust_env,
                verify=verify,
            )
            for _ in range(POOLS)
        ]
        self._next_pool = cycle(self._pools)
        self._thread = threading.Thread(target=self._loop.run_forever, daemon=True)
        self._thread.start()

    def close(self) -> None:
        """Cancel what is in flight and close the connections; it is of no use afterwards."""
        self.abort()
        for pool in self._pools:
            asyncio.run_coroutine_threadsafe(pool.aclose(), self._loop).result()
        self._loop.call_soon_threadsafe(self._loop.stop)
        self._thread.join()
        self._loop.close()

    def abort(self) -> None:
        """End the attempts in flight with `End.INTERRUPTED`, now, and any further one."""
        self._aborted = True
        for future in list(self._in_flight):
            future.cancel()

    def refused_for(self) -> float:
        """Seconds until the refusal window ends; 0.0 when the endpoint may be asked."""
        return max(0.0, self._refused_until - self._clock())

    def check_open(self) -> None:
        """Raise `DecisionUnavailable` while a refusal window lasts, or once no call makes sense."""
        if self._no_more is not None:
            raise NoMoreCalls(self._no_more)
        left = self.refused_for()
        if left > 0.0:
            raise DecisionUnavailable(f"{End.REFUSED.message} for another {left:.1f} s")

    def ask(self, request: Request, key: str, timeout_s: float) -> DecisionResult:
        """Send one request under an idempotency key; all of it takes at most `timeout_s` seconds.

        Raises `AttemptFailed`, `NoMoreCalls`, or `DecisionUnavailable` when the endpoint refuses
        requests for a while; of these only the first may have been billed, as its `end` says.
        """
        self.check_open()
        exchange = self._exchange(request, key, timeout_s)
        future = asyncio.run_coroutine_threadsafe(exchange, self._loop)
        self._in_flight.add(future)
        if self._aborted:  # abort() sets it, then looks: one of the two sees what the other did
            future.cancel()
        try:
            return future.result()
        except CancelledError:
            raise AttemptFailed(End.INTERRUPTED, "its reply was not waited for") from None
        finally:
            future.cancel()  # left by Ctrl-C, it must not go on
            self._in_flight.discard(future)

    async def _exchange(self, request: Request, key: str, timeout_s: float) -> DecisionResult:
        exchange = _Exchange()
        pool = next(self._next_pool)
        running = asyncio.ensure_future(exchange.run(pool, self._url, request, key))
        try:
            await asyncio.wait({running}, timeout=timeout_s)
        finally:
            running.cancel()
        # What is cancelled may take a moment, and until it has ended it may still send.
        await asyncio.wait({running}, timeout=CLOSING_S)
        if exchange.end is not None:  # of a failure the status is enough
            said = exchange.content[:SHOWN].decode(errors="replace")
            detail = f"status {exchange.status} {exchange.location or said}".strip()
            raise self._failure(exchange.end, exchange.retry_after, detail)
        lost = End.NOT_SENT if running.done() and exchange.unsent else End.LOST
        if not running.done() or running.cancelled():
            raise AttemptFailed(lost, f"it took longer than {timeout_s:.3g} s")
        if (error := running.exception()) is not None:
            raise AttemptFailed(lost, str(error) or type(error).__name__) from error
        if len(exchange.content) > LARGEST_REPLY:
            raise AttemptFailed(End.GARBAGE, f"its body has more than {LARGEST_REPLY:,} bytes")
        return read_reply(exchange.content)

    def _failure(self, end: End, retry_after: str | None, detail: str) -> Exception:
        if end.then is Next.WAIT:
            window = window_s(retry_after)
            self._refused_until = self._clock() + window
            return DecisionUnavailable(f"{end.message} for another {window:.1f} s ({detail})")
        if end.then is Next.NO_MORE:
            self._no_more = f"{end.message}: {detail}"
            return NoMoreCalls(self._no_more)
        return AttemptFailed(end, detail)
