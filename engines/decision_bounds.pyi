"""Bounds on what a client of a paid decision endpoint spends.

The module's own docstrings say what each callable does, what it raises and what it blocks for.
Costs are in US dollars, sizes in bytes, times in seconds.
"""

from abc import abstractmethod
from collections.abc import Callable
from inspect import Signature
from logging import Logger
from typing import Any, Protocol, TypeVar, TypedDict, runtime_checkable

_S = TypeVar("_S", bound=Share)

logger: Logger
_POLL_S: float

class DecisionError(RuntimeError): ...
class DecisionBudgetExceeded(DecisionError): ...
class DecisionUnavailable(DecisionError): ...
class DecisionTimeout(DecisionError): ...
class DecisionStopped(DecisionError): ...

@runtime_checkable
class PaidReply(Protocol):
    @property
    @abstractmethod
    def cached(self) -> bool: ...
    @property
    @abstractmethod
    def input_tokens(self) -> int: ...
    @property
    @abstractmethod
    def cost(self) -> float: ...

class _Lock(Protocol):
    """The plain lock of a RequestRates: a threading.Lock, or an object with its methods."""

    def acquire(self) -> Any: ...
    def release(self) -> Any: ...

class _Condition(Protocol):
    """The condition of a bound: a threading.Condition, or an object with its methods."""

    def __enter__(self) -> Any: ...
    def __exit__(self, *error: Any) -> Any: ...
    def wait(self, timeout: float) -> Any: ...
    def notify_all(self) -> Any: ...

class _Summary(TypedDict):
    calls: int
    cache_hits: int
    input_tokens: int
    cost_usd: float
    max_calls: int
    max_tokens: int

def never() -> bool: ...
def _nothing(_reply: PaidReply | None) -> None: ...

class Share:
    __signature__: Signature
    _give_back: Callable[[PaidReply | None], object] | None
    def __init__(self, give_back: Callable[[PaidReply | None], object] = ...) -> None: ...
    def settle(self, reply: PaidReply | None) -> None: ...
    def __enter__(self: _S) -> _S: ...
    def __exit__(self, *error: object) -> None: ...

class _Held:
    __match_args__ = ("holders", "amount", "unbounded")
    holders: int
    amount: float
    unbounded: int
    def __init__(
        self, holders: int = 0, amount: float = 0.0, unbounded: int = 0
    ) -> None: ...
    def __eq__(self, other: object) -> bool: ...
    def admits(self, share: float, used: float, limit: float) -> bool: ...
    def take(self, share: float) -> None: ...
    def give_back(self, share: float) -> None: ...

def _wait(
    changed: _Condition,
    stopping: Callable[[], object],
    *,
    deadline: float | None = None,
    clock: Callable[[], float] | None = None,
) -> None: ...

class _Charges:
    __match_args__ = ("per_byte", "per_call")
    per_byte: float
    per_call: float
    def __init__(self, per_byte: float = 0.0, per_call: float = 0.0) -> None: ...
    def __eq__(self, other: object) -> bool: ...
    def bound(self, size: int) -> float: ...
    def learn(self, size: int, charge: float) -> None: ...

class RequestRates:
    _lock: _Lock
    _cost: _Charges
    _tokens: _Charges
    _features: set[str]
    def cost(self, size: int, feature: str) -> float: ...
    def tokens(self, size: int) -> float: ...
    def learn(self, size: int, feature: str, reply: PaidReply) -> None: ...

class RunBudget:
    __signature__: Signature
    __match_args__ = (
        "max_calls",
        "max_tokens",
        "calls",
        "input_tokens",
        "cost",
        "cache_hits",
        "in_flight",
        "should_stop",
        "_held_tokens",
        "_changed",
    )
    max_calls: int
    max_tokens: int
    calls: int
    input_tokens: int
    cost: float
    cache_hits: int
    in_flight: int
    should_stop: Callable[[], object]
    _held_tokens: _Held
    _changed: _Condition
    def __init__(
        self,
        max_calls: int,
        max_tokens: int,
        calls: int = 0,
        input_tokens: int = 0,
        cost: float = 0.0,
        cache_hits: int = 0,
        in_flight: int = 0,
        should_stop: Callable[[], object] = ...,
        _held_tokens: _Held = ...,
        _changed: _Condition = ...,
    ) -> None: ...
    def __eq__(self, other: object) -> bool: ...
    def stopping(self) -> bool: ...
    def exhausted(self) -> bool: ...
    def _exhausted_locked(self) -> bool: ...
    def summary(self) -> _Summary: ...
    def _summary_locked(self) -> _Summary: ...
    def reserve(self, tokens: float = 0.0) -> None: ...
    def hold(self, tokens: float) -> Share: ...
    def release(self, tokens: float = 0.0) -> None: ...
    def charge(self, result: PaidReply, tokens: float = 0.0) -> None: ...

class DailySpend:
    _cap: float
    _today: Callable[[], str]
    _ledger: Callable[[str], float] | None
    _changed: _Condition
    _held: _Held
    _day: str
    _cost: float
    _capped: bool
    def __init__(
        self,
        cap: float,
        today: Callable[[], str],
        ledger: Callable[[str], float] | None,
    ) -> None: ...
    def spent(self) -> float: ...
    def admit(
        self,
        bound: Callable[[], float],
        *,
        deadline: float | None,
        clock: Callable[[], float],
        stopping: Callable[[], object],
    ) -> Share: ...
    def charge(self, reply: PaidReply) -> None: ...
    def _give_back(self, held: float, reply: PaidReply | None) -> None: ...
    def _today_locked(self) -> float: ...
    def _spent_since(self, day: str) -> float: ...
