"""Section 1: one Python thread; and the floors under it."""

import threading
from dataclasses import dataclass

import decision_bounds
import floors
from table import Row
from timing import best

SECTION = "1. Python, one thread"


@dataclass(frozen=True)
class Reply:
    cached: bool = False
    input_tokens: int = 1
    cost: float = 0.000001


class Pass:
    """The counts of a pass, kept in Python."""

    calls, cache_hits, input_tokens, cost, max_calls, max_tokens = 1, 2, 3, 0.12345678, 5, 6


HOLD = "with budget.hold(10.0) as s: s.settle(reply)"
ADMIT = "with spend.admit(bound, deadline=None, clock=clock, stopping=never) as s: s.settle(reply)"
WHOLE = """
with budget.hold(rates.tokens(1000)) as a, spend.admit(
    lambda: rates.cost(1000, 'label'), deadline=None, clock=clock, stopping=never
) as b:
    a.settle(reply)
    b.settle(reply)
rates.learn(1000, 'label', reply)
"""
SEMAPHORE = "with semaphore: pass"
LOCK = "with lock: pass"
TWO_SEMAPHORES = """
with semaphore:
    pass
with semaphore:
    pass
"""
DICT = (
    "{'calls': p.calls, 'cache_hits': p.cache_hits, 'input_tokens': p.input_tokens,"
    " 'cost_usd': round(p.cost, 6), 'max_calls': p.max_calls, 'max_tokens': p.max_tokens}"
)

# operation, its statement, the peer, its statement, the most that the ratio may be
CALLS = [
    ("hold, settle", HOLD, "BoundedSemaphore block", SEMAPHORE, 0.40),
    ("admit, settle (3 Python callbacks)", ADMIT, "BoundedSemaphore block", SEMAPHORE, 0.60),
    ("rates.cost", "rates.cost(1000, 'label')", "Lock block", LOCK, 0.80),
    ("rates.tokens", "rates.tokens(1000)", "Lock block", LOCK, 0.80),
    ("rates.learn", "rates.learn(1000, 'label', reply)", "Lock block", LOCK, 1.3),
    ("budget.exhausted", "budget.exhausted()", "Lock block", LOCK, 1.0),
    ("budget.summary", "budget.summary()", "same dict in Python", DICT, 1.0),
    ("a whole paid call", WHOLE, "two BoundedSemaphore blocks", TWO_SEMAPHORES, 0.75),
]

FLOORS = {
    "a call of a C function that does nothing": "nothing()",
    "a with block of C methods, and one more": "with settled as s: s.settle(None)",
    "three attributes of a reply, read in Python": "reply.cached; reply.input_tokens; reply.cost",
}


def measured() -> list[Row]:
    rates = decision_bounds.RequestRates()
    rates.learn(1000, "label", Reply())
    settled = decision_bounds.Share()
    settled.settle(None)
    names = {
        "budget": decision_bounds.RunBudget(10**15, 10**15),
        "spend": decision_bounds.DailySpend(1e9, lambda: "2024-05-01", None),
        "rates": rates,
        "reply": Reply(),
        "bound": lambda: 0.01,
        "clock": lambda: 0.0,
        "never": decision_bounds.never,
        "semaphore": threading.BoundedSemaphore(4),
        "lock": threading.Lock(),
        "p": Pass(),
        "nothing": floors.nothing,
        "settled": settled,
    }
    statements = {s: s for _, ours, _, theirs, _ in CALLS for s in (ours, theirs)}
    times = best(statements | FLOORS | from_c(), names | {"floors": floors})
    rows = [
        Row(SECTION, operation, times[ours], peer=peer, theirs=times[theirs], target=target)
        for operation, ours, peer, theirs, target in CALLS
    ]
    return rows + [Row("Floors, Python", floor, times[floor] / times_in(floor)) for floor in
                   [*FLOORS, *from_c()]]


REPEATED = 100


def from_c() -> dict[str, str]:
    return {
        "from C: a Python function": f"floors.repeat({REPEATED}, bound)",
        "from C: acquire and release of a Lock": (
            f"floors.repeat({REPEATED}, lock.acquire, lock.release)"
        ),
    }


def times_in(floor: str) -> int:
    return REPEATED if floor.startswith("from C") else 1
