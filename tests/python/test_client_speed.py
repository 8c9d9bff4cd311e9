"""Calls run side by side from the first one on: in the README's recipe and in the client."""

import math
import os
import re
import subprocess
import sys
import time

import pytest
from conftest import FOLDER, REPOSITORY
from decision_client.attempts import Attempts
from test_client import rig  # noqa: F401 (a fixture)

LATENCY_S = 0.1


def test_the_recipe_runs_one_call_alone_then_all_its_threads():
    readme = (REPOSITORY / "README.md").read_text()
    recipe = re.search(r"```python\n(.*?)```", readme, re.S)[1]
    timed = f"import time\nbegan = time.monotonic()\n{recipe}\nprint(time.monotonic() - began)"
    command, environment = [sys.executable, "-c", timed], os.environ | {"PYTHONPATH": str(FOLDER)}
    ended = subprocess.run(command, env=environment, check=True, capture_output=True, text=True)
    latencies = float(ended.stdout.split()[-1]) / LATENCY_S
    assert 1 + 64 / 16 <= latencies < 2 * (1 + 64 / 16), "64 where they take turns"


@pytest.mark.parametrize(("ceiling", "alone"), [(math.inf, 1), (0.01, 0)])
def test_a_pass_of_unknown_cost_runs_at_full_width(rig, ceiling, alone):
    rig.faults.latency_s, workers = LATENCY_S, 8
    rig.calls._attempts = Attempts(first_call_at_most=ceiling)
    seconds = []
    for kind in ("fresh", "known"):
        began = time.monotonic()
        rig.run([f"{kind} {number}" for number in range(4 * workers)])
        seconds.append(time.monotonic() - began)
    assert seconds[0] < 1.3 * seconds[1] + (alone + 1) * LATENCY_S
    assert seconds[1] < 2 * 4 * LATENCY_S and rig.all_is_given_back()


def test_a_free_reply_teaches_no_price(rig):
    answer = rig.endpoint.answer
    rig.endpoint.answer = lambda key, question: answer(key, question) | {"cost": 0.0}
    rig.decide()
    assert rig.rates["triage"].cost(1, "triage") == math.inf and not [*rig.ledger.recent_replies()]
