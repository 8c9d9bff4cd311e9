"""Section 3: what must stay flat in Python."""

import random
import threading
import time

import decision_bounds
from calls import Reply
from table import Row
from timing import best

LOOKUPS = 500


def features() -> list[Row]:
    section = "3. Python, cost by features"
    rows = []
    for count in (1, 10, 100, 1000, 10_000, 100_000):
        names = [f"feature-{i}" for i in range(count)]
        rates = decision_bounds.RequestRates()
        for name in names:
            rates.learn(1000, name, Reply())
        shared = {
            "picks": random.Random(1).choices(names, k=LOOKUPS),
            "rates": rates,
            "lock": threading.Lock(),
            "known": set(names),
        }
        times = best(
            {
                "ours": "for name in picks: rates.cost(1000, name)",
                "theirs": "for name in picks:\n    with lock: name in known",
            },
            shared,
        )
        rows.append(Row(section, "cost", times["ours"] / LOOKUPS, "s",
                        "set look-up under a Lock", times["theirs"] / LOOKUPS, 1.1, count))
    return rows


def ten_millionth() -> Row:
    old, fresh = (decision_bounds.RunBudget(10**15, 10**15) for _ in range(2))
    reply = Reply()

    def calls(budget: decision_bounds.RunBudget, count: int) -> float:
        begin = time.perf_counter()
        for _ in range(count):
            with budget.hold(10.0) as share:
                share.settle(reply)
        return (time.perf_counter() - begin) / count

    calls(old, 10_000_000)
    turns = [(calls(old, 1000), calls(fresh, 1000)) for _ in range(50)]
    last, first = map(min, zip(*turns))
    return Row("3. Python, the 10-millionth call", "hold, settle", last, "s", "the first calls",
               first, 1.1)


def measured() -> list[Row]:
    return [*features(), ten_millionth()]
