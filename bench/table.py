"""What was measured, as a table, as JSON, and as curves."""

import json
import os
import platform
import re
import subprocess
from dataclasses import asdict, dataclass
from pathlib import Path


@dataclass(frozen=True)
class Row:
    section: str
    operation: str
    ours: float  # in `unit`
    unit: str = "s"
    peer: str = ""
    theirs: float | None = None
    target: float | None = None  # of the ratio; of `ours` itself where there is no peer
    x: int | None = None  # the point, where the row is one of a curve

    @property
    def value(self) -> float:
        """What is held against the target."""
        return self.ours if self.theirs is None else self.ours / self.theirs

    @property
    def verdict(self) -> str:
        if self.target is None:
            return ""
        return "met" if self.value <= self.target else "not met"

    def cells(self) -> list[str]:
        operation = self.operation if self.x is None else f"{self.operation}: {self.x:,}"
        return [
            operation,
            shown(self.ours, self.unit),
            self.peer,
            "" if self.theirs is None else shown(self.theirs, self.unit),
            "" if self.theirs is None else f"{self.value:.2f}",
            "" if self.target is None else f"{self.target:g}",
            self.verdict,
        ]


HEADINGS = ["operation", "time", "peer", "peer's time", "ratio", "target", ""]


def shown(value: float, unit: str) -> str:
    if unit == "B":
        return f"{value:.0f} B"
    per = "/s" if unit == "s/s" else ""
    for factor, name in ((1e9, "ns"), (1e6, "µs"), (1e3, "ms")):
        if value * factor < 1000 and not (per and name == "ns"):
            return f"{value * factor:.3g} {name}{per}"
    return f"{value:.3g} s{per}"


def as_markdown(rows: list[Row]) -> str:
    lines = []
    for section in dict.fromkeys(row.section for row in rows):
        lines += ["", f"**{section}**", "", line(HEADINGS), line(["---"] * len(HEADINGS))]
        lines += [line(row.cells()) for row in rows if row.section == section]
    return "\n".join(lines[1:]) + "\n"


def line(cells: list[str]) -> str:
    return "| " + " | ".join(cells) + " |"


def as_text(rows: list[Row]) -> str:
    table = [HEADINGS, *(row.cells() for row in rows)]
    widths = [max(map(len, column)) for column in zip(*table)]
    lines = [aligned(HEADINGS, widths)]
    section = ""
    for row in rows:
        if row.section != section:
            section = row.section
            lines.append(f"-- {section} ".ljust(sum(widths) + 2 * len(widths), "-"))
        lines.append(aligned(row.cells(), widths))
    judged = [row for row in rows if row.target is not None]
    met = sum(row.verdict == "met" for row in judged)
    return "\n".join([*lines, "", f"{met} of {len(judged)} targets met"])


def aligned(cells: list[str], widths: list[int]) -> str:
    words = (
        cell.rjust(width) if column in (1, 3, 4, 5) else cell.ljust(width)
        for column, (cell, width) in enumerate(zip(cells, widths))
    )
    return "  ".join(words).rstrip()


def machine() -> dict[str, str]:
    cpu = re.search(r"model name\s*: (.*)", Path("/proc/cpuinfo").read_text(encoding="utf-8"))
    compiler = subprocess.run(["g++", "-dumpfullversion"], capture_output=True, text=True)
    return {
        "processors": f"{os.cpu_count()} x {cpu[1] if cpu else platform.machine()}",
        "kernel": platform.release(),
        "compiler": f"g++ {compiler.stdout.strip()}",
        "C library": " ".join(platform.libc_ver()),
        "Python": f"{platform.python_implementation()} {platform.python_version()}",
    }


def write(rows: list[Row], folder: Path) -> None:
    entries = [asdict(row) | {"value": row.value, "verdict": row.verdict} for row in rows]
    results = {"machine": machine(), "rows": entries}
    (folder / "results.json").write_text(json.dumps(results, indent=1), encoding="utf-8")
    about = ", ".join(f"{key}: {value}" for key, value in machine().items())
    (folder / "table.md").write_text(f"{about}\n\n{as_markdown(rows)}", encoding="utf-8")
