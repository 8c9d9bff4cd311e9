"""Draws the curves of section 3."""

from pathlib import Path

import matplotlib

matplotlib.use("Agg")
from matplotlib import pyplot  # noqa: E402

from table import Row  # noqa: E402


def draw(rows: list[Row], path: Path) -> None:
    curves: dict[tuple[str, str], list[Row]] = {}
    for row in rows:
        if row.x is not None and row.section.startswith("3."):
            curves.setdefault((row.section, row.operation), []).append(row)
    columns = 3
    height = -(-len(curves) // columns)
    figure, axes = pyplot.subplots(height, columns, figsize=(15, 3.6 * height), squeeze=False)
    for axis in axes.flat[len(curves):]:
        axis.set_visible(False)
    for axis, ((section, operation), points) in zip(axes.flat, curves.items()):
        xs = [row.x for row in points]
        axis.plot(xs, [row.ours for row in points], "o-", label="decision_bounds")
        axis.plot(xs, [row.theirs for row in points], "s--", label=points[0].peer)
        axis.set(xscale="log", yscale="log", title=f"{section}:\n{operation}",
                 xlabel=section.rsplit(" by ", 1)[-1],
                 ylabel="processor s per s" if points[0].unit == "s/s" else "seconds")
        axis.grid(alpha=0.3)
        axis.legend()
    figure.tight_layout()
    figure.savefig(path, dpi=90)
