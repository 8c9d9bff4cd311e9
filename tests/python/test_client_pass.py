"""What a pass of the example client leaves, however it ends: its ledger and its results."""

import json
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
from decision_client.endpoint import Faults
from decision_client.files import find_files
from decision_client.ledger import AttemptId, Ledger
from decision_client.request import DecisionResult, Request
from test_client import ANSWER, FAIL, LATE, LOST, answers_after, rig, write_files  # noqa: F401

ODD = os.fsdecode(b"\xff\x1b[2J.txt")
CLIENT = f"""
import sys, decision_client.engines
decision_client.engines.__path__[:] = [{str(FOLDER.resolve())!r}]
from decision_client.cli import main
sys.exit(main(sys.argv[1:]))
"""
ENVIRONMENT = os.environ | {
    "PYTHONPATH": str(REPOSITORY / "examples"), "CLIENT": CLIENT, "COLUMNS": "40", "NO_COLOR": "1"
}  # fmt: skip


def test_a_pass_that_is_killed_pays_for_no_answered_file_again():
    arguments = ["--files", "240", "--workers", "8", "--kills", "2", "--latency", "0.02"]
    script = [sys.executable, REPOSITORY / "script/kills.py", "--module", FOLDER.resolve()]
    ended = subprocess.run([*script, *arguments], capture_output=True, text=True)
    assert ended.returncode == 0 and "240 replies and" in ended.stdout, ended.stderr


def test_what_died_on_its_way_is_lost_until_it_is_settled(tmp_path, capfd):
    path, request = tmp_path / "db", Request("triage", "a text")
    ids = [AttemptId("one", 1), AttemptId("one", 2), AttemptId("two", 1)]
    with closing(Ledger(path, now=lambda: LATE)) as ledger:
        for id in ids:
            ledger.record_sending(id, request, 0.25)
        ledger.record_unbilled(ids[2])
        assert ledger.cost_of("2024-05-01") == 0.0, "the account holds what is on its way"
    with closing(Ledger(path)) as ledger:
        assert [attempt.id for attempt in ledger.recover()] == ids[:2] and not ledger.recover()
        with ledger._database._writing:  # a look-up does not wait for a commit
            assert ledger.find(request) is None
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
    rig.decide()  # then the dearest reply is known, so that what is lost counts as enough
    rig.rates["triage"].learn(10**6, "triage", DecisionResult("keep", False, 60, 0.0003))
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


IN_ORDER = ["keep 1", "0, 19", "1 of 10,000", "Stopped: the calls in flight have ended"]


@pytest.mark.parametrize("name", ["SIGINT", "SIGTERM", "SIGHUP", "SIGTERM again"])
def test_signals_stop_a_pass_in_order_then_its_calls(tmp_path, capfd, monkeypatch, request, name):
    number, is_sent_again = signal.Signals[name.split()[0]], name.endswith("again")
    before = signal.signal(number, signal.SIG_DFL)  # under nohup a hang-up is ignored
    request.addfinalizer(partial(signal.signal, number, before))
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


def rows(path):
    return {row["path"]: row for row in map(json.loads, path.read_text().splitlines())}


def test_each_file_has_a_line(tmp_path, capfd):
    one, two, *_ = write_files(tmp_path, ["one", "two"])
    (tmp_path / ODD).write_text("TODO")
    unread = "/proc/self/mem"  # not even by root
    paths, written = [str(one), str(two), f"{tmp_path}/{ODD}"], tmp_path / "results"
    command = ["batch", *paths, "--db", f"{tmp_path}/db", "--output", str(written)]
    assert main(command) == 0
    first = rows(written)
    assert sorted(first) == sorted(paths) and first[paths[2]]["decision"] == "review"
    assert all(row["cost"] > 0 and row["attempts"] == 1 and row["call"] for row in first.values())
    two.write_text("other")
    assert main(["batch", unread, *command[1:], "--failure-rate", "1", "--attempts", "2"]) == 1
    again = rows(written)
    assert again[paths[0]] | {"cached": True, "cost": 0.0, "input_tokens": 0} == again[paths[0]]
    assert (again[paths[1]]["attempts"], again[paths[1]]["decision"]) == (2, None)
    assert "Input/output error" in again[unread]["error"]
    assert capfd.readouterr().out == ""


