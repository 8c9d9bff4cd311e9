"""Holds the C++ sources to the map in docs/design.md; prints what breaks it, and fails then.

Each room includes its own headers and those of the rooms that it may know. No file includes itself
by way of others, none is longer than 250 lines, and what depends on the interpreter's version or on
fields that are private to it stands in engines/capi/version alone.
"""

import re
import sys
from pathlib import Path

KNOWS = {  # in engines/: capi, then host, then types, then the module
    "include/decision_bounds": {"include/decision_bounds"},
    "src": {"src", "include/decision_bounds"},
    "engines/capi": {"engines/capi"},
}
KNOWS["engines/host"] = KNOWS["src"] | {"engines/capi", "engines/host"}
KNOWS["engines/types"] = KNOWS["engines/host"] | {"engines/types"}
KNOWS["engines"] = KNOWS["engines/types"]
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


def circle(path: Path, road: tuple[Path, ...] = ()) -> tuple[Path, ...]:
    """The way by which a file includes itself; empty where there is none."""
    if path in road:
        return (*road[road.index(path):], path)
    return next(filter(None, (circle(included, (*road, path)) for included in includes(path))), ())


def faults(path: Path) -> list[str]:
    found = []
    known = KNOWS[path.parent.as_posix()]
    found += [f"includes {to}" for to in includes(path) if to.parent.as_posix() not in known]
    if path.stem != "version":
        found += [f"reads what is private to the interpreter: {name}"
                  for name in INSIDES.findall(files[path])]  # fmt: skip
    if around := circle(path):
        found.append("includes itself: " + " > ".join(map(str, around)))
    if (lines := files[path].count("\n")) > LONGEST:
        found.append(f"has {lines} lines")
    return found


broken = [f"{path} {fault}" for path in files for fault in faults(path)]
print("\n".join(broken) or f"{len(files)} files, each in its room")
sys.exit(bool(broken))
