"""Follows the recipe for a counter in docs/design.md: recipe.py COPY adds one to a copy of the
sources; recipe.py COPY MODULE_FOLDER sees that the module which was built from it has it."""

import re
import sys
from pathlib import Path

ROW = re.compile(
    r'^ *(std::int64_t cache_hits|DECISION_BOUNDS_COUNTER\(cache_hits\)|[{"]+cache_hits"|'
    r"cache_hits: int).*\n", re.M)  # fmt: skip
FILES = ["include/decision_bounds/run_budget.hpp", "src/run_counts.cpp",
         "engines/types/run_budget.cpp", "engines/decision_bounds.pyi"]  # fmt: skip


def add(path: Path) -> None:
    """Puts a row of another counter below each row of one."""
    text, rows = ROW.subn(lambda row: row[0] + row[0].replace("cache_hits", "retries"),
                          path.read_text(encoding="utf-8"))  # fmt: skip
    assert rows, f"{path} has no row of a counter: has the recipe changed?"
    size = re.compile(r"(?<=std::array<SummaryEntry, )\d+")
    path.write_text(size.sub(lambda count: str(int(count[0]) + 1), text), encoding="utf-8")


def see() -> None:
    import decision_bounds as bounds

    budget = bounds.RunBudget(9, 9, cache_hits=1, retries=2)
    assert budget.retries == budget.summary()["retries"] == 2, budget.summary()
    assert "cache_hits=1, retries=2, in_flight=0" in repr(budget), budget
    budget.retries = 3
    assert budget != bounds.RunBudget(9, 9, cache_hits=1, retries=2)
    assert "retries" in bounds.RunBudget.__match_args__


if len(sys.argv) == 2:
    for name in FILES:
        add(Path(sys.argv[1], name))
else:
    sys.path.insert(0, sys.argv[2])
    see()
