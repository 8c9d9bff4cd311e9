"""Ctrl-C, SIGTERM and SIGHUP: the first ends a pass in order, the second interrupts it."""

import os
import signal
import sys
import threading
from collections.abc import Iterator
from contextlib import contextmanager, suppress
from types import FrameType

SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


@contextmanager
def stop_on_signals(stop: threading.Event) -> Iterator[None]:
    """Have the first signal set `stop`, and say so at once; another raises `KeyboardInterrupt`.

    Where `stop` is set already, the first one raises. A signal that the process was started to
    ignore stays ignored, such as a hang-up under `nohup`. For the main thread only.
    """

    def on_signal(number: int, _frame: FrameType | None) -> None:
        if stop.is_set():
            raise KeyboardInterrupt
        stop.set()
        # The signal may come in the midst of a print, which cannot be entered twice. And after a
        # hang-up there is no terminal left to write to.
        with suppress(OSError, AttributeError):
            name = signal.Signals(number).name
            said = f"\n{name}: stopping once the calls in flight have ended; again: at once\n"
            os.write(sys.stderr.fileno(), said.encode())

    before = {number: signal.getsignal(number) for number in SIGNALS}
    heeded = [number for number in SIGNALS if before[number] != signal.SIG_IGN]
    try:
        for number in heeded:
            signal.signal(number, on_signal)
        yield
    finally:
        for number in heeded:
            signal.signal(number, before[number])
