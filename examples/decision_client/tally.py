"""What the client counts for its own display; the bounds publish no such figures."""

import math
import threading
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass, field

WAITED_S = 0.01
"""An admission that took at least so many seconds counts as one that waited for room."""


@dataclass
class Tally:
    """Counts of the calls of one program run. Safe for many threads."""

    held: float = 0.0
    """US dollars that the calls in flight hold, without the unbounded shares."""
    unbounded: int = 0
    """Calls in flight that hold all that is left, because their cost is not known yet."""
    most_held: float = 0.0
    waits: int = 0
    waited_s: float = 0.0
    retries: int = 0
    lost: int = 0
    lost_cost: float = 0.0
    _in_flight: int = 0
    _lock: threading.Lock = field(default_factory=threading.Lock, repr=False, compare=False)

    @contextmanager
    def holding(self, held: float, waited_s: float) -> Iterator[None]:
        """Count a call that was admitted after `waited_s` seconds, and holds `held` dollars."""
        bounded = 0.0 if math.isinf(held) else held
        with self._lock:
            self._in_flight += 1
            self.held += bounded
            self.unbounded += math.isinf(held)
            self.most_held = max(self.most_held, self.held)
            self.waits += waited_s >= WAITED_S
            self.waited_s += waited_s
        try:
            yield
        finally:
            with self._lock:
                self._in_flight -= 1
                self.held = self.held - bounded if self._in_flight else 0.0
                self.unbounded -= math.isinf(held)

    def count_retry(self) -> None:
        """Count an attempt that follows a failed one."""
        with self._lock:
            self.retries += 1

    def count_lost(self, cost: float) -> None:
        """Count an attempt whose reply was never read, at an assumed `cost` in US dollars."""
        with self._lock:
            self.lost += 1
            self.lost_cost += cost
