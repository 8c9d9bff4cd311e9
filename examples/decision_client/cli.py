"""The commands: `batch`, `tool` and `spend`."""

import argparse
import logging
import signal
import sqlite3
import sys
import threading
import time
from collections.abc import Callable, Iterator
from contextlib import ExitStack, contextmanager
from types import FrameType

from rich.console import Console
from rich.logging import RichHandler

from decision_client.batch import BatchPass, find_files, read_text
from decision_client.display import PassView, day_table, dollars, say, show_failures
from decision_client.endpoint import Endpoint, Faults
from decision_client.engines.decision_bounds import (
    DailySpend,
    DecisionBudgetExceeded,
    DecisionError,
    DecisionTimeout,
    DecisionUnavailable,
    RequestRates,
    RunBudget,
)
from decision_client.ledger import Ledger
from decision_client.options import parse
from decision_client.paid_calls import Attempts, PaidCalls
from decision_client.request import Request
from decision_client.transport import EndpointClient

ANSWERED, FAILED, USAGE, REFUSED, TIMED_OUT, UNAVAILABLE, STOPPED = 0, 1, 2, 3, 4, 5, 130


class WrongArgument(Exception):
    """An argument that turned out wrong when it was used; the message names it."""


def main(arguments: list[str] | None = None) -> int:
    """Run one command and return its exit code."""
    chosen = parse(arguments)
    console = Console()
    warnings = RichHandler(console=console, show_time=False, show_path=False)
    logging.basicConfig(format="%(message)s", handlers=[warnings])
    command = {"batch": batch, "tool": tool, "spend": spend}[chosen.command]
    try:
        with ExitStack() as scope:
            return command(chosen, console, scope)
    except WrongArgument as error:
        print(f"decision_client: error: argument {error}", file=sys.stderr)
    except sqlite3.Error as error:
        print(f"decision_client: error: argument --db: {chosen.db}: {error}", file=sys.stderr)
    except KeyboardInterrupt:
        say(console, "Stopped.")
        return STOPPED
    return USAGE


def batch(chosen: argparse.Namespace, console: Console, scope: ExitStack) -> int:
    """Take one request a file through the bounds, and show the summary however it ends."""
    try:
        files = find_files(chosen.paths, chosen.glob)[: chosen.limit]
    except (ValueError, NotImplementedError) as error:
        raise WrongArgument(f"--glob: {error}") from error
    if not files:
        raise WrongArgument(f"PATH: no file there matches --glob {chosen.glob!r}")
    stop = threading.Event()
    budget = RunBudget(chosen.max_calls, chosen.max_tokens, should_stop=stop.is_set)
    endpoint, calls = open_calls(chosen, scope, pause=stop.wait)
    view = PassView(console, budget, calls.spend, chosen.cap, calls.tally)
    began = time.monotonic()
    with interrupt_sets(stop), view.bars:
        batch_pass = BatchPass(calls, budget, chosen.feature, stop)
        report = batch_pass.run(files, chosen.workers, view.show)
    console.print(view.table(report, endpoint.billed, time.monotonic() - began))
    show_failures(console, report)
    if stop.is_set():
        say(console, "Stopped: the calls in flight have ended, and nothing is held.")
        return STOPPED
    if report.refusal is not None:
        say(console, f"Refused: {report.refusal}")
        return REFUSED
    return FAILED if report.failed else ANSWERED


def tool(chosen: argparse.Namespace, console: Console, scope: ExitStack) -> int:
    """Make one tool's call: no run budget, but a deadline."""
    deadline = time.monotonic() + chosen.deadline
    try:
        request = Request(chosen.feature, read_text(chosen.path))
    except OSError as error:
        raise WrongArgument(f"PATH: {error}") from error
    _, calls = open_calls(chosen, scope, pause=time.sleep)
    try:
        answer = calls.decide(request, deadline=deadline)
    except DecisionError as error:
        say(console, f"{type(error).__name__}: {error}")
        codes: dict[type[DecisionError], int] = {
            DecisionBudgetExceeded: REFUSED,
            DecisionTimeout: TIMED_OUT,
            DecisionUnavailable: UNAVAILABLE,
        }
        return codes.get(type(error), FAILED)
    source = "from the cache" if answer.cached else f"{answer.input_tokens:,} input tokens"
    say(console, f"{chosen.path}: {answer.decision} ({source}, {dollars(answer.cost)})")
    return ANSWERED


def spend(chosen: argparse.Namespace, console: Console, scope: ExitStack) -> int:
    """Show what was paid today against the cap."""
    ledger = open_ledger(chosen, scope)
    day = ledger.today()
    settled = ledger.cost_of(day)
    console.print(day_table(day, ledger.payments_of(day), settled, chosen.cap))
    return ANSWERED


def open_ledger(chosen: argparse.Namespace, scope: ExitStack) -> Ledger:
    """Open the ledger; it is closed with `scope`."""
    ledger = Ledger(chosen.db)
    scope.callback(ledger.close)
    return ledger


def open_calls(
    chosen: argparse.Namespace, scope: ExitStack, pause: Callable[[float], object]
) -> tuple[Endpoint, PaidCalls]:
    """Start an endpoint and make all that calls need; both end with `scope`."""
    ledger = open_ledger(chosen, scope)
    rates = RequestRates()
    # What earlier runs learned holds in this one: the calls of a known feature need not run alone.
    for size, feature, reply in ledger.recent_replies():
        rates.learn(size, feature, reply)
    faults = Faults(
        latency_s=chosen.latency,
        failure_rate=chosen.failure_rate,
        lost_rate=chosen.lost_rate,
        refuse_every=chosen.refuse_every,
        refuse_for_s=chosen.refuse_for,
    )
    endpoint = scope.enter_context(Endpoint(faults))
    client = EndpointClient(endpoint.server_port)
    account = DailySpend(chosen.cap, ledger.today, ledger.cost_of)
    return endpoint, PaidCalls(client, ledger, account, rates, Attempts(chosen.attempts), pause)


@contextmanager
def interrupt_sets(stop: threading.Event) -> Iterator[None]:
    """Have the first Ctrl-C set `stop`, so that a pass ends in order; a second one interrupts."""

    def on_interrupt(_signal: int, _frame: FrameType | None) -> None:
        signal.signal(signal.SIGINT, before)
        stop.set()

    before = signal.signal(signal.SIGINT, on_interrupt)
    try:
        yield
    finally:
        signal.signal(signal.SIGINT, before)
