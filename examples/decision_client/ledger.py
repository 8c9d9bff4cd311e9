"""What was sent, paid and answered: recorded before it can cost anything, dated in UTC."""

import threading
from collections.abc import Callable, Iterator
from dataclasses import dataclass
from datetime import datetime, timezone
from pathlib import Path
from typing import NamedTuple

from decision_client.database import BUSY_S, Database, Statement
from decision_client.request import DecisionResult, Request

SCHEMA = """
CREATE TABLE IF NOT EXISTS attempts (
    call TEXT NOT NULL,            -- the idempotency key that its attempts share
    attempt INTEGER NOT NULL,      -- 1, 2, ...
    state TEXT NOT NULL,           -- see State
    day TEXT NOT NULL,             -- the UTC day on which it counts, 2024-05-01
    changed_at TEXT NOT NULL,      -- UTC, 2024-05-01T23:59:59.123456
    feature TEXT NOT NULL,
    request TEXT NOT NULL,         -- digest of the body
    size INTEGER NOT NULL,         -- bytes of the request
    input_tokens INTEGER NOT NULL,
    cost REAL NOT NULL,            -- US dollars: of a reply, or assumed
    PRIMARY KEY (call, attempt)
) WITHOUT ROWID;
CREATE INDEX IF NOT EXISTS attempts_by_day ON attempts (day, state, cost);
CREATE INDEX IF NOT EXISTS attempts_by_time ON attempts (state, changed_at);
CREATE TABLE IF NOT EXISTS answers (request TEXT PRIMARY KEY, decision TEXT NOT NULL) WITHOUT ROWID;
"""
SCHEMA_VERSION = 2


class State:
    """What an attempt has become. All but the unbilled count with their cost."""

    SENT = "sent"
    """It may be on its way: nobody knows how it ended. Its cost is assumed."""
    REPLY = "reply"
    LOST = "lost"
    """It was sent, and its reply never read: it counts at its assumed cost."""
    SETTLED = "settled"
    """It was lost, and its real cost was found out later."""
    UNBILLED = "unbilled"


class AttemptId(NamedTuple):
    """One attempt of one call."""

    call: str
    attempt: int

    def __str__(self) -> str:
        return f"{self.call}/{self.attempt}"


@dataclass(frozen=True)
class LostAttempt:
    """An attempt that counts at an assumed cost."""

    id: AttemptId
    day: str
    feature: str
    request: str
    assumed_cost: float


def utc_now() -> datetime:
    """The time by which payments are dated."""
    return datetime.now(timezone.utc)


