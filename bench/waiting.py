"""Section 3: Python threads that wait for room."""

import sys
import threading
import time
from collections.abc import Callable
from contextlib import ExitStack
from functools import partial
from statistics import median, quantiles

import decision_bounds
from calls import Reply
from table import Row
from timing import pooled, trimmed_mean

SIZES = (1, 4, 16, 64, 256, 1024)
LIMIT = 10
REPLY = Reply(input_tokens=0)
PEER = "threading.Condition"


class Tests:
    """Counts how often the waiting calls have tested for room in vain: they ask it, as their stop
    signal, before each wait; all but a call's first question come with the lock held."""

    def __init__(self) -> None:
        self.count, self.target, self.reached = 0, 0, 0.0
        self.expected = self.stop = False
        self.done = threading.Lock()
        self.done.acquire()

    def __call__(self) -> bool:
        self.count += 1
        if self.expected and self.count >= self.target:
            self.expected = False
            self.reached = time.perf_counter()
            self.done.release()
        return self.stop

    def expect(self, more: int) -> None:
        self.target = self.count + more
        self.expected = True

    def wait(self) -> float:
        self.done.acquire()
        return self.reached


class Plain:
    """What one would write by hand for a pass."""

    def __init__(self, max_calls: int, max_tokens: int, should_stop: Callable[[], bool]) -> None:
        self.max_calls, self.max_tokens, self.should_stop = max_calls, max_tokens, should_stop
        self.calls = self.cache_hits = self.input_tokens = self.in_flight = 0
        self.held = self.cost = 0.0
        self.changed = threading.Condition()

    def hold(self, tokens: float) -> "PlainShare":
        if self.should_stop():
            raise decision_bounds.DecisionStopped
        with self.changed:
            while not self.room():
                if self.should_stop():
                    raise decision_bounds.DecisionStopped
                self.changed.wait(0.1)
            self.in_flight += 1
            self.held += tokens
        return PlainShare(self, tokens)

    def room(self) -> bool:
        if self.calls + self.in_flight >= self.max_calls or self.input_tokens >= self.max_tokens:
            raise decision_bounds.DecisionBudgetExceeded
        return self.input_tokens + self.held < self.max_tokens


class PlainShare:
    def __init__(self, gate: Plain, tokens: float) -> None:
        self.gate, self.tokens = gate, tokens

    def settle(self, reply: Reply | None) -> None:
        gate = self.gate
        with gate.changed:
            gate.in_flight -= 1
            gate.held = max(0.0, gate.held - self.tokens) if gate.in_flight else 0.0
            if reply is not None and reply.cached:
                gate.cache_hits += 1
            elif reply is not None:
                gate.calls += 1
                gate.input_tokens += reply.input_tokens
                gate.cost += reply.cost
            gate.changed.notify_all()


class Crowd:
    """A gate that is full, and threads that wait at it, for a with block."""

    def __init__(self, kind: type, size: int, small: int = 0) -> None:
        self.spread_s = 0.0  # over which its calls start
        self.tests = Tests()
        self.gate = kind(10**9, LIMIT, should_stop=self.tests)
        self.small = [self.gate.hold(0.0) for _ in range(small)]
        self.last, self.rest = self.gate.hold(0.0), self.gate.hold(LIMIT)
        self.threads = [threading.Thread(target=self.call) for _ in range(size)]

    def call(self) -> None:
        try:
            self.gate.hold(1.0).settle(REPLY)
        except decision_bounds.DecisionStopped:
            pass

    def __enter__(self) -> "Crowd":
        before = self.tests.count
        for thread in self.threads:
            if self.spread_s:
                time.sleep(self.spread_s / len(self.threads))
            thread.start()
        while self.tests.count < before + 2 * len(self.threads):
            time.sleep(0.001)
        return self

    def __exit__(self, *error: object) -> None:
        self.tests.stop = True
        self.last.settle(REPLY)
        for thread in self.threads:
            thread.join()

    def processor_seconds(self) -> float:
        """What its threads have used so far."""
        clocks = (time.pthread_getcpuclockid(thread.ident or 0) for thread in self.threads)
        return sum(map(time.clock_gettime, clocks))


