"""What the user sees: a live view of a pass, and tables at the end."""

import math
from collections.abc import Iterable

from rich import box
from rich.console import Console
from rich.progress import BarColumn, Progress, TaskID, TextColumn
from rich.table import Table
from rich.text import Text

from decision_client.batch import PassReport
from decision_client.engines.decision_bounds import DailySpend, RunBudget
from decision_client.ledger import LostAttempt
from decision_client.screen import printable, say
from decision_client.tally import Tally

MOST_FAILURES_SHOWN = 5


def dollars(amount: float) -> str:
    """US dollars as they are shown: four decimals, for a call costs far less than a cent."""
    return f"${amount:,.4f}"


class PassView:
    """Bars for the files, the calls and tokens of the pass, and the dollars of the day.

    On a terminal only: elsewhere it draws nothing, and the table at the end tells it all.
    """

    def __init__(
        self, console: Console, budget: RunBudget, spend: DailySpend, cap: float, tally: Tally
    ) -> None:
        """`cap`: US dollars that the calls of one day may cost."""
        self._budget, self._spend, self._cap, self._tally = budget, spend, cap, tally
        self.bars = Progress(
            TextColumn("{task.description:>12}"),
            BarColumn(bar_width=20),
            TextColumn("{task.fields[state]}", markup=False),
            console=console,
            disable=not console.is_terminal,
        )
        self._files = self._add("files")
        self._calls = self._add("paid calls")
        self._tokens = self._add("input tokens")
        self._day = self._add("day's cost")

    def show(self, report: PassReport) -> None:
        """Draw the state of the pass as it is now."""
        budget = self._budget
        settled = self._spend.spent()
        held = "the rest" if self._tally.unbounded else dollars(self._tally.held)
        calls = f"{budget.calls:,} of {budget.max_calls:,}, {budget.in_flight} in flight"
        tokens = f"{budget.input_tokens:,} of {budget.max_tokens:,}"
        day = f"{dollars(settled)} + {held} held of {dollars(self._cap)}"
        self._draw(self._files, report.done, report.files, f"{report.done:,} of {report.files:,}")
        self._draw(self._calls, budget.calls, budget.max_calls, calls)
        self._draw(self._tokens, budget.input_tokens, budget.max_tokens, tokens)
        self._draw(self._day, settled + self._tally.held, self._cap, day)

    def table(self, report: PassReport, unreadable: int, seconds: float) -> Table:
        """The summary of a pass that took `seconds`; so many folders were `unreadable`."""
        summary, tally = self._budget.summary(), self._tally
        decided = ", ".join(f"{name} {count:,}" for name, count in sorted(report.decisions.items()))
        settled = self._spend.spent()
        return _table(
            f"Pass of {seconds:.2f} s",
            [
                ("files", f"{report.files:,}"),
                ("decided", decided or "none"),
                ("failed, left unasked", f"{len(report.failed):,}, {report.unasked:,}"),
                ("folders not readable", f"{unreadable:,}"),
                ("answered from the cache", f"{summary['cache_hits']:,}"),
                ("paid calls", f"{summary['calls']:,} of {summary['max_calls']:,}"),
                ("input tokens", f"{summary['input_tokens']:,} of {summary['max_tokens']:,}"),
                ("cost of the pass", dollars(summary["cost_usd"])),
            ],
            [
                ("settled today (UTC)", f"{dollars(settled)} of {dollars(self._cap)}"),
                ("held at most, held now", f"{dollars(tally.most_held)}, {dollars(tally.held)}"),
            ],
            [
                ("waits for room", f"{tally.waits:,} calls, {tally.waited_s:.2f} s in all"),
                ("waits for the endpoint", f"{report.windows:,} (it refused requests)"),
                ("refused by a bound", f"{report.refused:,} calls"),
                ("retries", f"{tally.retries:,}"),
                ("lost replies", f"{tally.lost:,}, counted as {dollars(tally.lost_cost)}"),
            ],
        )

    def _add(self, name: str) -> TaskID:
        return self.bars.add_task(name, total=None, state="")

    def _draw(self, bar: TaskID, used: float, limit: float, state: str) -> None:
        self.bars.update(bar, completed=min(used, limit), total=limit, state=state)


def day_table(
    day: str, attempts: Iterable[tuple[str, str, int, float]], settled: float, cap: float
) -> Table:
    """What one UTC day's attempts came to, against the cap. Amounts are US dollars."""
    return _table(
        f"{day} (UTC)",
        [
            (f"{feature}, {state}: {count:,}", dollars(cost))
            for feature, state, count, cost in attempts
        ],
        [
            ("settled", dollars(settled)),
            ("cap", dollars(cap)),
            ("left", dollars(max(0.0, cap - settled))),
        ],
    )


def plan_table(files: int, unread: int, cached: int, size: int, most: float) -> Table:
    """What a pass would do; `size` is in bytes, `most` in US dollars."""
    cost = "not known: no reply of the feature was paid yet" if math.isinf(most) else dollars(most)
    return _table(
        "Dry run: nothing was asked",
        [
            ("files", f"{files:,}"),
            ("not readable", f"{unread:,}"),
            ("answered already, or equal", f"{cached:,}"),
            ("to be paid for", f"{files - unread - cached:,} requests, {size:,} bytes"),
            ("cost at most, as learned", cost),
        ],
    )


def lost_table(lost: Iterable[LostAttempt]) -> Table:
    """The attempts that count at an assumed cost: when, for which request, how much."""
    rows = [
        (f"{one.id}", f"{one.day} {one.feature} {one.request[:12]} {dollars(one.assumed_cost)}")
        for one in lost
    ]
    return _table("Attempts at an assumed cost", rows or [("none", "")])


def _table(title: str, *sections: list[tuple[str, str]]) -> Table:
    table = Table(
        title=title,
        show_header=False,
        box=box.ROUNDED,
        title_justify="left",
        min_width=len(title),
    )
    for rows in sections:
        for name, value in rows:
            table.add_row(Text(printable(name)), Text(printable(value)))
        table.add_section()
    return table


def show_failures(console: Console, report: PassReport) -> None:
    """Name the files that failed, the first few of them."""
    for file, message in report.failed[:MOST_FAILURES_SHOWN]:
        say(console, f"{file}: {message}")
    more = len(report.failed) - MOST_FAILURES_SHOWN
    if more > 0:
        say(console, f"... and {more:,} more")
