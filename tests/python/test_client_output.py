"""What the example client writes and for whom, and which files it is about."""

import json
import os
import subprocess
import sys

import pytest
from conftest import FOLDER, REPOSITORY
from decision_client.cli import main
from decision_client.files import find_files
from test_client import FAIL, answers_after, rig, write_files  # noqa: F401 (a fixture)

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
