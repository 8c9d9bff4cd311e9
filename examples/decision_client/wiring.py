"""Puts the parts together as the arguments say; all that is opened ends with a scope."""

import argparse
import os
from collections.abc import Callable
from contextlib import ExitStack

from decision_client.attempts import Attempts
from decision_client.display import dollars
from decision_client.endpoint import Endpoint, Faults
from decision_client.engines.decision_bounds import DailySpend, RequestRates
from decision_client.exits import WrongArgument
from decision_client.ledger import Ledger
from decision_client.paid_calls import PaidCalls
from decision_client.request import INSTRUCTIONS
from decision_client.screen import Screen
from decision_client.transport import EndpointClient


def read_ledger(chosen: argparse.Namespace, scope: ExitStack) -> Ledger:
    """Open a ledger that is there, to read it only: a pass that goes on may use it."""
    check_ledger(chosen)
    ledger = Ledger(chosen.db, read_only=True)
    scope.callback(ledger.close)
    return ledger


def check_ledger(chosen: argparse.Namespace) -> None:
    """Refuse a wrong path: an empty ledger there would tell of no cost at all."""
    if not chosen.db.is_file():
        raise WrongArgument(f"--db: there is no ledger at {chosen.db}")


def open_ledger(chosen: argparse.Namespace, screen: Screen, scope: ExitStack) -> Ledger:
    """Open the ledger, or make it, and say what an earlier run left on its way."""
    ledger = Ledger(chosen.db)
    scope.callback(ledger.close)
    unfinished = ledger.recover()
    if unfinished:
        assumed = dollars(sum(attempt.assumed_cost for attempt in unfinished))
        screen.say(
            f"An earlier run died with {len(unfinished):,} attempts on their way. They count as "
            f"lost, at {assumed}: settle-lost lists them."
        )
    return ledger


def known_rates(ledger: Ledger) -> dict[str, RequestRates]:
    """What earlier runs learned, by feature: its calls need not run alone again."""
    rates = {feature: RequestRates() for feature in INSTRUCTIONS}
    for size, feature, reply in ledger.recent_replies():
        if feature in rates:
            rates[feature].learn(size, feature, reply)
    return rates


def open_calls(
    chosen: argparse.Namespace, screen: Screen, scope: ExitStack, pause: Callable[[float], object]
) -> PaidCalls:
    """Make all that calls need, with an endpoint unless one is named."""
    ledger = open_ledger(chosen, screen, scope)
    url = chosen.endpoint or scope.enter_context(Endpoint(faults_of(chosen))).url
    account = DailySpend(chosen.cap, ledger.today, ledger.cost_of)
    api_key = os.environ.get("DECISION_API_KEY")
    client = EndpointClient(url, api_key=api_key, trust_env=chosen.endpoint is not None)
    scope.callback(client.close)
    attempts = Attempts(
        chosen.attempts, timeout_s=chosen.timeout, first_call_at_most=chosen.first_call_at_most
    )
    rates = known_rates(ledger)
    return PaidCalls(client, ledger, account, rates, attempts, resume=chosen.resume, pause=pause)


def faults_of(chosen: argparse.Namespace) -> Faults:
    """The stand-in's switches."""
    return Faults(
        latency_s=chosen.latency,
        failure_rate=chosen.failure_rate,
        lost_rate=chosen.lost_rate,
        refuse_every=chosen.refuse_every,
        refuse_for_s=chosen.refuse_for,
    )