class Ledger:
    """The ledger of all attempts and the cache of all answers. Safe for many threads.

    Each operation raises `StorageError` when the file does not let it. A daily account calls
    `today` and `cost_of` with its own lock held. So nothing here calls into an account, and no
    read waits for another thread's write.
    """

    def __init__(
        self,
        path: Path,
        now: Callable[[], datetime] = utc_now,
        busy_s: float = BUSY_S,
        *,
        read_only: bool = False,
    ) -> None:
        """Open the file, or create it. Only one process can, and any number `read_only`."""
        self._now = now
        self._database = Database(path, SCHEMA, SCHEMA_VERSION, busy_s, read_only=read_only)
        self._told = threading.local()

    def close(self) -> None:
        """Close the file; the ledger is of no use afterwards."""
        self._database.close()

    def today(self) -> str:
        """Today's UTC date, as "YYYY-MM-DD", which the calling thread's next outcome counts on.

        An account asks as it settles a call, on the thread that then records it. Were the record
        dated by a look at the clock of its own, a midnight between the two would have the call
        count on one day in the account and on the next in the ledger.
        """
        self._told.day = self._now().date().isoformat()
        return str(self._told.day)

    def cost_of(self, day: str) -> float:
        """US dollars that the ended attempts of one UTC day ("YYYY-MM-DD") came to.

        What is on its way is left out: the account holds it until it ends.
        """
        query = "SELECT TOTAL(cost) FROM attempts WHERE day = :day AND state <> :sent"
        return float(self._database.read(query, day=day, sent=State.SENT)[0][0])

    def attempts_of(self, day: str) -> list[tuple[str, str, int, float]]:
        """One UTC day's attempts as (feature, state, how many, US dollars), dearest first."""
        query = """
            SELECT feature, state, COUNT(*), SUM(cost) FROM attempts
            WHERE day = :day GROUP BY feature, state ORDER BY SUM(cost) DESC
        """
        return self._database.read(query, day=day)

    def find(self, request: Request) -> DecisionResult | None:
        """The cached answer to a request, which costs nothing; none when it was never answered."""
        query = "SELECT decision FROM answers WHERE request = :key"
        rows = self._database.read(query, key=request.key)
        return DecisionResult(rows[0][0], cached=True, input_tokens=0, cost=0.0) if rows else None

    def record_sending(self, id: AttemptId, request: Request, assumed_cost: float) -> None:
        """Record an attempt that is about to be sent. Where that fails, it must not be."""
        statement = """
            INSERT INTO attempts VALUES (
                :call, :attempt, :state, :day, :at, :feature, :request, :size, 0, :cost)
        """
        values = self._stamp(id, State.SENT, self._now().date().isoformat(), assumed_cost)
        asked = {"feature": request.feature, "request": request.key, "size": request.size}
        self._database.write((statement, values | asked))

    def record_reply(self, id: AttemptId, request: Request, reply: DecisionResult) -> None:
        """Record what was paid and keep the answer: both or neither."""
        statement = "INSERT OR REPLACE INTO answers VALUES (:request, :decision)"
        answer = {"request": request.key, "decision": reply.decision}
        self._end(id, State.REPLY, reply.cost, reply.input_tokens, (statement, answer))

    def record_lost(self, id: AttemptId, assumed_cost: float) -> None:
        """Record that the reply of an attempt was never read."""
        self._end(id, State.LOST, assumed_cost)

    def record_unbilled(self, id: AttemptId) -> None:
        """Record that an attempt failed and cost nothing."""
        self._told.day = self._now().date().isoformat()
        self._end(id, State.UNBILLED, 0.0)

    def recover(self) -> list[LostAttempt]:
        """Count as lost what earlier runs left on its way, and say what that was.

        Only one process has the file open, so nothing else can be on its way now.
        """
        unfinished = self._lost(State.SENT)
        if unfinished:
            statement = "UPDATE attempts SET state = :lost WHERE state = :sent"
            self._database.write((statement, {"lost": State.LOST, "sent": State.SENT}))
        return unfinished

    def lost(self) -> list[LostAttempt]:
        """What counts at an assumed cost, oldest first."""
        return self._lost(State.LOST)

    def settle_lost(self, costs: dict[AttemptId, float]) -> None:
        """Replace assumed costs by the real ones, in US dollars; 0.0: it was not billed.

        All or none. The day on which an attempt counts stays the same.
        """
        statement = """
            UPDATE attempts SET state = :state, cost = :cost
            WHERE call = :call AND attempt = :attempt AND state = :lost
        """
        self._database.write(
            *(
                (statement, id._asdict() | {"state": state, "cost": cost, "lost": State.LOST})
                for id, cost in costs.items()
                for state in [State.SETTLED if cost else State.UNBILLED]
            )
        )

    def recent_replies(self, limit: int = 1000) -> Iterator[tuple[int, str, DecisionResult]]:
        """The latest paid replies as (size in bytes, feature, reply), for the rates to learn.

        Free ones are left out: they tell no price.
        """
        query = """
            SELECT size, feature, input_tokens, cost FROM attempts
            WHERE state = :reply AND cost > 0 ORDER BY changed_at DESC LIMIT :limit
        """
        for size, feature, tokens, cost in self._database.read(
            query, reply=State.REPLY, limit=limit
        ):
            yield size, feature, DecisionResult("", False, tokens, cost)

    def _lost(self, state: str) -> list[LostAttempt]:
        query = """
            SELECT call, attempt, day, feature, request, cost FROM attempts
            WHERE state = :state ORDER BY changed_at
        """
        rows = self._database.read(query, state=state)
        return [LostAttempt(AttemptId(call, attempt), *rest) for call, attempt, *rest in rows]

    def _end(
        self, id: AttemptId, state: str, cost: float, tokens: int = 0, *more: Statement
    ) -> None:
        statement = """
            UPDATE attempts
            SET state = :state, day = :day, changed_at = :at, input_tokens = :tokens, cost = :cost
            WHERE call = :call AND attempt = :attempt
        """
        values = self._stamp(id, state, self._told.day, cost) | {"tokens": tokens}
        self._database.write((statement, values), *more)

    def _stamp(self, id: AttemptId, state: str, day: str, cost: float) -> dict[str, object]:
        at = self._now().replace(tzinfo=None).isoformat(timespec="microseconds")
        return id._asdict() | {"state": state, "day": day, "at": at, "cost": cost}
