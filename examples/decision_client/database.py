"""The SQLite file under the ledger: for one process at a time, and one flush for many writers."""

import fcntl
import os
import sqlite3
import threading
from collections import deque
from collections.abc import Mapping
from contextlib import ExitStack, closing
from dataclasses import dataclass
from pathlib import Path
from typing import IO, Any

BUSY_S = 30.0
"""Seconds that a write waits for another program's lock on the file. A reply has been paid for by
then, so it is worth some patience."""

Statement = tuple[str, Mapping[str, object]]


class StorageError(Exception):
    """What must be recorded cannot be; the message names the file and what is wrong."""


def lock_of(path: Path) -> Path:
    """The file whose lock says that a process uses the database at `path`."""
    return path.with_name(path.name + ".lock")


@dataclass
class _Job:
    """What one thread wants written, and whether it is."""

    statements: tuple[Statement, ...]
    done: bool = False
    error: BaseException | None = None


class Database:
    """One SQLite file with a schema. Safe for many threads.

    Reads go over a connection of their own: with a write-ahead log they see the last commit, and
    wait for none.
    """

    def __init__(
        self, path: Path, schema: str, version: int, busy_s: float = BUSY_S, *, read_only: bool
    ) -> None:
        """Open the file, or create it. Raises `StorageError`, also when a process has it open.

        `read_only` lets other processes be; the file must exist.
        """
        self._path = path.resolve()
        self._busy_s = busy_s
        self._jobs: deque[_Job] = deque()
        self._writing, self._reading = threading.Lock(), threading.Lock()
        with ExitStack() as opened:
            try:
                if not read_only:
                    opened.enter_context(self._take_process_lock())
                self._writer = opened.enter_context(closing(self._connect()))
                self._prepare(schema, version, read_only)
                self._reader = opened.enter_context(closing(self._connect()))
            except sqlite3.Error as error:
                raise self._failure("opened", error) from error
            self._opened = opened.pop_all()

    def close(self) -> None:
        """Close the file; it is of no use afterwards."""
        with self._writing, self._reading:
            self._opened.close()

    def read(self, query: str, **values: object) -> list[Any]:
        """The rows of a query. Raises `StorageError`."""
        try:
            with self._reading:
                return self._reader.execute(query, values).fetchall()
        except sqlite3.Error as error:
            raise self._failure("read", error) from error

    def write(self, *statements: Statement) -> None:
        """Commit the statements, all or none. Raises `StorageError`.

        A flush to disk takes milliseconds, and the threads of a pass come in crowds: the first
        commits alone, and whoever has its turn next commits for all that came in the meantime.
        """
        job = _Job(statements)
        self._jobs.append(job)
        with self._writing:
            if not job.done:
                self._commit([self._jobs.popleft() for _ in range(len(self._jobs))])
        if job.error is not None:
            raise self._failure("written", job.error) from job.error

    def _commit(self, jobs: list[_Job]) -> None:
        failed: BaseException | None = None
        try:
            self._writer.execute("BEGIN IMMEDIATE")
            for job in jobs:
                for statement, values in job.statements:
                    self._writer.execute(statement, values)
            self._writer.execute("COMMIT")
        except BaseException as error:
            failed = error
            if self._writer.in_transaction:
                self._writer.execute("ROLLBACK")
            if not isinstance(error, sqlite3.Error):
                raise
        finally:
            for job in jobs:
                job.done, job.error = True, failed

    def _connect(self) -> sqlite3.Connection:
        return sqlite3.connect(
            self._path, timeout=self._busy_s, isolation_level=None, check_same_thread=False
        )

    def _prepare(self, schema: str, version: int, read_only: bool) -> None:
        (found,) = self._writer.execute("PRAGMA user_version").fetchone()
        (tables,) = self._writer.execute("SELECT COUNT(*) FROM sqlite_master").fetchone()
        if found != version and (tables or read_only):
            raise StorageError(f"{self._path} was not made by this version of the client")
        if read_only:
            return
        # With a write-ahead log each commit is flushed by default: what is recorded outlives not
        # only the process, but a power cut, too.
        self._writer.execute("PRAGMA journal_mode = WAL")
        self._writer.executescript(f"BEGIN; {schema} PRAGMA user_version = {version}; COMMIT;")

    def _take_process_lock(self) -> IO[str]:
        """Lock the file beside the database; the system unlocks it however the process ends."""
        try:
            self._path.parent.mkdir(parents=True, exist_ok=True)
            lock = open(lock_of(self._path), "a+", encoding="ascii")
        except OSError as error:
            raise self._failure("opened", error) from error
        try:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except OSError as error:
            lock.seek(0)
            owner = lock.read().strip() or "unknown"
            lock.close()
            raise StorageError(
                f"{self._path} is in use by another process (its id: {owner}). Each would learn of "
                "what the other pays only when a day begins: wait for it, or name another file"
            ) from error
        lock.truncate(0)
        lock.write(str(os.getpid()))
        lock.flush()
        return lock

    def _failure(self, done: str, error: BaseException) -> StorageError:
        return StorageError(f"{self._path} cannot be {done}: {error}")
