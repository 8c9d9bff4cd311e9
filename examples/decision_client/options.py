"""The command line's arguments."""

import argparse
import math
import re
from collections.abc import Callable
from pathlib import Path
from typing import Any

from platformdirs import user_data_path

from decision_client.exits import EXIT_CODES
from decision_client.ledger import AttemptId
from decision_client.request import INSTRUCTIONS

FIRST_CALL = (
    "US dollars that a call may cost while nobody has paid for its feature yet; also the least "
    "that a lost reply counts"
)


class _Help(argparse.ArgumentDefaultsHelpFormatter, argparse.RawDescriptionHelpFormatter):
    """Shows defaults, and leaves the exit codes as they are laid out."""


def parse(arguments: list[str] | None) -> argparse.Namespace:
    """The options of one command; exits with code 2 and names the argument that is wrong."""
    described: dict[str, Any] = {"epilog": EXIT_CODES, "formatter_class": _Help}
    about = "Ask a paid endpoint for decisions about files, within bounds."
    parser = argparse.ArgumentParser("decision_client", description=about, **described)
    commands = parser.add_subparsers(dest="command", required=True, metavar="COMMAND")
    account, calls, stand_in = _account(), _calls(), _stand_in()

    def add(name: str, about: str, *parents: argparse.ArgumentParser) -> argparse.ArgumentParser:
        return commands.add_parser(name, help=about, parents=parents, **described)

    a_pass = "one request a file, on several threads"
    batch = add("batch", a_pass, _pass(), account, calls, stand_in)
    batch.add_argument(
        "paths", metavar="PATH", nargs="+", type=_existing, help="a file, or a directory to walk"
    )
    deadline = _options(("--deadline", _seconds, "S", 5.0, "seconds that the call may take"))
    tool = add("tool", "one request, with a deadline", deadline, account, calls, stand_in)
    tool.add_argument("path", metavar="PATH", type=_existing, help="of the file in question")
    add("spend", "what was paid today, against the cap", account)
    settle = add("settle-lost", "replace assumed costs by real ones; list them", account)
    settle.add_argument(
        "costs", metavar="CALL/ATTEMPT=USD", nargs="*", type=_cost_of_attempt, help="0: not billed"
    )
    settle.add_argument("--rest", type=_dollars, metavar="USD", help="for each of all others")
    endpoint = add("endpoint", "serve the stand-in alone; GET its address for the bill", stand_in)
    endpoint.add_argument("--port", type=_port, default=0, metavar="N", help="0: any that is free")
    return parser.parse_args(arguments)


def _account() -> argparse.ArgumentParser:
    database = user_data_path("decision_client", appauthor=False) / "decisions.sqlite3"
    return _options(
        ("--db", Path, "FILE", database, "ledger and answers"),
        ("--cap", _dollars, "USD", 5.0, "US dollars that a UTC day may cost"),
    )


def _calls() -> argparse.ArgumentParser:
    options = _options(
        ("--feature", _feature, "NAME", "triage", f"one of {', '.join(INSTRUCTIONS)}"),
        ("--attempts", _attempts, "N", 4, "the most attempts of one call"),
        ("--first-call-at-most", _dollars, "USD", math.inf, FIRST_CALL),
        ("--timeout", _timeout, "S", 10.0, "seconds that an attempt may take in all"),
        ("--endpoint", _url, "URL", None, "of the endpoint; without it, a stand-in of its own"),
    )
    resumes, paid_for = argparse.BooleanOptionalAction, "take answers that were paid for already"
    options.add_argument("--resume", action=resumes, default=True, help=paid_for)
    return options


def _stand_in() -> argparse.ArgumentParser:
    return _options(
        ("--latency", _seconds, "S", 0.02, "of the endpoint, seconds"),
        ("--failure-rate", _rate, "P", 0.0, "of its replies that fail, 0 to 1"),
        ("--lost-rate", _rate, "P", 0.0, "of its replies that are billed and lost, 0 to 1"),
        ("--refuse-every", _number, "N", 0, "requests until it refuses all; 0: it never does"),
        ("--refuse-for", _seconds, "S", 0.5, "seconds that it refuses all"),
        title="the stand-in for an endpoint",
    )


def _pass() -> argparse.ArgumentParser:
    options = _options(
        ("--glob", str, "PATTERN", "*", "the files of a directory that are meant"),
        ("--limit", _count, "N", None, "take only the first so many files"),
        ("--workers", _workers, "N", 8, "threads"),
        ("--max-calls", _number, "N", 10_000, "paid calls of the pass"),
        ("--max-tokens", _number, "N", 50_000_000, "input tokens of the pass"),
        ("--output", Path, "FILE", None, "one JSON line a file; without it, standard output"),
    )
    planned = "only say what would be asked, and its cost at most"
    options.add_argument("--dry-run", action="store_true", help=planned)
    return options


def _options(
    *rows: tuple[str, Callable[[str], Any], str, Any, str], title: str = "options"
) -> argparse.ArgumentParser:
    """A parent parser with one option a row: flag, type, placeholder, default, meaning."""
    parser = argparse.ArgumentParser(add_help=False)
    group = parser.add_argument_group(title) if title != "options" else parser
    for flag, kind, metavar, default, meaning in rows:
        group.add_argument(flag, type=kind, metavar=metavar, default=default, help=meaning)
    return parser


def _existing(text: str) -> Path:
    path = Path(text)
    if not path.is_file() and not path.is_dir():
        raise argparse.ArgumentTypeError(f"there is no file or directory {text!r}")
    return path


def _cost_of_attempt(text: str) -> tuple[AttemptId, float]:
    name, _, cost = text.rpartition("=")
    call, _, attempt = name.rpartition("/")
    if not call or not attempt.isdecimal():
        raise argparse.ArgumentTypeError(f"{text!r} is not of the form CALL/ATTEMPT=USD")
    return AttemptId(call, int(attempt)), _dollars(cost)


def _url(text: str) -> str:
    if not re.match(r"https?://[^/]", text):
        raise argparse.ArgumentTypeError(f"{text!r} does not begin with http:// or https://")
    return text


def _feature(text: str) -> str:
    if text not in INSTRUCTIONS:
        raise argparse.ArgumentTypeError(f"{text!r} is not one of {', '.join(INSTRUCTIONS)}")
    return text


def _ranged(
    convert: Callable[[str], float], what: str, least: float, most: float
) -> Callable[[str], Any]:
    """An argument's type: a number from `least` to `most`, which rules out NaN."""

    def read(text: str) -> float:
        try:
            value = convert(text)
        except ValueError:
            value = math.nan
        if not least <= value <= most:
            raise argparse.ArgumentTypeError(f"{text!r} is not {what} from {least} to {most}")
        return value

    return read


_number = _ranged(int, "a whole number", 0, 10**12)
_count = _ranged(int, "a whole number", 1, 10**12)
_port = _ranged(int, "a port", 0, 65535)
_attempts = _ranged(int, "a whole number", 1, 10)
_workers = _ranged(int, "a whole number", 1, 256)
_dollars = _ranged(float, "an amount of US dollars", 0, 10**9)
_seconds = _ranged(float, "a number of seconds", 0, 24 * 60 * 60)
_timeout = _ranged(float, "a number of seconds", 0.001, 60 * 60)
_rate = _ranged(float, "a probability", 0, 1)
