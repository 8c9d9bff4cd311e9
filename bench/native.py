"""Sections 2 and 3 in C++: runs the benchmarks and reads what they say."""

import json
import subprocess
from pathlib import Path

from table import Row

Figures = dict[tuple[str, int, str, str], float]

MUTEX_PAIRS = "two std::mutex pairs"
PLAIN = "plain mutex, condition"


def figures(program: Path, output: Path) -> Figures:
    """Seconds or bytes by operation, point, kind and figure, such as "time/min". Of repetitions,
    the best; of what is allocated, the worst."""
    subprocess.run(
        [program, f"--benchmark_out={output}", "--benchmark_repetitions=50",
         "--benchmark_enable_random_interleaving=true", "--benchmark_min_time=0.005"],
        check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    found: Figures = {}
    for entry in json.loads(output.read_text(encoding="utf-8"))["benchmarks"]:
        if entry["run_type"] != "iteration":
            continue
        operation, *arguments = entry["run_name"].split("/")
        point = int(next(filter(str.isdigit, arguments), "1"))
        counters = {name: entry[name] for name in entry if name.count("/") == 2}
        if arguments[0] in ("ours", "peer"):
            counters[f"{arguments[0]}/time/min"] = entry["real_time"] * 1e-9
        for name, value in counters.items():
            kind, figure = name.split("/", 1)
            key = (operation, point, kind, figure)
            found[key] = (max if figure.endswith("max") else min)(found.get(key, value), value)
    return found


def measured(program: Path, output: Path) -> list[Row]:
    found = figures(program, output)
    rows: list[Row] = []

    def add(section: str, operation: str, key: tuple[str, str], peer: str, target: float, *,
            unit: str = "s", curve: bool = True) -> None:
        benchmark, figure = key
        for known, point, kind, name in sorted(found):
            if (known, kind, name) == (benchmark, "ours", figure):
                theirs = found[benchmark, point, "peer", figure]
                rows.append(Row(section, operation, found[known, point, kind, name], unit, peer,
                                theirs, target, point if curve else None))

    section = "2. C++, std facilities"
    add(section, "hold, settle", ("hold", "time/min"), MUTEX_PAIRS, 3, curve=False)
    add(section, "admit, settle", ("admit", "time/min"), MUTEX_PAIRS, 4, curve=False)
    add(section, "hold, settle by threads", ("contended_calls", "time/mean"), PLAIN, 1.2)
    for operation in ("hold", "admit"):
        rows.append(Row(section, f"allocated per {operation}, settle",
                        found[operation, 1, "ours", "bytes/max"], "B", target=0))

    section = "3. C++, one give-back by waiting calls"
    add(section, "settle alone", ("give_backs", "alone/mean"), PLAIN, 1.1)
    add(section, "until all tested again", ("give_backs", "all/mean"), PLAIN, 1.1)
    add("3. C++, processor time by calls that wait in vain", "processor time",
        ("idles", "share/median"), PLAIN, 1.1, unit="s/s")
    section = "3. C++, from settle to admitted"
    add(section, "median", ("wake_ups", "latency/median"), PLAIN, 1.1, curve=False)
    add(section, "99th percentile", ("wake_ups", "latency/p99"), PLAIN, 1.1, curve=False)
    add("3. C++, cost by features", "cost", ("cost", "time/mean"), "plain mutex, set, maxima", 1.1)
    add("3. C++, the 10-millionth call", "hold, settle", ("ten_millionth", "time/min"),
        "the first calls", 1.1, curve=False)
    for operation, key in (("an atomic exchange", "floor_exchange"),
                           ("a std::function call", "floor_function")):
        rows.append(Row("Floors, C++", operation, found[key, 1, "ours", "time/min"]))
    return rows
