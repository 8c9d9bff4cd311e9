"""A batch pass: one request a file, on several threads, against one run budget."""

import threading
from collections import Counter
from collections.abc import Callable, Iterator, Sequence
from concurrent.futures import FIRST_EXCEPTION, ThreadPoolExecutor, wait
from dataclasses import dataclass, field, replace
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
from decision_client.files import read_text
from decision_client.ledger import AttemptId
from decision_client.paid_calls import PaidCalls
from decision_client.request import DecisionResult, Request
from decision_client.results import Result

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
    windows: int = 0
    """Times that a worker waited for a refusal window of the endpoint to end."""
    refusal: str | None = None
    """The first refusal's message, as the bound raised it."""
    unavailable: str | None = None
    """What the endpoint said when no further call made sense."""
    storage: str | None = None
    """What is wrong with the ledger or the results; it ends the pass."""


class BatchPass:
    """Takes files through `PaidCalls` until all are done, the pass is refused, or it is stopped.

    After the first refusal by a bound, or once the endpoint takes no more requests, no more paid
    calls are tried; answers from the cache are still used.
    """

    def __init__(
        self,
        calls: PaidCalls,
        budget: RunBudget,
        feature: str,
        stop: threading.Event,
        write: Callable[[Result], None] = lambda result: None,
    ) -> None:
        """`stop` is the stop signal that `budget` asks, too; `write` takes each file's result."""
        self._calls = calls
        self._budget = budget
        self._feature = feature
        self._stop = stop
        self._write = write
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
            result, error = self._decide(file)
            with self._lock:
                self._count(file, result, error)
                try:
                    self._write(result)
                except StorageError as failure:
                    self._end(str(failure))

    def _count(self, file: Path, result: Result, error: Exception | None) -> None:
        report = self._report
        report.done += 1
        if result.decision is not None:
            report.decisions[result.decision] += 1
            return
        match error:
            case DecisionBudgetExceeded():
                report.unasked += 1
                report.refused += 1
                report.refusal = report.refusal or str(error)
            case DecisionUnavailable():
                report.unasked += 1
                report.unavailable = report.unavailable or str(error)
            case StorageError():
                report.unasked += 1
                self._end(str(error))
            case DecisionStopped() | None:
                report.unasked += 1
            case _:
                report.failed.append((file, str(error)))

    def _end(self, storage: str) -> None:
        """End the pass: what it finds out can be kept no longer."""
        self._report.storage = self._report.storage or storage
        self._stop.set()

    def _decide(self, file: Path) -> tuple[Result, Exception | None]:
        """What became of one file, and the error that it ended with, if any."""
        result, sent = Result(str(file)), list[AttemptId]()
        unasked = replace(result, error="left unasked")
        if self._stop.is_set():
            return unasked, None
        try:
            request = Request(self._feature, read_text(file))
            result = replace(result, digest=request.key)
            answer = self._answer(request, sent)
        except (DecisionError, OSError, StorageError) as error:
            call = sent[-1].call if sent else None
            return replace(result, error=str(error), attempts=len(sent), call=call), error
        if answer is None:
            return replace(unasked, digest=request.key), None
        return Result(
            str(file),
            request.key,
            answer.decision,
            answer.input_tokens,
            answer.cost,
            answer.cached,
            attempts=len(sent),
            call=sent[-1].call if sent else None,
        ), None

    def _answer(self, request: Request, sent: list[AttemptId]) -> DecisionResult | None:
        """The answer to a request; none when the pass makes no more paid calls."""
        if self._report.refusal is not None or self._report.unavailable is not None:
            return self._calls.cached(request, self._budget)
        for _ in range(MOST_WINDOWS):
            try:
                return self._calls.decide(request, budget=self._budget, sent=sent)
            except NoMoreCalls:
                raise
            except DecisionUnavailable:
                with self._lock:
                    self._report.windows += 1
                self._stop.wait(self._calls.refused_for())
        return self._calls.decide(request, budget=self._budget, sent=sent)
