"""The example client against its own endpoint: what it pays, what it counts, how it ends."""

import math
import sys
import threading
import time
from datetime import datetime, timedelta, timezone
from itertools import chain, repeat

import pytest
from decision_client.attempts import Attempts
from decision_client.batch import BatchPass
from decision_client.cli import main
from decision_client.endpoint import Endpoint, Faults, Outcome
from decision_client.engines import decision_bounds as bounds
from decision_client.ledger import Ledger
from decision_client.paid_calls import PaidCalls
from decision_client.request import DecisionResult, Request
from decision_client.transport import EndpointClient

LATE = datetime(2024, 5, 1, 23, 59, 59, 999999, tzinfo=timezone.utc)
LOST, FAIL, ANSWER = Outcome.LOST_REPLY, Outcome.FAILURE, Outcome.ANSWER


def answers_after(*outcomes):
    return chain(outcomes, repeat(ANSWER)).__next__


class Rig:
    """A client with all its parts; `now` is the date's clock, `seconds` the monotonic one."""

    def __init__(self, path):
        self.path, self.now, self.seconds = path, LATE, 0.0
        self.faults = Faults(latency_s=0.0, refuse_for_s=30.0)
        self.endpoint = Endpoint(self.faults, clock=lambda: self.seconds)
        self.ledger = Ledger(path / "db", now=lambda: self.now)
        self.spend = bounds.DailySpend(5.0, self.ledger.today, self.ledger.cost_of)
        self.rates = {feature: bounds.RequestRates() for feature in ("triage", "audit")}
        client = EndpointClient(self.endpoint.url, clock=lambda: self.seconds)
        parts = (client, self.ledger, self.spend, self.rates)
        self.calls = PaidCalls(*parts, pause=lambda seconds: None, clock=lambda: self.seconds)
        self.stop = threading.Event()
        self.budget = bounds.RunBudget(1000, 10**9, should_stop=self.stop.is_set)

    def decide(self, text="a text", feature="triage", **ends):
        return self.calls.decide(Request(feature, text), **ends)

    def run(self, texts):
        batch_pass = BatchPass(self.calls, self.budget, "triage", self.stop)
        return batch_pass.run(write_files(self.path, texts), workers=8, show=lambda report: None)


@pytest.fixture
def rig(tmp_path):
    rig = Rig(tmp_path)
    with rig.endpoint:
        yield rig
    shares = rig.budget._held_tokens.holders, rig.spend._held.holders
    assert (rig.budget.in_flight, *shares, rig.calls.tally.held) == (0, 0, 0, 0.0)
    rig.calls._client.close()
    rig.ledger.close()


def write_files(folder, texts):
    files = [(folder / f"{number}.txt", text) for number, text in enumerate(texts)]
    return [file for file, text in files if file.write_text(text)]


def test_answers_are_kept_and_counted_on_the_day_they_settle(rig):
    paid, cached = rig.decide(budget=rig.budget), rig.decide(budget=rig.budget)
    other = rig.decide(feature="audit", budget=rig.budget)
    assert (cached.cached, cached.cost, cached.decision) == (True, 0.0, paid.decision)
    assert rig.spend.spent() == pytest.approx(rig.endpoint.billed) == paid.cost + other.cost
    assert (rig.endpoint.requests, rig.budget.calls, rig.budget.cache_hits) == (2, 2, 1)
    rig.faults.draw = lambda: setattr(rig, "now", LATE + timedelta(microseconds=1)) or ANSWER
    late = rig.decide("a text whose reply starts the new day")
    rig.ledger.close()
    reopened = Ledger(rig.path / "db", now=lambda: rig.now)
    assert reopened.cost_of("2024-05-01") == paid.cost + other.cost
    assert reopened.cost_of("2024-05-02") == rig.spend.spent() == late.cost
    assert reopened.find(Request("triage", "a text")).cached
    costs = [reply.cost for _, _, reply in reopened.recent_replies()]
    assert costs[0] == late.cost and set(costs[1:]) == {other.cost, paid.cost}
    reopened.close()


def test_a_lost_reply_is_counted_and_a_failure_is_not(rig):
    rig.faults.draw = answers_after(FAIL, LOST, ANSWER, LOST, ANSWER, *[FAIL] * 4)
    reply = rig.decide(budget=rig.budget)
    counted = Attempts().assumed_cost + reply.cost
    assert rig.spend.spent() == counted and rig.endpoint.billed == reply.cost, "once for its key"
    most = rig.rates["triage"].cost(Request("triage", "another").size, "triage")
    second = rig.decide("another", budget=rig.budget)
    assert rig.spend.spent() == pytest.approx(counted + most + second.cost)
    assert rig.ledger.cost_of(rig.ledger.today()) == pytest.approx(rig.spend.spent())
    assert (rig.budget.calls, rig.calls.tally.retries, rig.calls.tally.lost) == (2, 3, 2)
    with pytest.raises(bounds.DecisionError, match="failed at attempt 4, its last: .* status 500"):
        rig.decide("a third", budget=rig.budget)


