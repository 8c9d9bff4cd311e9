"""Daemon threads that want the interpreter's lock while the interpreter ends."""

import time
from threading import Event

from support import DAY, admit, boom, bounds, derived, in_thread


class Slow:
    def __del__(self):
        time.sleep(0.4)


def for_ever():
    while True:
        pass


def main():
    bounds.slow = Slow()  # so that waits end while the interpreter does
    by_look_up = derived(bounds.DailySpend, "_today_locked", "_give_back")
    budget, locked = bounds.RunBudget(9, 9), bounds.RunBudget(9, 9)
    spend, other = (make(9.0, str, None) for make in (bounds.DailySpend, by_look_up))
    *_, share = [admit(bound, 9.0) for bound in (budget, spend, other, locked)]
    busy = bounds.RunBudget(9, 9, should_stop=for_ever)
    for bound in (budget, spend, other, busy) * 4:
        in_thread(admit, bound)
    locked._changed.acquire()
    in_thread(share.settle, None)
    warned = Event()
    bounds.logger.addFilter(lambda record: warned.set() or time.sleep(0.2) or True)
    in_thread(bounds.DailySpend(9.0, DAY.title, boom).spent)  # ends while it logs that error
    assert warned.wait(20), "no thread came to log its ledger's error"