def give_back(kind: type, size: int) -> tuple[list[float], ...]:
    """Seconds of one settle alone, and until every waiting call has tested again."""
    alone, all_tested = [], []
    with Crowd(kind, size, small=9) as crowd:
        for share in crowd.small:
            time.sleep(0.0005)  # until the last one waits again
            crowd.tests.expect(size)
            begin = time.perf_counter()
            share.settle(REPLY)
            alone.append(time.perf_counter() - begin)
            all_tested.append(crowd.tests.wait() - begin)
    return alone[1:], all_tested[1:]  # the first is of threads that have just started


def processor_shares(size: int, visit: int) -> list[float]:
    """Processor seconds per second of crowds that wait in vain, of each kind. They wait at the same
    time, so that whatever else the machine does meets both alike."""
    count = max(1, 64 // size)  # of small crowds, many
    crowds: dict[type, list[Crowd]] = {kind: [] for kind in KINDS}
    with ExitStack() as stack:
        for i in range(2 * count):
            kind = KINDS[(i + visit) % 2]
            crowd = Crowd(kind, size)
            crowd.spread_s = 0.1 / (2 * count)  # calls that poll all at once would cost more
            crowds[kind].append(stack.enter_context(crowd))
        begin = time.perf_counter()
        before = [used(crowds[kind]) for kind in KINDS]
        time.sleep(0.2)
        after = [used(crowds[kind]) for kind in KINDS]
        passed = time.perf_counter() - begin
    return [(end - start) / passed for start, end in zip(before, after)]


def used(crowds: list[Crowd]) -> float:
    """What one of the crowds has used so far, in processor seconds."""
    return sum(crowd.processor_seconds() for crowd in crowds) / len(crowds)


def wake_up(kind: type) -> tuple[list[float]]:
    """Seconds from settling to the one waiting call's start."""
    count = 20
    tests = Tests()
    gate = kind(10**9, LIMIT, should_stop=tests)
    go, started = threading.Semaphore(0), threading.Semaphore(0)
    starts: list[float] = []

    def call() -> None:
        for _ in range(count):
            go.acquire()
            share = gate.hold(1.0)
            starts.append(time.perf_counter())
            share.settle(REPLY)
            started.release()

    thread = threading.Thread(target=call)
    thread.start()
    samples = []
    for _ in range(count):
        rest = gate.hold(LIMIT)
        tests.expect(2)
        go.release()
        tests.wait()
        time.sleep(0.0002)  # until it sleeps
        begin = time.perf_counter()
        rest.settle(REPLY)
        started.acquire()
        samples.append(starts[-1] - begin)
    thread.join()
    return (samples,)


KINDS = (decision_bounds.RunBudget, Plain)


def give_backs(size: int) -> list[Row]:
    section = "3. Python, one give-back by waiting calls"
    visits = max(20, min(800, 8000 // size))
    interval = sys.getswitchinterval()
    sys.setswitchinterval(0.1)  # else it is luck whether a thread that wakes many is interrupted
    try:
        ours, theirs = pooled([partial(give_back, kind, size) for kind in KINDS], visits)
    finally:
        sys.setswitchinterval(interval)
    return [
        Row(section, operation, trimmed_mean(own), "s", PEER, trimmed_mean(other), 1.1, size)
        for operation, own, other in zip(("settle alone", "until all tested again"), ours, theirs)
    ]


def idle(size: int) -> Row:
    visits = max(20, min(40, 4096 // size))
    ours, theirs = map(median, zip(*(processor_shares(size, visit) for visit in range(visits))))
    section = "3. Python, processor time by calls that wait in vain"
    return Row(section, "processor time", ours, "s/s", PEER, theirs, 1.1, size)


def wake_ups() -> list[Row]:
    [ours], [theirs] = pooled([partial(wake_up, kind) for kind in KINDS], visits=200)
    section = "3. Python, from settle to admitted"
    return [
        Row(section, "median", median(ours), "s", PEER, median(theirs), 1.1),
        Row(section, "99th percentile", percentile_99(ours), "s", PEER, percentile_99(theirs), 1.1),
    ]


def percentile_99(samples: list[float]) -> float:
    return quantiles(samples, n=100)[98]


def measured() -> list[Row]:
    back = [row for size in SIZES for row in give_backs(size)]
    return [*back[::2], *back[1::2], *map(idle, SIZES), *wake_ups()]
