"""Where people read: standard error for tables and warnings, standard output for what was asked."""

import logging
import os
import sys
from typing import TextIO

from rich.console import Console
from rich.logging import RichHandler
from rich.text import Text


class _Forgiving:
    """A stream that nobody need read: once it fails, what is written to it is dropped.

    A terminal that was hung up, or a pipe whose reader left, must not end a pass that pays.
    """

    def __init__(self, stream: TextIO) -> None:
        self._stream = stream

    def __getattr__(self, name: str) -> object:
        return getattr(self._stream, name)

    def write(self, text: str) -> int:
        """Write what can be written."""
        try:
            return self._stream.write(text)
        except UnicodeEncodeError:
            return self._stream.write(text.encode("ascii", "backslashreplace").decode())
        except OSError:
            return self._drop(len(text))

    def flush(self) -> None:
        """Flush what can be flushed."""
        try:
            self._stream.flush()
        except OSError:
            self._drop(0)

    def _drop(self, length: int) -> int:
        # The interpreter flushes its streams as it exits, and would end with a code of its own.
        os.dup2(os.open(os.devnull, os.O_WRONLY), self._stream.fileno())
        return length


class Screen:
    """The two consoles of a command."""

    def __init__(self) -> None:
        self.out, self.err = _console(sys.stdout), _console(sys.stderr)
        warnings = RichHandler(console=self.err, show_time=False, show_path=False)
        logging.basicConfig(format="%(message)s", handlers=[warnings], force=True)

    def say(self, message: str) -> None:
        """Tell the user something."""
        say(self.err, message)

    def write_line(self, line: str) -> None:
        """Write a line for another program, at once."""
        self.out.file.write(line + "\n")
        self.out.file.flush()


def _console(stream: TextIO | None) -> Console:
    """A console on a stream; there is none if the program was started with it closed."""
    return Console(file=_Forgiving(stream or open(os.devnull, "w")))  # type: ignore[arg-type]


def say(console: Console, message: str) -> None:
    """Print a message as it stands: neither wrapped, nor read for markup."""
    console.print(Text(printable(message)), soft_wrap=True)


def printable(text: str) -> str:
    """Text without what moves a terminal's cursor: a file's name may hold anything."""
    return "".join(c if c.isprintable() else c.encode("unicode_escape").decode() for c in text)
