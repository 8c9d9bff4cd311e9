"""Kills a pass of the example client at random moments, runs it again, and compares the bills.

    script/kills.py --module build/release/engines [--files N] [--workers N] [--kills N]

The endpoint is another process, which keeps the bill. In the end every file must be answered once,
each reply in the ledger must have been billed at its very cost, and what differs beyond that must
be attempts that were on their way at a kill. They are listed.
"""

import argparse
import json
import os
import random
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time
import urllib.request
from contextlib import closing
from pathlib import Path

EXAMPLES = Path(__file__).resolve().parents[1] / "examples"
MOST_COST = 0.0005
"""US dollars that no file made here costs at the stand-in's prices."""
CLIENT = """
import sys, decision_client.engines
decision_client.engines.__path__[:] = [sys.argv.pop(1)]
from decision_client.cli import main
sys.exit(main(sys.argv[1:]))
"""


def client(module: Path, *arguments: object, **options: object) -> subprocess.Popen[str]:
    """Start the client with a module that need not be installed in its package."""
    command = [sys.executable, "-c", CLIENT, str(module), *map(str, arguments)]
    environment = os.environ | {"PYTHONPATH": str(EXAMPLES)}
    return subprocess.Popen(command, env=environment, text=True, **options)


def replies_in(path: Path) -> int:
    """How many replies the ledger has, if there is one yet."""
    try:
        with closing(sqlite3.connect(f"file:{path}?mode=ro", uri=True)) as ledger:
            query = "SELECT COUNT(*) FROM attempts WHERE state = 'reply'"
            return int(ledger.execute(query).fetchone()[0])
    except sqlite3.OperationalError:
        return 0


def run_killed(chosen: argparse.Namespace, folder: Path, url: str) -> None:
    """Run the pass until it has been killed as often as is wanted, then to its end."""
    arguments = ["batch", folder / "files", "--db", folder / "db", "--endpoint", url]
    arguments += ["--workers", chosen.workers, "--cap", 1000, "--max-calls", 10 * chosen.files]
    arguments += ["--first-call-at-most", MOST_COST]  # else the dearest so far would be assumed
    random.seed(chosen.seed)
    kills, whole_s = 0, chosen.latency * chosen.files / chosen.workers
    while kills < chosen.kills:
        before = replies_in(folder / "db")
        running = client(chosen.module, *arguments, stdout=subprocess.DEVNULL)
        while running.poll() is None and replies_in(folder / "db") == before:
            time.sleep(0.01)
        # Drawn so that all the kills together leave something to do.
        time.sleep(random.uniform(0, whole_s / (chosen.kills + 1)))
        running.kill()
        if running.wait() == -signal.SIGKILL:
            kills += 1
        elif running.returncode == 0:
            sys.exit("the pass was done before it could be killed so often: give it more files")
    if code := client(chosen.module, *arguments, stdout=subprocess.DEVNULL).wait():
        sys.exit(f"the last run ended with exit code {code}")


def compare(chosen: argparse.Namespace, folder: Path, bill: dict[str, float]) -> None:
    """Hold the ledger against the bill; exits with a message where they do not fit."""
    ledger = sqlite3.connect(folder / "db")
    replies = dict(ledger.execute("SELECT call, cost FROM attempts WHERE state = 'reply'"))
    query = "SELECT call, attempt, cost FROM attempts WHERE state = 'lost'"
    lost = ledger.execute(query).fetchall()
    states = {state for (state,) in ledger.execute("SELECT DISTINCT state FROM attempts")}
    (asked,) = ledger.execute(
        "SELECT COUNT(DISTINCT request) FROM attempts WHERE state = 'reply'"
    ).fetchone()
    for call, attempt, cost in lost:
        said = f"billed at ${bill[call]:.6f}" if call in bill else "not billed"
        print(f"on its way at a kill: {call}/{attempt}, assumed ${cost:.6f}, {said}")
    on_the_way = {call for call, _, _ in lost}
    total = sum(replies.values()) + sum(cost for _, _, cost in lost)
    billed = sum(bill.values())
    print(
        f"{chosen.files:,} files, {chosen.kills} kills: {len(replies):,} replies and "
        f"{len(lost):,} lost; ledger ${total:.6f}, bill ${billed:.6f}, of it for replies "
        f"${sum(replies.values()):.6f}"
    )
    faults = {
        "files answered more or less than once": not chosen.files == asked == len(replies),
        "attempts with no end": not states <= {"reply", "lost"},
        "replies that were not billed at their cost": any(
            bill.get(call) != cost for call, cost in replies.items()
        ),
        "billed, and not in the ledger": not bill.keys() <= replies.keys() | on_the_way,
        "more lost than workers at the kills": len(lost) > chosen.kills * chosen.workers,
        "ledger below the bill": total < billed - 1e-9,
    }
    if wrong := [fault for fault, found in faults.items() if found]:
        sys.exit(f"script/kills.py: {'; '.join(wrong)}")


def main() -> None:
    parser = argparse.ArgumentParser(description="Kill a pass and compare ledger and bill.")
    parser.add_argument("--module", type=Path, required=True, help="folder of the built module")
    parser.add_argument("--files", type=int, default=3000)
    parser.add_argument("--workers", type=int, default=16)
    parser.add_argument("--kills", type=int, default=5)
    parser.add_argument("--latency", type=float, default=0.05, help="seconds")
    parser.add_argument("--seed", type=int)
    chosen = parser.parse_args()
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        (folder / "files").mkdir()
        for number in range(chosen.files):
            (folder / "files" / f"{number}.txt").write_text(f"{number} " + "word " * (number % 97))
        serving = client(
            chosen.module, "endpoint", "--latency", chosen.latency, stdout=subprocess.PIPE
        )
        try:
            url = serving.stdout.readline().strip()
            run_killed(chosen, folder, url)
            with urllib.request.urlopen(url) as bill:
                compare(chosen, folder, json.load(bill))
        finally:
            serving.kill()
            serving.wait()


if __name__ == "__main__":
    main()
