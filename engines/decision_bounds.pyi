"""Bounds on what a client of a paid decision endpoint spends.

A paid call is admitted before it starts and holds a Share of each bound that it counts
against: of the day's cap in US dollars (DailySpend), of its pass's input tokens and call
slots (RunBudget). However the call ends, the share goes back once.

What is settled plus what is held stays below the bound as each call is admitted. So calls
in flight at once cannot together pass a test that each of them passes alone. A call that
finds no room because others hold it waits for one of them to end: a call with a deadline
no longer than that, a call of a pass until the pass stops. Only what is settled turns a
call away for good. Call slots are different: calls in flight fill them too, and a call
that finds none free is turned away at once.

A call counts on the UTC day on which it settles, as a ledger that dates replies by their
arrival would have it. One that was admitted before midnight holds its share of the new day.

Before its reply a call's cost is an estimate. RequestRates learns it from the replies so
far: the most that a call cost or, for a larger request, the most per byte times its size.
Of a feature without any reply it knows nothing: such a call takes all that is left and
runs alone. No estimate bounds what a reply will cost, since its output has no bound. A
day's spend can therefore end above the cap, by at most the cost of one call, and by what
each call cost above the dearest call before it. Such calls were in flight as that most was
raised; as long as none is dearer than an earlier one, the day ends within one call of the
cap.

Costs are in US dollars, sizes in bytes, times in seconds. Any thread may use any object.
"""

from abc import abstractmethod
from collections.abc import Callable
from inspect import Signature
from logging import Logger
from typing import Any, ClassVar, Protocol, TypedDict, TypeVar, runtime_checkable

_S = TypeVar("_S", bound=Share)

__version__: str
logger: Logger
_POLL_S: float

class DecisionError(RuntimeError):
    """A decision call failed, after its retries."""

class DecisionBudgetExceeded(DecisionError):
    """Another call would exceed a RunBudget or the daily cost cap."""

class DecisionUnavailable(DecisionError):
    """The endpoint refuses requests; it is not asked again until that window ends."""

class DecisionTimeout(DecisionError):
    """A call ran out of its deadline while it waited for room."""

class DecisionStopped(DecisionError):
    """The pass that the call belongs to has been asked to stop."""

@runtime_checkable
class PaidReply(Protocol):
    """How a bound reads a reply of the decision endpoint; the client's reply type has these.

    The library only reads them, with a lock held; what a property raises propagates. A property
    may use the bound that reads it, but not the RequestRates that does: its lock is a plain one.
    """

    @property
    @abstractmethod
    def cached(self) -> bool:
        """Whether the answer came from the client's cache; cache hits are free."""

    @property
    @abstractmethod
    def input_tokens(self) -> int:
        """The input tokens that the request used."""

    @property
    @abstractmethod
    def cost(self) -> float:
        """What the reply cost, in US dollars."""

class _Lock(Protocol):
    """The plain lock of a RequestRates: a threading.Lock, or another object for a with block."""

    def __enter__(self) -> Any: ...
    def __exit__(self, *error: Any) -> Any: ...

class _Condition(Protocol):
    """The condition of a bound: a threading.Condition, or an object with these methods."""

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

def never() -> bool:
    """False, always: the stop signal that never comes. Any thread may call it."""

def _nothing(_reply: PaidReply | None) -> None:
    """Does nothing: gives back a share of nothing."""

class Share:
    """What one admitted call holds of a bound, given back exactly once.

    Use it in a with block: settle(reply) inside the block counts the paid reply; leaving the
    block in any other way gives the share back uncounted. give_back is called with the reply,
    or None, once.

    Dropping the last reference to an unsettled share is not the end of its scope: it gives
    nothing back, and what the call held stays held. A ResourceWarning says so.
    """

    __signature__: Signature
    _give_back: Callable[[PaidReply | None], object] | None
    def __init__(self, give_back: Callable[[PaidReply | None], object] = ...) -> None: ...
    def settle(self, reply: PaidReply | None) -> None:
        """Gives the share back, counting reply; None when the call was not paid.

        A share given back already ignores it. The share counts as given back even when its
        action raises; that error propagates. Any thread may call it. It blocks as its action
        does: for the bound's lock and, where a reply begins a new day, for the ledger.
        """
    def __enter__(self: _S) -> _S:
        """Returns the share itself."""
    def __exit__(self, *error: object) -> None:
        """Does settle(None); the error that ended the block, if any, propagates."""

