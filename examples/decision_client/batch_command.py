"""The command `batch`: a pass, or with `--dry-run` what it would do."""

import argparse
import json
import math
import threading
import time
from collections.abc import Sequence
from contextlib import ExitStack
from pathlib import Path

from decision_client.batch import BatchPass
from decision_client.database import StorageError, lock_of
from decision_client.display import PassView, plan_table, show_failures
from decision_client.engines.decision_bounds import RequestRates, RunBudget
from decision_client.exits import ANSWERED, FAILED, REFUSED, STOPPED, UNAVAILABLE, WrongArgument
from decision_client.files import Found, find_files, read_text
from decision_client.request import INSTRUCTIONS, Request
from decision_client.results import Results
from decision_client.screen import Screen
from decision_client.signals import stop_on_signals
from decision_client.wiring import known_rates, open_calls, read_ledger


def batch(chosen: argparse.Namespace, screen: Screen, scope: ExitStack) -> int:
    """Take one request a file through the bounds, and show the summary however it ends."""
    found = _files_of(chosen)
    for folder, error in found.unreadable:
        screen.say(f"{folder}: {error}")
    if chosen.dry_run:
        return _plan(chosen, found.files, screen, scope)
    stop = threading.Event()
    budget = RunBudget(chosen.max_calls, chosen.max_tokens, should_stop=stop.is_set)
    scope.enter_context(stop_on_signals(stop))
    results = Results(chosen.output)
    scope.callback(results.close)
    calls = open_calls(chosen, screen, scope, pause=stop.wait)
    view = PassView(screen.err, budget, calls.spend, chosen.cap, calls.tally)
    began = time.monotonic()
    with view.bars:
        batch_pass = BatchPass(calls, budget, chosen.feature, stop, results.write)
        report = batch_pass.run(found.files, chosen.workers, view.show)
    screen.err.print(view.table(report, len(found.unreadable), time.monotonic() - began))
    show_failures(screen.err, report)
    if report.unasked:
        screen.say(f"{report.unasked:,} files are left: the same command goes on with them.")
    if report.storage is not None:
        raise StorageError(report.storage)
    if stop.is_set():
        screen.say("Stopped: the calls in flight have ended, and nothing is held.")
        return STOPPED
    if report.unavailable is not None:
        screen.say(f"Unavailable: {report.unavailable}")
        return UNAVAILABLE
    if report.refusal is not None:
        screen.say(f"Refused: {report.refusal}")
        return REFUSED
    return FAILED if report.failed or found.unreadable else ANSWERED


def _files_of(chosen: argparse.Namespace) -> Found:
    """The files that are meant, without those that the client itself writes."""
    own = [Path(f"{chosen.db}{end}") for end in ("", "-wal", "-shm", "-journal")]
    own += [lock_of(chosen.db)] + ([chosen.output] if chosen.output else [])
    try:
        found = find_files(chosen.paths, chosen.glob, own)
    except ValueError as error:
        raise WrongArgument(f"--glob: {error}") from error
    found.files = found.files[: chosen.limit]
    if not found.files and not found.unreadable:
        raise WrongArgument(f"PATH: no file there matches --glob {chosen.glob!r}")
    return found


def _plan(
    chosen: argparse.Namespace, files: Sequence[Path], screen: Screen, scope: ExitStack
) -> int:
    """Say what a pass would ask and what it may cost at most, by what was learned."""
    ledger = read_ledger(chosen, scope) if chosen.db.exists() else None
    rates = known_rates(ledger) if ledger else {name: RequestRates() for name in INSTRUCTIONS}
    asked, cached, size, most, unread = set[str](), 0, 0, 0.0, 0
    for file in files:
        try:
            request = Request(chosen.feature, read_text(file))
        except OSError as error:
            screen.say(f"{file}: {error}")
            unread += 1
            continue
        known = request.key in asked or bool(
            chosen.resume and ledger is not None and ledger.find(request)
        )
        cost = 0.0 if known else rates[chosen.feature].cost(request.size, chosen.feature)
        if math.isinf(cost):
            cost = chosen.first_call_at_most
        row = {"path": str(file), "digest": request.key, "size": request.size, "cached": known}
        screen.write_line(json.dumps(row | {"most_cost": None if math.isinf(cost) else cost}))
        asked.add(request.key)
        cached, size, most = cached + known, size + (not known) * request.size, most + cost
    screen.err.print(plan_table(len(files), unread, cached, size, most))
    return FAILED if unread else ANSWERED