def test_a_refusing_endpoint_is_left_alone_until_its_window_ends(rig):
    rig.faults.draw = answers_after(Outcome.REFUSAL)
    for rig.seconds in (0.0, 29.9):
        with pytest.raises(bounds.DecisionUnavailable, match=f"another {30 - rig.seconds:.1f} s"):
            rig.decide()
    assert rig.endpoint.requests == 1
    rig.seconds = 30.0
    assert rig.decide().decision == "keep" and rig.endpoint.requests == 2


def test_a_tools_call_ends_with_its_deadline(rig):
    share = rig.spend.admit(lambda: 9.0, deadline=None, clock=float, stopping=bool)
    with share, pytest.raises(bounds.DecisionTimeout, match="calls in flight held the rest"):
        rig.decide(deadline=0.0)
    assert rig.endpoint.requests == 0


def test_no_call_starts_once_the_pass_is_stopped(rig):
    rig.faults.draw = lambda: rig.stop.set() or ANSWER
    report = rig.run([f"text {number}" for number in range(30)])
    assert (rig.endpoint.requests, report.decisions.total(), report.unasked) == (1, 1, 29)


def test_many_workers_stop_within_one_call_of_the_cap(rig):
    rig.faults.latency_s, rig.spend._cap = 0.005, 0.02
    dearest = DecisionResult("keep", False, 5000, 0.002)
    texts = [f"{number} " + "word " * 3000 for number in range(60)]
    rig.rates["triage"].learn(Request("triage", texts[0]).size, "triage", dearest)
    report = rig.run(texts)
    assert rig.spend._cap <= rig.spend.spent() < rig.spend._cap + dearest.cost
    assert rig.spend.spent() == pytest.approx(rig.endpoint.billed)
    assert report.decisions.total() == rig.budget.calls == 60 - report.unasked
    again = rig.run(texts[::-1])
    assert rig.budget.calls == again.decisions.total() == 60 - report.unasked, "all from the cache"


@pytest.mark.parametrize(("ceiling", "alone"), [(math.inf, 1), (0.01, 0)])
def test_a_pass_of_unknown_cost_runs_at_full_width(rig, ceiling, alone):
    rig.faults.latency_s = latency_s = 0.1
    rig.calls._attempts = Attempts(first_call_at_most=ceiling)
    seconds = []
    for kind in ("fresh", "known"):
        began = time.monotonic()
        rig.run([f"{kind} {number}" for number in range(4 * 8)])
        seconds.append(time.monotonic() - began)
    assert seconds[0] < 1.3 * seconds[1] + (alone + 1) * latency_s
    assert seconds[1] < 2 * 4 * latency_s
    assert (rig.calls.tally.most_held > 7.5 * 0.01) == (not alone), "8 hold the ceiling at once"


def test_a_free_reply_teaches_no_price(rig):
    answer = rig.endpoint.answer
    rig.endpoint.answer = lambda key, question: answer(key, question) | {"cost": 0.0}
    rig.decide()
    assert rig.rates["triage"].cost(1, "triage") == math.inf and not [*rig.ledger.recent_replies()]


COMMANDS = [
    ("batch {0} --max-calls 1 --workers 1", 3, "Refused: decision budget exhausted: {{'calls'"),
    ("batch {0} --cap 0", 3, "is reached: $0.0000 of $0.00 spent today (UTC)\n"),
    ("batch {0} --refuse-every 2 --refuse-for 0.01", 0, "keep 2"),
    ("batch {0} --failure-rate 1 --attempts 1", 1, "failed at attempt 1, its last"),
    ("tool {0}/0.txt --deadline 0.1 --latency 0.2", 4, "DecisionTimeout: the decision call ran"),
    ("tool {0}/0.txt --refuse-every 1", 5, "DecisionUnavailable: the endpoint refuses"),
    ("tool {0}", 2, "argument PATH: "), ("batch {0} --glob /*", 2, "argument --glob: "),
    ("batch {0}/none", 2, "argument PATH: there is no file"),
    ("spend --cap nan", 2, "argument --cap: 'nan' is not"),
]  # fmt: skip


@pytest.mark.parametrize(("arguments", "code", "shown"), COMMANDS)
def test_a_command_ends_with_a_message_and_its_code(tmp_path, capfd, arguments, code, shown):
    write_files(tmp_path, ["one", "two"])
    with pytest.raises(SystemExit) as ended:
        sys.exit(main(arguments.format(tmp_path).split() + ["--db", str(tmp_path / "one.db")]))
    assert ended.value.code == code and shown.format() in "".join(capfd.readouterr())
