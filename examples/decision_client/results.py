"""What a pass found out: one JSON line a file, for other programs."""

import json
import sys
from contextlib import ExitStack
from dataclasses import asdict, dataclass
from pathlib import Path

from decision_client.database import StorageError


@dataclass(frozen=True)
class Result:
    """What became of one file. Either there is a decision, or an error says why not."""

    path: str
    digest: str | None = None
    """Of the request, as in the ledger; none when the file could not be read."""
    decision: str | None = None
    input_tokens: int = 0
    cost: float = 0.0
    """US dollars; 0.0 for an answer from the cache."""
    cached: bool = False
    attempts: int = 0
    call: str | None = None
    """The idempotency key of its attempts."""
    error: str | None = None


class Results:
    """Writes results to a file, or to standard output. For one thread at a time."""

    def __init__(self, path: Path | None) -> None:
        """`path`: a file that is replaced; none: standard output. Raises `StorageError`."""
        if path is None and sys.stdout is None:
            raise StorageError("the results cannot be written: standard output is closed")
        self._path = path
        self._broken = False
        with ExitStack() as opened:
            try:
                # A line at a time, so that whoever reads along sees each at once and as a whole.
                # What is not ASCII is escaped, as are the bytes of a name that is not UTF-8.
                target: int | Path = sys.stdout.fileno() if path is None else path
                self._file = opened.enter_context(
                    open(target, "w", 1, encoding="ascii", closefd=path is not None)
                )
            except OSError as error:
                raise self._failure(error) from error
            self._opened = opened.pop_all()

    def write(self, result: Result) -> None:
        """Write one line. The first failure raises `StorageError`, and then nothing is written."""
        if self._broken:
            return
        try:
            self._file.write(json.dumps(asdict(result)) + "\n")
        except OSError as error:
            self._broken = True
            raise self._failure(error) from error

    def close(self) -> None:
        """Close the file. Standard output stays open."""
        try:
            self._opened.close()
        except OSError as error:
            if not self._broken:
                raise self._failure(error) from error

    def _failure(self, error: OSError) -> StorageError:
        return StorageError(f"the results cannot be written to {self._path or '-'}: {error}")