class _Held:
    """What the admitted calls hold of one bound.

    How many they are, the sum of their bounded shares in the bound's unit, and how many hold
    an unbounded one. Takes no lock: the bound's lock guards it.
    """

    __match_args__ = ("holders", "amount", "unbounded")
    __hash__: ClassVar[None]  # type: ignore[assignment]
    holders: int
    amount: float
    unbounded: int
    def __init__(self, holders: int = 0, amount: float = 0.0, unbounded: int = 0) -> None: ...
    def __eq__(self, other: object, /) -> bool: ...
    def admits(self, share: float, used: float, limit: float) -> bool:
        """Whether a call that would hold share may start while settled calls used so much.

        An infinite share (not known) only when nothing is held; and while one is held, no
        other. All in the bound's unit. Takes no lock.
        """
    def take(self, share: float) -> None:
        """Counts a call that holds share from now on. The bound's lock must be held."""
    def give_back(self, share: float) -> None:
        """Returns what take(share) took; counts stop at 0. The bound's lock must be held."""

def _wait(
    changed: _Condition,
    stopping: Callable[[], bool],
    *,
    deadline: float | None = None,
    clock: Callable[[], float] | None = None,
) -> None:
    """One wait for room on the condition changed, whose lock the caller holds.

    Ends with a wake-up, after 0.1 s at most, never past deadline (on the scale of clock, in
    seconds; both given, or no deadline is tested). The lock is let go entirely meanwhile, and
    held again in the end. Raises DecisionStopped when stopping() is true, before it looks at
    the clock, and DecisionTimeout when no time is left. What the functions raise propagates.
    """

class _Charges:
    """The most that one measure of the paid replies came to: per request byte, and per call.

    In US dollars, or in input tokens. Both only grow. Takes no lock.
    """

    __match_args__ = ("per_byte", "per_call")
    __hash__: ClassVar[None]  # type: ignore[assignment]
    per_byte: float
    per_call: float
    def __init__(self, per_byte: float = 0.0, per_call: float = 0.0) -> None: ...
    def __eq__(self, other: object, /) -> bool: ...
    def bound(self, size: int) -> float:
        """The most that a request of size bytes may come to.

        That is the most per call or, if more, the most per byte times size. Takes no lock.
        """
    def learn(self, size: int, charge: float) -> None:
        """Takes in a reply that came to charge for a request of size bytes.

        A size below 1 is taken as 1. Takes no lock.
        """

class RequestRates:
    """The most that a request may cost or use before its reply says, learned from replies.

    In US dollars and in input tokens. Any thread may call any operation. Sizes are in bytes;
    sizes and input tokens are integers of 64 bits (OverflowError beyond).
    """

    _lock: _Lock
    _cost: _Charges
    _tokens: _Charges
    _features: set[str]
    def __init__(self) -> None: ...
    def cost(self, size: int, feature: str) -> float:
        """The most that a request of size bytes may cost, in US dollars.

        That is the most that one paid call of any feature cost or, if more, the highest price
        per byte times size. Infinity until a reply of feature has been learned. Blocks only
        for the object's own lock.
        """
    def tokens(self, size: int) -> float:
        """The most input tokens that a request of size bytes may use.

        Infinity until any reply has been learned. Blocks only for the object's own lock.
        """
    def learn(self, size: int, feature: str, reply: PaidReply) -> None:
        """Takes in the paid reply to a request of size bytes (below 1: taken as 1) of feature.

        Reads its cost and input_tokens, not cached, with the lock held: they must not use this
        object. What they raise propagates, and the feature may be known already. Blocks only
        for the object's own lock.
        """

class RunBudget:
    """The bound of one batch pass: paid calls, input tokens, and a stop signal.

    max_calls: paid calls at most, settled and in flight together.
    max_tokens: input tokens that the settled calls may use at most.
    should_stop: a function without arguments that says whether the pass is to stop. It may be
    called with the lock held, may read this budget, and must not wait for another thread that
    uses it.

    The other fields are counters (cost in US dollars). Counts and limits are integers of 64
    bits: a sum stays at the largest, and an argument or a reply's input_tokens beyond raises
    OverflowError. Any thread may call any operation; calls that wait for room are admitted in
    no set order. Equal to another budget with the same limits and counters.
    """

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
    __hash__: ClassVar[None]  # type: ignore[assignment]
    max_calls: int
    max_tokens: int
    calls: int
    input_tokens: int
    cost: float
    cache_hits: int
    in_flight: int
    should_stop: Callable[[], bool]
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
        should_stop: Callable[[], bool] = ...,
        _held_tokens: _Held = ...,
        _changed: _Condition = ...,
    ) -> None: ...
    def __eq__(self, other: object, /) -> bool: ...
    def stopping(self) -> bool:
        """What should_stop() says now, as a bool; what it raises propagates. Takes no lock."""
    def exhausted(self) -> bool:
        """Whether a new call would be refused: no slot is free, or the tokens are used up.

        Calls in flight count as using their slot, not their tokens. Blocks only for the lock.
        """
    def _exhausted_locked(self) -> bool:
        """exhausted() for a caller that holds the lock of _changed."""
    def summary(self) -> _Summary:
        """The pass's counts and limits, as a new dict.

        calls, cache_hits, input_tokens, cost_usd (US dollars, rounded to 6 decimals),
        max_calls, max_tokens. Blocks only for the lock.
        """
    def _summary_locked(self) -> _Summary:
        """summary() for a caller that holds the lock of _changed."""
    def reserve(self, tokens: float = 0.0) -> None:
        """Admits one paid call that may use tokens input tokens at most.

        Infinity: not known; such a call runs alone. A negative number makes room for others.
        The caller ends the call with exactly one release or charge; hold() sees to that.

        Blocks while the calls in flight hold the rest of the tokens; sees a stop within 0.1 s.
        Raises DecisionStopped when the pass is stopping and DecisionBudgetExceeded when no call
        slot is free or the settled calls used up the tokens; what should_stop raises
        propagates. Then nothing is held.
        """
    def hold(self, tokens: float) -> Share:
        """Admits one paid call as reserve(tokens) does, and returns its Share.

        Settled with a reply it charges it, settled with None it releases the call. Blocks the
        thread while it waits for room, so it never belongs on an event loop.
        """
    def release(self, tokens: float = 0.0) -> None:
        """Gives back the slot and the tokens of a call that ended without a paid reply.

        Wakes every waiting call. Blocks only for the lock.
        """
    def charge(self, result: PaidReply, tokens: float = 0.0) -> None:
        """Counts the reply of a call that reserved tokens, and gives back what the call held.

        Wakes every waiting call. A cached result only counts as a cache hit, and needs no
        tokens. What reading the result raises propagates after what the call held has been
        given back. But with tokens 0 there may be no call: where the cached of the result
        cannot be read, or the lock cannot be had, nothing changes. Blocks only for the lock.
        """