def test_equal_requests_in_flight_are_made_once(rig):
    rig.faults.latency_s = 0.02
    report = rig.run(["the same"] * 60)
    assert (rig.endpoint.requests, rig.budget.cache_hits, report.done) == (1, 59, 60)
    rig.faults.draw = answers_after(*[FAIL] * 4)
    report = rig.run(["not the same"] * 9)
    assert (len(report.failed), report.decisions.total()) == (1, 8), "the next one tries again"


def test_a_pass_is_about_each_file_once_and_never_about_its_own(tmp_path, monkeypatch):
    (tmp_path / "b").mkdir()
    (tmp_path / "closed").mkdir()
    os.mkfifo(tmp_path / "pipe")
    one, two = write_files(tmp_path, ["one", "two"])
    scan = os.scandir

    def closed(path):
        if str(path).endswith("closed"):
            raise PermissionError(13, "Permission denied", path)
        return scan(path)

    monkeypatch.setattr(os, "scandir", closed)
    found = find_files([two, tmp_path, tmp_path / "b" / ".." / "0.txt"], "*", without=[])
    assert found.files == [two, one]
    assert found.unreadable == [(tmp_path / "closed", "Permission denied")]
    command = ["batch", str(tmp_path), "--db", f"{tmp_path}/db", "--output", f"{tmp_path}/out"]
    assert main(command) == main(command) == 1
    assert sorted(rows(tmp_path / "out")) == [str(one), str(two)]


def test_a_dry_run_asks_nothing_and_knows_the_most(tmp_path, capfd):
    write_files(tmp_path, ["one", "two"])
    command = f"batch {tmp_path} --glob *.txt --db {tmp_path}/db --limit".split()

    def planned(limit, *more):
        assert main([*command, limit, "--dry-run", *more]) == 0
        return [json.loads(line)["most_cost"] for line in capfd.readouterr().out.splitlines()]

    assert planned("2") == [None, None] and not (tmp_path / "db").exists()
    assert planned("2", "--first-call-at-most", "0.25") == [0.25, 0.25]
    assert main([*command, "1"]) == 0
    paid = json.loads(capfd.readouterr().out)["cost"]
    assert planned("2") == [0.0, pytest.approx(paid)] and len(planned("2", "--no-resume")) == 2
    assert main([*command, "1", "--no-resume"]) == 0
    assert json.loads(capfd.readouterr().out)["cost"] == paid


ENDS = [
    ("| head -n 1", 0, "the results cannot be written to -: [Errno 32] Broken pipe"),
    (">/dev/full", 6, "the results cannot be written to -: [Errno 28] No space left"),
    (">&-", 6, "standard output is closed"),
    ("2>&-", 0, '"decision": "keep"'), ("2>/dev/full", 0, '"decision": "keep"'),
    ("--failure-rate 1 --attempts 1", 1, r"/\udcff\x1b[2J.txt: the decision call failed at"),
]  # fmt: skip


@pytest.mark.parametrize(("redirected", "code", "said"), ENDS)
def test_no_reader_is_needed(tmp_path, redirected, code, said):
    write_files(tmp_path, [f"text {number}" for number in range(3)])
    (tmp_path / ODD).write_text("a name that would clear the screen")
    arguments = f"batch {tmp_path} --db {tmp_path}/db --latency 0.1 --workers 1 {redirected}"
    command = ["sh", "-c", f'"$0" -c "$CLIENT" {arguments}', sys.executable]
    ended = subprocess.run(command, env=ENVIRONMENT, capture_output=True, text=True)
    assert ended.returncode == code and said in ended.stderr + ended.stdout
    assert "\x1b" not in ended.stderr and "Traceback" not in ended.stderr
    table = [line for line in ended.stderr.splitlines() if line.startswith("│")]
    assert all(len(line) <= 40 for line in table)
