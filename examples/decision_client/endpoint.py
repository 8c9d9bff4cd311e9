"""A paid decision endpoint on loopback HTTP, with faults that can be switched on.

It stands in for a remote service: it takes time, charges by the token, and can fail, refuse
requests for a while, or bill a request and lose the reply.
"""

import enum
import json
import random
import sys
import threading
import time
import zlib
from collections.abc import Callable
from dataclasses import dataclass, field
from http import HTTPStatus
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from typing import Any

USD_PER_TOKEN = {"triage": (0.40e-6, 1.60e-6), "audit": (2.00e-6, 8.00e-6)}
"""US dollars per input token and per output token, by feature."""
LONG_FILE_LINES = 800


class Outcome(enum.Enum):
    """How the endpoint treats one request; only the first and the last are billed."""

    ANSWER = "answer"
    FAILURE = "failure"
    REFUSAL = "refusal"
    LOST_REPLY = "lost reply"


@dataclass
class Faults:
    """What goes wrong, and how often: rates are probabilities of one request, `_s` are seconds."""

    latency_s: float = 0.02
    failure_rate: float = 0.0
    lost_rate: float = 0.0
    refuse_every: int = 0
    """Each so many requests the endpoint refuses all of them for a while; 0: it never does."""
    refuse_for_s: float = 0.5
    _drawn: int = 0
    _random: random.Random = field(default_factory=lambda: random.Random(0))

    def draw(self) -> Outcome:
        """The outcome of the next request; the endpoint asks under its lock."""
        self._drawn += 1
        if self.refuse_every and self._drawn % self.refuse_every == 0:
            return Outcome.REFUSAL
        chance = self._random.random()
        if chance < self.failure_rate:
            return Outcome.FAILURE
        if chance < self.failure_rate + self.lost_rate:
            return Outcome.LOST_REPLY
        return Outcome.ANSWER


class Endpoint(ThreadingHTTPServer):
    """The endpoint, served by threads of its own on an ephemeral port while its scope is open."""

    daemon_threads = True
    request_queue_size = 512

    def __init__(
        self, faults: Faults, clock: Callable[[], float] = time.monotonic, port: int = 0
    ) -> None:
        super().__init__(("127.0.0.1", port), _Handler)
        self.faults = faults
        self.requests = 0
        self.bill: dict[str, tuple[dict[str, Any], float]] = {}
        """By idempotency key: its answer and its US dollars, lost replies included."""
        self.url = f"http://127.0.0.1:{self.server_port}/"
        self._clock = clock
        self._refusing_until = 0.0
        self._lock = threading.Lock()
        self._thread = threading.Thread(target=self.serve_forever, args=(0.02,), daemon=True)

    def __enter__(self) -> "Endpoint":
        self._thread.start()
        return self

    def __exit__(self, *ended: object) -> None:
        self.shutdown()
        self._thread.join()
        self.server_close()

    def next_outcome(self) -> tuple[Outcome, float]:
        """The outcome of the request that just came, and the seconds that a refusal still lasts."""
        with self._lock:
            self.requests += 1
            now = self._clock()
            if now >= self._refusing_until:
                outcome = self.faults.draw()
                if outcome is not Outcome.REFUSAL:
                    return outcome, 0.0
                self._refusing_until = now + self.faults.refuse_for_s
            return Outcome.REFUSAL, self._refusing_until - now

    @property
    def billed(self) -> float:
        """US dollars of all that it processed."""
        with self._lock:
            return sum(cost for _, cost in self.bill.values())

    def bills(self) -> dict[str, float]:
        """US dollars by idempotency key."""
        with self._lock:
            return {key: cost for key, (_, cost) in self.bill.items()}

    def answer(self, key: str, question: dict[str, Any]) -> dict[str, Any]:
        """Decide and charge, whether or not the reply will arrive: once for the same key."""
        with self._lock:
            if key not in self.bill:
                decided = _decide(**question)
                self.bill[key] = decided, decided["cost"]
            return self.bill[key][0]

    def handle_error(self, request: Any, client_address: Any) -> None:
        """A client that gave up waiting is no error of the endpoint."""
        if not isinstance(sys.exc_info()[1], ConnectionError):
            super().handle_error(request, client_address)


class _Handler(BaseHTTPRequestHandler):
    """Answers one `POST`: 200 with a decision, 500, or 503 with the seconds to stay away."""

    server: Endpoint
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True

    def do_POST(self) -> None:
        question = json.loads(self.rfile.read(int(self.headers["Content-Length"])))
        if question["feature"] not in USD_PER_TOKEN:
            self._reply(HTTPStatus.BAD_REQUEST, {"error": "the feature is not known"})
            return
        outcome, refused_for_s = self.server.next_outcome()
        if outcome is Outcome.REFUSAL:
            headers = {"Retry-After": f"{refused_for_s:.3f}"}
            self._reply(HTTPStatus.SERVICE_UNAVAILABLE, {"error": "too many requests"}, headers)
            return
        time.sleep(self.server.faults.latency_s)
        if outcome is Outcome.FAILURE:
            self._reply(HTTPStatus.INTERNAL_SERVER_ERROR, {"error": "an internal error"})
            return
        answer = self.server.answer(self.headers["Idempotency-Key"], question)
        if outcome is Outcome.LOST_REPLY:
            self.close_connection = True
        else:
            self._reply(HTTPStatus.OK, answer)

    def do_GET(self) -> None:
        """The bill so far."""
        self._reply(HTTPStatus.OK, self.server.bills())

    def _reply(
        self, status: HTTPStatus, answer: dict[str, Any], headers: dict[str, str] | None = None
    ) -> None:
        content = json.dumps(answer).encode()
        self.send_response(status)
        for name, value in (headers or {}).items():
            self.send_header(name, value)
        self.send_header("Content-Type", "application/json")
        self.send_header("Content-Length", str(len(content)))
        self.end_headers()
        self.wfile.write(content)

    def log_message(self, format: str, *args: Any) -> None:
        """The client shows what happens; a line for each request would bury it."""


def _decide(feature: str, instructions: str, text: str) -> dict[str, Any]:
    """Take a decision by plain rules and price it. Tokens are estimated from the words."""
    lines = text.splitlines()
    if len(lines) > LONG_FILE_LINES:
        decision = "split"
    elif any(mark in text for mark in ("TODO", "FIXME", "XXX")):
        decision = "review"
    else:
        decision = "keep"
    input_tokens = (len(instructions.split()) + len(text.split())) * 4 // 3
    # No client knows the length of an answer beforehand; it is the same for the same text.
    output_tokens = 20 + zlib.crc32(text.encode()) % 100
    per_input, per_output = USD_PER_TOKEN[feature]
    cost = input_tokens * per_input + output_tokens * per_output
    return {"decision": decision, "input_tokens": input_tokens, "cost": cost}
