"""Equal requests, one after the other."""

import threading
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass, field

from decision_client.engines.decision_bounds import DecisionTimeout


@dataclass
class _Turn:
    lock: threading.Lock = field(default_factory=threading.Lock)
    users: int = 0


class Turns:
    """Gives each key to one thread at a time. The next one finds the answer in the cache.

    Where the first one fails, the next makes a call of its own: it may be of another pass, with
    other bounds.
    """

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._turns: dict[str, _Turn] = {}

    @contextmanager
    def of(self, key: str, timeout_s: float | None) -> Iterator[None]:
        """A block for one thread at a time. Raises `DecisionTimeout` after `timeout_s` seconds."""
        with self._lock:
            turn = self._turns.setdefault(key, _Turn())
            turn.users += 1
        try:
            if not turn.lock.acquire(timeout=-1 if timeout_s is None else timeout_s):
                raise DecisionTimeout("an equal request in flight took longer than the deadline")
            try:
                yield
            finally:
                turn.lock.release()
        finally:
            with self._lock:
                turn.users -= 1
                if not turn.users:
                    del self._turns[key]
