"""Runs every benchmark and writes what it found: run.py BUILD_FOLDER. script/bench calls it."""

import sys
from pathlib import Path

build = Path(sys.argv[1])
sys.path[:0] = [str(build / "engines"), str(build / "bench")]

import calls  # noqa: E402
import curves  # noqa: E402
import growth  # noqa: E402
import native  # noqa: E402
import table  # noqa: E402
import waiting  # noqa: E402


def main() -> None:
    rows = [
        *calls.measured(),
        *native.measured(build / "bench" / "decision_bounds_bench", build / "native.json"),
        *waiting.measured(),
        *growth.measured(),
    ]
    rows.sort(key=lambda row: row.section)
    table.write(rows, build)
    curves.draw(rows, build / "curves.png")
    print(table.as_text(rows))


main()
