"""The commands: `batch`, `tool`, `spend`, `settle-lost` and `endpoint`."""

import argparse
import json
import threading
import time
from contextlib import ExitStack
from dataclasses import asdict

from decision_client.batch_command import batch
from decision_client.database import StorageError
from decision_client.display import day_table, dollars, lost_table
from decision_client.endpoint import Endpoint
from decision_client.engines.decision_bounds import (
    DecisionBudgetExceeded,
    DecisionError,
    DecisionTimeout,
    DecisionUnavailable,
)
from decision_client.exits import (
    ANSWERED,
    FAILED,
    REFUSED,
    STOPPED,
    STORAGE,
    TIMED_OUT,
    UNAVAILABLE,
    USAGE,
    WrongArgument,
)
from decision_client.files import read_text
from decision_client.ledger import AttemptId
from decision_client.options import parse
from decision_client.request import Request
from decision_client.results import Result
from decision_client.screen import Screen
from decision_client.signals import stop_on_signals
from decision_client.wiring import check_ledger, faults_of, open_calls, open_ledger, read_ledger

CODES = (
    (DecisionBudgetExceeded, REFUSED),
    (DecisionTimeout, TIMED_OUT),
    (DecisionUnavailable, UNAVAILABLE),
)


def main(arguments: list[str] | None = None) -> int:
    """Run one command and return its exit code."""
    chosen = parse(arguments)
    screen, scope = Screen(), ExitStack()
    commands = {
        "batch": batch,
        "tool": tool,
        "spend": spend,
        "settle-lost": settle_lost,
        "endpoint": endpoint,
    }
    try:
        with scope:
            code = commands[chosen.command](chosen, screen, scope)
        return code
    except WrongArgument as error:
        screen.say(f"decision_client: error: argument {error}")
        return USAGE
    except StorageError as error:
        screen.say(f"decision_client: error: {error}")
        return STORAGE
    except KeyboardInterrupt:
        screen.say("Interrupted: what was on its way counts as lost (see settle-lost).")
        return STOPPED


def tool(chosen: argparse.Namespace, screen: Screen, scope: ExitStack) -> int:
    """Make one tool's call: no run budget, but a deadline."""
    deadline = time.monotonic() + chosen.deadline
    try:
        request = Request(chosen.feature, read_text(chosen.path))
    except OSError as error:
        raise WrongArgument(f"PATH: {error}") from error
    at_once = threading.Event()
    at_once.set()
    scope.enter_context(stop_on_signals(at_once))
    calls, sent = open_calls(chosen, screen, scope, pause=time.sleep), list[AttemptId]()
    try:
        answer = calls.decide(request, deadline=deadline, sent=sent)
    except DecisionError as error:
        screen.say(f"{type(error).__name__}: {error}")
        return next((code for kind, code in CODES if isinstance(error, kind)), FAILED)
    call = sent[-1].call if sent else None
    said = Result(
        str(chosen.path), request.key, **asdict(answer), attempts=len(sent), call=call
    )
    screen.write_line(json.dumps(asdict(said)))
    return ANSWERED


def spend(chosen: argparse.Namespace, screen: Screen, scope: ExitStack) -> int:
    """Show what was paid today against the cap."""
    ledger = read_ledger(chosen, scope)
    day = ledger.today()
    settled = ledger.cost_of(day)
    screen.out.print(day_table(day, ledger.attempts_of(day), settled, chosen.cap))
    return ANSWERED


def settle_lost(chosen: argparse.Namespace, screen: Screen, scope: ExitStack) -> int:
    """Replace assumed costs by the real ones, then list what is still assumed."""
    check_ledger(chosen)
    ledger = open_ledger(chosen, screen, scope)
    lost = {attempt.id for attempt in ledger.lost()}
    costs = dict(chosen.costs)
    for id in costs.keys() - lost:
        raise WrongArgument(f"CALL/ATTEMPT=USD: {id} is not a lost attempt")
    if chosen.rest is not None:
        costs |= {id: chosen.rest for id in lost - costs.keys()}
    if costs:
        ledger.settle_lost(costs)
        screen.say(f"Settled: {len(costs):,} attempts, now {dollars(sum(costs.values()))}")
    screen.out.print(lost_table(ledger.lost()))
    return ANSWERED


def endpoint(chosen: argparse.Namespace, screen: Screen, scope: ExitStack) -> int:
    """Serve the stand-in until Ctrl-C or SIGTERM, for clients that name it with --endpoint."""
    stop = threading.Event()
    scope.enter_context(stop_on_signals(stop))
    server = scope.enter_context(Endpoint(faults_of(chosen), port=chosen.port))
    screen.write_line(server.url)
    stop.wait()
    screen.say(f"Billed: {dollars(server.billed)} for {len(server.bill):,} calls")
    return ANSWERED
