"""The example client's ledger: nothing that may be billed is lost, however a pass ends."""

import os
import signal
import sqlite3
import subprocess
import sys
import threading
import time
from contextlib import closing
from datetime import timedelta
from functools import partial

import pytest
from conftest import FOLDER, REPOSITORY
from decision_client.cli import main
from decision_client.database import StorageError
from decision_client.endpoint import Faults, Outcome
from decision_client.ledger import AttemptId, Ledger
from decision_client.request import Request
from test_client import ANSWER, LATE, LOST, answers_after, rig, write_files  # noqa: F401 (rig)

FEATURE = Request("triage", "a text")


def test_a_pass_that_is_killed_pays_for_no_answered_file_again():
    arguments = ["--files", "240", "--workers", "8", "--kills", "2", "--latency", "0.02"]
    script = [sys.executable, REPOSITORY / "script/kills.py", "--module", FOLDER.resolve()]
    ended = subprocess.run([*script, *arguments], capture_output=True, text=True)
    assert ended.returncode == 0 and "240 replies and" in ended.stdout, ended.stderr


def test_what_died_on_its_way_is_lost_until_it_is_settled(tmp_path, capfd):
    path, ids = tmp_path / "db", [AttemptId("one", 1), AttemptId("one", 2), AttemptId("two", 1)]
    with closing(Ledger(path, now=lambda: LATE)) as ledger:
        for id in ids:
            ledger.record_sending(id, FEATURE, 0.25)
        ledger.record_unbilled(ids[2])
        assert ledger.cost_of("2024-05-01") == 0.0, "the account holds what is on its way"
    with closing(Ledger(path)) as ledger:
        assert [attempt.id for attempt in ledger.recover()] == ids[:2] and not ledger.recover()
        with ledger._database._writing:  # a look-up does not wait for a commit
            assert ledger.find(FEATURE) is None
        assert ledger.cost_of("2024-05-01") == 0.5
    command = f"settle-lost one/1=0.0625 --rest 0 --db {path}".split()
    assert main(["settle-lost", "two/1=1", "--db", str(path)]) == 2
    assert main(command) == 0 and "Settled: 2 attempts, now $0.0625" in capfd.readouterr().err
    with closing(Ledger(path)) as ledger:
        assert ledger.cost_of("2024-05-01") == 0.0625 and not ledger.lost()


@pytest.mark.parametrize("outcome", [ANSWER, LOST])
def test_what_settles_before_midnight_and_is_recorded_after_counts_on_one_day(rig, outcome):
    end = rig.ledger._end
    rig.ledger._end = lambda *ended: setattr(rig, "now", LATE + timedelta(seconds=9)) or end(*ended)
    rig.faults.draw = answers_after(outcome)
    rig.decide()
    days = {day: rig.ledger.cost_of(day) for day in ("2024-05-01", "2024-05-02")}
    last = rig.rates["triage"].cost(1, "triage") if outcome is LOST else 0.0
    assert days["2024-05-02"] == rig.spend.spent() == last and days["2024-05-01"] > last


@pytest.mark.parametrize(("fault", "named"), [("disk", "disk is full"), ("lock", "locked")])
def test_without_a_ledger_no_call_is_made(rig, fault, named):
    rig.decide()
    writer = rig.ledger._database._writer
    other = sqlite3.connect(rig.path / "db", isolation_level=None)
    if fault == "disk":
        (pages,) = writer.execute("PRAGMA page_count").fetchone()
        writer.execute(f"PRAGMA max_page_count = {pages}")
    else:
        writer.execute("PRAGMA busy_timeout = 50")
        other.execute("BEGIN IMMEDIATE")
    first = rig.run([f"a text {number}" for number in range(200)])
    asked = rig.endpoint.requests
    rig.stop.clear()
    again = rig.run([f"a text {number}" for number in range(200)])
    assert named in first.storage and named in again.storage
    # On a full disk an attempt may find the last free bytes, and its reply may not.
    assert asked < 100 and rig.endpoint.requests - asked <= (8 if fault == "disk" else 0)
    other.close()
    rig.ledger.close()
    with closing(Ledger(rig.path / "db", now=lambda: LATE)) as ledger:
        ledger.recover()
        assert ledger.cost_of(ledger.today()) >= rig.endpoint.billed * (1 - 1e-9)


def test_a_database_has_one_process(tmp_path, capfd):
    write_files(tmp_path, ["one"])
    with closing(Ledger(tmp_path / "db")):
        assert main(["batch", f"{tmp_path}/0.txt", "--db", f"{tmp_path}/db"]) == 6
        assert f"in use by another process (its id: {os.getpid()})" in capfd.readouterr().err
        assert main(["spend", "--db", f"{tmp_path}/db"]) == 0
    assert main(["spend", "--db", f"{tmp_path}/none"]) == 2
    with closing(sqlite3.connect(tmp_path / "other")) as other:
        other.execute("CREATE TABLE another_programs (x)")
    with pytest.raises(StorageError, match="not made by this version"):
        Ledger(tmp_path / "other")


IN_ORDER = ["keep 1", "0, 19", "1 of 10,000", "Stopped: the calls in flight have ended, and nothing"]


@pytest.mark.parametrize("name", ["SIGINT", "SIGTERM", "SIGHUP", "SIGTERM again"])
def test_a_signal_stops_the_pass_in_order_and_a_second_its_calls(
    tmp_path, capfd, monkeypatch, name
):
    number, is_sent_again = signal.Signals[name.split()[0]], name.endswith("again")
    interrupt = partial(os.kill, os.getpid(), number)
    again = threading.Timer(0.3, interrupt if is_sent_again else bool)
    monkeypatch.setattr(Faults, "draw", lambda faults: interrupt() or again.start() or ANSWER)
    write_files(tmp_path, map(str, range(20)))
    arguments = f"batch {tmp_path} --glob *.txt --latency {3 if is_sent_again else 0.2}"
    began = time.monotonic()
    assert main(f"{arguments} --db {tmp_path}/db".split()) == 130
    assert time.monotonic() - began < 2
    shown = "".join(capfd.readouterr())
    assert f"{number.name}: stopping once the calls in flight have ended" in shown
    ends = ["the attempt was interrupted", "counts as lost"] if is_sent_again else IN_ORDER
    assert [text for text in ends if text not in shown] == []
    with closing(Ledger(tmp_path / "db")) as ledger:
        assert len(ledger.lost()) == is_sent_again and not ledger.recover()