class DailySpend:
    """The daily cost cap: what the paid calls of one UTC day cost, and what is held of it.

    A call counts on the day on which it settles.

    cap: US dollars that the paid calls of one day may cost. Every call is refused where it is
    not above what the day has cost, NaN included.
    today: a function that gives today's UTC date as "YYYY-MM-DD".
    ledger: a function that gives what the paid calls since such a date cost, in US dollars,
    asked once a day; or None. Where it fails, the day begins at 0 with a warning; to admit
    nothing then, read it in today, whose errors propagate.

    Both functions are called with the lock held. They must not wait for another thread that
    uses this account. They may use it themselves; but the day begins when the ledger has
    answered, so a ledger that calls spent() is asked again, and must see to it that this ends.
    Any thread may call any operation.
    """

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
    def spent(self) -> float:
        """What the paid calls of today (UTC) cost so far, in US dollars.

        Begins a new day from the ledger when today() names another date; what today() raises
        propagates. Blocks for the lock, and for the ledger on a new day.
        """
    def admit(
        self,
        bound: Callable[[], float],
        *,
        deadline: float | None,
        clock: Callable[[], float],
        stopping: Callable[[], bool],
    ) -> Share:
        """Admits one paid call and returns its Share of today's cap.

        bound: a function that gives the most that the call may cost, in US dollars; infinity
        when that is not known (such a call runs alone, and while others keep coming it may wait
        for good: min(rates.cost(size, feature), ceiling) bounds that); a negative one makes
        room for others. Asked again after each wait.
        deadline: when the call ends, on the scale of clock, or None.
        clock: a function that gives the time in seconds, and never goes back.
        stopping: a function that says whether the call's pass is stopping.

        Blocks as spent() does, and while the calls in flight hold the rest of the cap. It
        blocks the thread that calls it, so it never belongs on an event loop. A call that is
        admitted or refused at once looks at neither the deadline nor stopping. Raises
        DecisionBudgetExceeded when the settled calls of today cost the cap (the day's first
        refusal is logged), DecisionTimeout when the deadline passes, DecisionStopped when the
        pass stops (seen within 0.1 s); what the functions raise propagates. Then nothing is
        held. The functions are called with the lock held: they may use this account, and must
        not wait for another thread that does.
        """
    def charge(self, reply: PaidReply) -> None:
        """Counts, in US dollars, an attempt that no share stands for.

        That is one that was sent, and billed perhaps, but its reply was never read. Wakes every
        waiting call. Only reply.cost is read, of a cached reply too; what it or today() raises
        propagates, and nothing is counted, nor where the lock cannot be had. Blocks as spent()
        does.
        """
    def _give_back(self, held: float, reply: PaidReply | None) -> None:
        """Ends a call that was admitted with held US dollars.

        Counts reply, unless it is None, on the day that it settles, returns held, and wakes
        every waiting call. held returns even when today() or reply.cost raises; that
        propagates. Blocks for the lock and, with a reply on a new day, for the ledger.
        """
    def _today_locked(self) -> float:
        """spent() for a caller that holds the lock of _changed."""
    def _spent_since(self, day: str) -> float:
        """What the ledger says that the calls since day ("YYYY-MM-DD", UTC) cost.

        In US dollars; 0.0 without a ledger or, with a warning, when it fails.
        """
