"""Which files a pass is about."""

import os
from collections.abc import Collection, Iterable
from dataclasses import dataclass, field
from pathlib import Path


@dataclass
class Found:
    """The files of a pass, each once and in order, and the folders that could not be read."""

    files: list[Path] = field(default_factory=list)
    unreadable: list[tuple[Path, str]] = field(default_factory=list)


def find_files(paths: Iterable[Path], pattern: str, without: Collection[Path] = ()) -> Found:
    """The files named, and those under the folders named that match `pattern`, as `Path.match`.

    Left out are those of `without`: what the client itself writes there. Links to folders are not
    followed. Raises `ValueError` for a pattern that matches nothing by its form.
    """
    if not pattern or Path(pattern).is_absolute():
        raise ValueError(f"{pattern!r} is not a pattern for the end of a path")
    found = Found()
    seen = {os.path.abspath(path) for path in without}

    def add(path: Path) -> None:
        place = os.path.abspath(path)
        if place not in seen:
            seen.add(place)
            found.files.append(path)

    def unreadable(error: OSError) -> None:
        found.unreadable.append((Path(str(error.filename)), error.strerror or str(error)))

    for path in paths:
        if not path.is_dir():
            add(path)
            continue
        for folder, folders, names in os.walk(path, onerror=unreadable):
            folders.sort()
            for name in sorted(names):
                file = Path(folder, name)
                if file.match(pattern) and file.is_file():  # neither a pipe nor a socket
                    add(file)
    return found


def read_text(path: Path) -> str:
    """The text of a file, in whatever encoding it is; raises `OSError`."""
    return path.read_bytes().decode(errors="replace")
