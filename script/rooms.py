"""Holds the C++ sources to the map in docs/design.md; prints what breaks it, and fails then.

In engines/ a room may include its own headers and those of the rooms before it: capi, host, types,
then the module. No file includes itself by way of others, none is longer than 250 lines, and what
depends on the interpreter's version or its insides stands in engines/capi/version alone.
"""

import re
import sys
from pathlib import Path

ROOMS = ["capi", "host", "types", "."]
FOLDERS = ["include", "src", "engines"]
LONGEST = 250
INSIDES = re.compile(r"PY_VERSION_HEX|ma_version_tag|tp_version_tag|\btp_dict\b|\b_Py[A-Z]\w+\(")

files = {path: path.read_text(encoding="utf-8") for folder in FOLDERS
         for path in sorted(Path(folder).rglob("*.[ch]pp"))}  # fmt: skip


def includes(path: Path) -> list[Path]:
    """The project's own headers that a file includes."""
    names = re.findall(r'^#include "(.+)"', files[path], re.M)
    places = [Path(folder, name) for name in names for folder in FOLDERS]
    return [place for place in places if place in files]


def room(path: Path) -> int:
    return ROOMS.index(path.parent.relative_to("engines").as_posix())


def circle(path: Path, road: tuple[Path, ...] = ()) -> tuple[Path, ...]:
    """The way by which a file includes itself; empty where there is none."""
    if path in road:
        return (*road[road.index(path):], path)
    return next(filter(None, (circle(included, (*road, path)) for included in includes(path))), ())


def faults(path: Path) -> list[str]:
    found = []
    if path.parts[0] == "engines":
        above = [str(to) for to in includes(path)
                 if to.parts[0] == "engines" and room(to) > room(path)]  # fmt: skip
        found += [f"includes {name}, of a later room" for name in above]
        if path.stem != "version":
            found += [f"reads the interpreter's insides: {name}"
                      for name in INSIDES.findall(files[path])]  # fmt: skip
    if around := circle(path):
        found.append("includes itself: " + " > ".join(map(str, around)))
    if (lines := files[path].count("\n")) > LONGEST:
        found.append(f"has {lines} lines")
    return found


broken = [f"{path} {fault}" for path in files for fault in faults(path)]
print("\n".join(broken) or f"{len(files)} files, each in its room")
sys.exit(bool(broken))
