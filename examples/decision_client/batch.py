"""A batch pass: one request a file, on several threads, against one run budget."""

import threading
from collections import Counter
from collections.abc import Callable, Iterable, Iterator, Sequence
from concurrent.futures import FIRST_EXCEPTION, ThreadPoolExecutor, wait
from dataclasses import dataclass, field
from pathlib import Path

from decision_client.database import StorageError
from decision_client.ends import NoMoreCalls
from decision_client.engines.decision_bounds import (
    DecisionBudgetExceeded,
    DecisionError,
    DecisionStopped,
    DecisionUnavailable,
    RunBudget,
)
from decision_client.paid_calls import PaidCalls
from decision_client.request import Request

REFRESH_S = 0.1
MOST_WINDOWS = 5
"""Refusal windows of the endpoint that one request waits out before the pass gives up."""


@dataclass
class PassReport:
    """What became of the files of a pass."""

    files: int
    done: int = 0
    """Files that need no more work, whatever became of them."""
    decisions: Counter[str] = field(default_factory=Counter)
    failed: list[tuple[Path, str]] = field(default_factory=list)
    unasked: int = 0
    """Files left out because the pass was refused or stopped before their turn."""
    refused: int = 0
    """Calls that a bound refused."""
    unavailable: str | None = None
    """What the endpoint said when no further call made sense."""
    storage: str | None = None
    """What is wrong with the ledger or the output; it ends the pass."""
    refusal: str | None = None
    """The first refusal's message, as the bound raised it."""
    windows: int = 0
    """Times that a worker waited for a refusal window of the endpoint to end."""


def find_files(paths: Iterable[Path], pattern: str) -> list[Path]:
    """The files named, and those under the directories named whose name matches, in order."""
    found: list[Path] = []
    for path in paths:
        if path.is_dir():
            found += sorted(file for file in path.rglob(pattern) if file.is_file())
        else:
            found.append(path)
    return found


def read_text(path: Path) -> str:
    """The text of a file, in whatever encoding it is; raises `OSError`."""
    return path.read_bytes().decode(errors="replace")


class BatchPass:
    """Takes files through `PaidCalls` until all are done, the pass is refused, or it is stopped.

    After the first refusal by a bound, or once the endpoint takes no more requests, no more paid
    calls are tried; answers from the cache are still used.
    """

    def __init__(
        self, calls: PaidCalls, budget: RunBudget, feature: str, stop: threading.Event
    ) -> None:
        """`stop` is the stop signal that `budget` asks, too."""
        self._calls = calls
        self._budget = budget
        self._feature = feature
        self._stop = stop
        self._lock = threading.Lock()
        self._report = PassReport(files=0)

    def run(
        self, files: Sequence[Path], workers: int, show: Callable[[PassReport], None]
    ) -> PassReport:
        """Work through `files` on `workers` threads; `show` is called ten times a second."""
        self._report, left = PassReport(files=len(files)), iter(files)
        with ThreadPoolExecutor(workers) as pool:
            try:
                pending = {pool.submit(self._work_off, left) for _ in range(workers)}
                while pending:
                    done, pending = wait(pending, REFRESH_S, FIRST_EXCEPTION)
                    for future in done:
                        future.result()
                    show(self._report)
            except BaseException:
                self._stop.set()
                self._calls.abort()
                raise
        return self._report

    def _work_off(self, left: Iterator[Path]) -> None:
        """Answer one file after the other, and count what becomes of each."""
        while True:
            with self._lock:
                file = next(left, None)
            if file is None:
                return
            outcome: str | Exception | None
            try:
                outcome = self._decide(file)
            except (DecisionError, OSError, StorageError) as error:
                outcome = error
            with self._lock:
                self._count(file, outcome)

    def _count(self, file: Path, outcome: str | Exception | None) -> None:
        report = self._report
        report.done += 1
        match outcome:
            case str():
                report.decisions[outcome] += 1
            case DecisionBudgetExceeded():
                report.unasked += 1
                report.refused += 1
                report.refusal = report.refusal or str(outcome)
            case DecisionStopped() | None:
                report.unasked += 1
            case DecisionUnavailable():
                report.unasked += 1
                report.unavailable = report.unavailable or str(outcome)
            case StorageError():
                report.unasked += 1
                report.storage = report.storage or str(outcome)
                self._stop.set()
            case _:
                report.failed.append((file, str(outcome)))

    def _decide(self, file: Path) -> str | None:
        """The decision about one file, or none when the pass makes no more paid calls."""
        if self._stop.is_set():
            return None
        request = Request(self._feature, read_text(file))
        if self._report.refusal is not None or self._report.unavailable is not None:
            answer = self._calls.cached(request, self._budget)
            return None if answer is None else answer.decision
        for _ in range(MOST_WINDOWS):
            try:
                return self._calls.decide(request, budget=self._budget).decision
            except NoMoreCalls:
                raise
            except DecisionUnavailable:
                with self._lock:
                    self._report.windows += 1
                self._stop.wait(self._calls.refused_for())
        return self._calls.decide(request, budget=self._budget).decision
