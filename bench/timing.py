"""Times statements side by side."""

import statistics
import timeit
from collections.abc import Callable, Mapping, Sequence

ROUNDS = 150
ROUND_S = 0.003  # short, so that many rounds go by without an interruption


def best(statements: Mapping[str, str], names: Mapping[str, object]) -> dict[str, float]:
    """The seconds that each statement takes: the best of rounds in which all take turns."""
    timers = {key: timeit.Timer(statement, globals=dict(names)) for key, statement in
              statements.items()}
    counts = {key: max(1, int(ROUND_S / (timer.timeit(1000) / 1000))) for key, timer in
              timers.items()}
    fastest = dict.fromkeys(timers, float("inf"))
    for _ in range(ROUNDS):
        for key, timer in timers.items():
            fastest[key] = min(fastest[key], timer.timeit(counts[key]) / counts[key])
    return fastest


def pooled(
    kinds: Sequence[Callable[[], Sequence[list[float]]]], visits: int
) -> list[list[list[float]]]:
    """Lets the kinds take turns, and puts together what their visits sampled."""
    results = [[kind() for kind in kinds] for _ in range(visits)]
    return [[sum(samples, []) for samples in zip(*visited)] for visited in zip(*results)]


def trimmed_mean(samples: Sequence[float]) -> float:
    """The mean without the tenth at each end: where a sleeping processor makes two clusters of the
    samples, it does not jump from one to the other as the median does."""
    cut = len(samples) // 10
    return statistics.fmean(sorted(samples)[cut : len(samples) - cut])
