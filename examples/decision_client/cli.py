"""The commands: `batch`, `tool`, `spend`, `settle-lost` and `endpoint`."""

import argparse
import logging
import os
import sys
import threading
import time
from collections.abc import Callable
from contextlib import ExitStack

from rich.console import Console
from rich.logging import RichHandler

from decision_client.batch import BatchPass, find_files, read_text
from decision_client.database import StorageError
from decision_client.display import (
    PassView,
    day_table,
    dollars,
    lost_table,
    say,
    show_failures,
)
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
from decision_client.request import INSTRUCTIONS, Request
from decision_client.signals import stop_on_signals
from decision_client.transport import EndpointClient

ANSWERED, FAILED, USAGE, REFUSED, TIMED_OUT, UNAVAILABLE, STORAGE = range(7)
STOPPED = 130
CODES = (
    (DecisionBudgetExceeded, REFUSED),
    (DecisionTimeout, TIMED_OUT),
    (DecisionUnavailable, UNAVAILABLE),
)


class WrongArgument(Exception):
    """An argument that turned out wrong when it was used; the message names it."""


def main(arguments: list[str] | None = None) -> int:
    """Run one command and return its exit code."""
    chosen = parse(arguments)
    console = Console()
    warnings = RichHandler(console=console, show_time=False, show_path=False)
    logging.basicConfig(format="%(message)s", handlers=[warnings])
    command = {
        "batch": batch,
        "tool": tool,
        "spend": spend,
        "settle-lost": settle_lost,
        "endpoint": endpoint,
    }[chosen.command]
    scope = ExitStack()
    try:
        with scope:
            code = command(chosen, console, scope)
        return code
    except WrongArgument as error:
        print(f"decision_client: error: argument {error}", file=sys.stderr)
        return USAGE
    except StorageError as error:
        print(f"decision_client: error: {error}", file=sys.stderr)
        return STORAGE
    except KeyboardInterrupt:
        say(console, "Interrupted: what was on its way counts as lost (see settle-lost).")
        return STOPPED


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
    scope.enter_context(stop_on_signals(stop))
    calls = open_calls(chosen, console, scope, pause=stop.wait)
    view = PassView(console, budget, calls.spend, chosen.cap, calls.tally)
    began = time.monotonic()
    with view.bars:
        batch_pass = BatchPass(calls, budget, chosen.feature, stop)
        report = batch_pass.run(files, chosen.workers, view.show)
    console.print(view.table(report, time.monotonic() - began))
    show_failures(console, report)
    if report.storage is not None:
        raise StorageError(report.storage)
    if stop.is_set():
        say(console, "Stopped: the calls in flight have ended, and nothing is held.")
        return STOPPED
    if report.unavailable is not None:
        say(console, f"Unavailable: {report.unavailable}")
        return UNAVAILABLE
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
    interrupted = threading.Event()
    interrupted.set()
    scope.enter_context(stop_on_signals(interrupted))
    calls = open_calls(chosen, console, scope, pause=time.sleep)
    try:
        answer = calls.decide(request, deadline=deadline)
    except DecisionError as error:
        say(console, f"{type(error).__name__}: {error}")
        return next((code for kind, code in CODES if isinstance(error, kind)), FAILED)
    source = "from the cache" if answer.cached else f"{answer.input_tokens:,} input tokens"
    say(console, f"{chosen.path}: {answer.decision} ({source}, {dollars(answer.cost)})")
    return ANSWERED


def spend(chosen: argparse.Namespace, console: Console, scope: ExitStack) -> int:
    """Show what was paid today against the cap."""
    check_ledger(chosen)
    ledger = Ledger(chosen.db, read_only=True)  # a pass that goes on may keep its lock
    scope.callback(ledger.close)
    day = ledger.today()
    settled = ledger.cost_of(day)
    console.print(day_table(day, ledger.attempts_of(day), settled, chosen.cap))
    return ANSWERED


def settle_lost(chosen: argparse.Namespace, console: Console, scope: ExitStack) -> int:
    """Replace assumed costs by the real ones, then list what is still assumed."""
    check_ledger(chosen)
    ledger = open_ledger(chosen, console, scope)
    lost = {attempt.id for attempt in ledger.lost()}
    costs = dict(chosen.costs)
    for id in costs.keys() - lost:
        raise WrongArgument(f"CALL/ATTEMPT=USD: {id} is not a lost attempt")
    if chosen.rest is not None:
        costs |= {id: chosen.rest for id in lost - costs.keys()}
    if costs:
        ledger.settle_lost(costs)
        say(console, f"Settled: {len(costs):,} attempts, now {dollars(sum(costs.values()))}")
    console.print(lost_table(ledger.lost()))
    return ANSWERED


def endpoint(chosen: argparse.Namespace, console: Console, scope: ExitStack) -> int:
    """Serve the stand-in until Ctrl-C or SIGTERM, for clients that name it with --endpoint."""
    stop = threading.Event()
    scope.enter_context(stop_on_signals(stop))
    server = scope.enter_context(Endpoint(faults_of(chosen), port=chosen.port))
    print(server.url, flush=True)
    stop.wait()
    say(console, f"Billed: {dollars(server.billed)} for {len(server.bill):,} calls")
    return ANSWERED


def check_ledger(chosen: argparse.Namespace) -> None:
    """Refuse a wrong path: an empty ledger there would tell of no cost at all."""
    if not chosen.db.is_file():
        raise WrongArgument(f"--db: there is no ledger at {chosen.db}")


def open_ledger(chosen: argparse.Namespace, console: Console, scope: ExitStack) -> Ledger:
    """Open the ledger; it is closed with `scope`."""
    ledger = Ledger(chosen.db)
    scope.callback(ledger.close)
    unfinished = ledger.recover()
    if unfinished:
        assumed = dollars(sum(attempt.assumed_cost for attempt in unfinished))
        say(
            console,
            f"An earlier run died with {len(unfinished):,} attempts on their way. They count as "
            f"lost, at {assumed}: settle-lost lists them.",
        )
    return ledger


def open_calls(
    chosen: argparse.Namespace, console: Console, scope: ExitStack, pause: Callable[[float], object]
) -> PaidCalls:
    """Make all that calls need, with an endpoint unless one is named; all ends with `scope`."""
    ledger = open_ledger(chosen, console, scope)
    rates = {feature: RequestRates() for feature in INSTRUCTIONS}
    # What earlier runs learned holds in this one: the calls of a known feature need not run alone.
    for size, feature, reply in ledger.recent_replies():
        rates[feature].learn(size, feature, reply)
    url = chosen.endpoint or scope.enter_context(Endpoint(faults_of(chosen))).url
    account = DailySpend(chosen.cap, ledger.today, ledger.cost_of)
    api_key = os.environ.get("DECISION_API_KEY")
    client = EndpointClient(url, api_key=api_key, trust_env=chosen.endpoint is not None)
    scope.callback(client.close)
    attempts = Attempts(
        chosen.attempts, timeout_s=chosen.timeout, first_call_at_most=chosen.first_call_at_most
    )
    return PaidCalls(client, ledger, account, rates, attempts, pause)


def faults_of(chosen: argparse.Namespace) -> Faults:
    """The stand-in's switches."""
    return Faults(
        latency_s=chosen.latency,
        failure_rate=chosen.failure_rate,
        lost_rate=chosen.lost_rate,
        refuse_every=chosen.refuse_every,
        refuse_for_s=chosen.refuse_for,
    )
