"""What was paid, and what was answered: one SQLite file that survives the program."""

import sqlite3
import threading
from collections.abc import Callable, Iterator
from datetime import datetime, timezone
from pathlib import Path

from decision_client.request import DecisionResult, Request

SCHEMA = """
CREATE TABLE IF NOT EXISTS payments (
    paid_at TEXT NOT NULL,         -- UTC, 2024-05-01T23:59:59.123456
    kind TEXT NOT NULL,            -- 'reply', or 'lost': sent, never read, its cost assumed
    feature TEXT NOT NULL,
    size INTEGER NOT NULL,         -- bytes of the request
    input_tokens INTEGER NOT NULL,
    cost REAL NOT NULL             -- US dollars
);
CREATE INDEX IF NOT EXISTS payments_by_time ON payments (paid_at);
CREATE TABLE IF NOT EXISTS answers (key TEXT PRIMARY KEY, decision TEXT NOT NULL) WITHOUT ROWID;
"""
OF_DAY = "paid_at >= :day AND paid_at < date(:day, '+1 day')"


def utc_now() -> datetime:
    """The time by which payments are dated."""
    return datetime.now(timezone.utc)


class Ledger:
    """The ledger of all payments and the cache of all answers. Safe for many threads.

    A daily account calls `today` and `cost_of` with its own lock held. So nothing here calls
    into an account, and the lock of the file is never held while waiting for another thread.
    """

    def __init__(self, path: Path, now: Callable[[], datetime] = utc_now) -> None:
        """Open the file, or create it. Raises `sqlite3.Error` when that fails."""
        self._now = now
        self._lock = threading.Lock()
        self._file = sqlite3.connect(path, check_same_thread=False)
        # With a write-ahead log one payment takes one flush to disk, and a reader no wait.
        self._file.execute("PRAGMA journal_mode = WAL")
        self._file.executescript(SCHEMA)

    def close(self) -> None:
        """Close the file; the ledger is of no use afterwards."""
        with self._lock:
            self._file.close()

    def today(self) -> str:
        """Today's UTC date, as "YYYY-MM-DD"."""
        return self._now().date().isoformat()

    def cost_of(self, day: str) -> float:
        """US dollars that the payments of one UTC day ("YYYY-MM-DD") came to."""
        query = f"SELECT TOTAL(cost) FROM payments WHERE {OF_DAY}"
        with self._lock:
            return float(self._file.execute(query, {"day": day}).fetchone()[0])

    def payments_of(self, day: str) -> list[tuple[str, str, int, float]]:
        """The payments of one UTC day as (feature, kind, how many, US dollars), dearest first."""
        query = f"""
            SELECT feature, kind, COUNT(*), SUM(cost) FROM payments
            WHERE {OF_DAY} GROUP BY feature, kind ORDER BY SUM(cost) DESC
        """
        with self._lock:
            return self._file.execute(query, {"day": day}).fetchall()

    def find(self, request: Request) -> DecisionResult | None:
        """The cached answer to a request, which costs nothing; none when it was never answered."""
        query = "SELECT decision FROM answers WHERE key = ?"
        with self._lock:
            row = self._file.execute(query, (request.key,)).fetchone()
        if row is None:
            return None
        return DecisionResult(decision=row[0], cached=True, input_tokens=0, cost=0.0)

    def record(self, request: Request, reply: DecisionResult) -> None:
        """Record a paid reply as of now, and keep its answer: both or neither."""
        answer = "INSERT OR REPLACE INTO answers VALUES (?, ?)"
        with self._lock, self._file:
            self._pay("reply", request, reply)
            self._file.execute(answer, (request.key, reply.decision))

    def record_lost(self, request: Request, assumed: DecisionResult) -> None:
        """Record, at an assumed cost, an attempt whose reply was never read."""
        with self._lock, self._file:
            self._pay("lost", request, assumed)

    def recent_replies(self, limit: int = 1000) -> Iterator[tuple[int, str, DecisionResult]]:
        """The latest paid replies as (size in bytes, feature, reply), for the rates to learn."""
        query = """
            SELECT size, feature, input_tokens, cost FROM payments
            WHERE kind = 'reply' ORDER BY paid_at DESC LIMIT ?
        """
        with self._lock:
            rows = self._file.execute(query, (limit,)).fetchall()
        for size, feature, input_tokens, cost in rows:
            yield size, feature, DecisionResult("", False, input_tokens, cost)

    def _pay(self, kind: str, request: Request, reply: DecisionResult) -> None:
        paid_at = self._now().replace(tzinfo=None).isoformat(timespec="microseconds")
        self._file.execute(
            "INSERT INTO payments VALUES (?, ?, ?, ?, ?, ?)",
            (paid_at, kind, request.feature, request.size, reply.input_tokens, reply.cost),
        )
