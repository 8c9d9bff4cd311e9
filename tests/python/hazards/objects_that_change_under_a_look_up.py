"""Python code that runs while the module looks something up, and takes away what it looks at."""

import threading
import weakref

import decision_bounds as bounds

ROUNDS = 3000


class Name(str):
    """Equal to the name that it stands for, by Python code that does something first."""

    __hash__ = str.__hash__

    def __eq__(self, other):
        self.act()
        return str.__eq__(self, other)


def a_lock_that_goes_while_the_next_is_stored():
    condition = threading.Condition()
    vars(condition).clear()
    condition.__dict__ = {"_lock": threading.RLock(), "_waiters": threading.Condition()._waiters}
    budget = bounds.RunBudget(5, 5, _changed=condition)

    def store(lock):
        condition._lock = lock

    for _ in range(ROUNDS):
        lock = threading.RLock()
        watch = weakref.ref(lock, lambda _: budget.summary())  # in the middle of a store
        store(lock)
        del lock
        assert budget.summary()["calls"] == 0 and watch() is condition._lock
        store(threading.RLock())


def an_attribute_dict_that_its_own_key_replaces():
    budget = bounds.RunBudget(ROUNDS, 5)
    name = Name("release")
    name.act = lambda: setattr(budget, "__dict__", {})
    for _ in range(ROUNDS // 10):
        budget.__dict__ = {name: 1, **dict.fromkeys("abcdef")}
        budget.hold(1.0).settle(None)
    assert budget.in_flight == 0, "a held amount was lost"


def main():
    a_lock_that_goes_while_the_next_is_stored()
    an_attribute_dict_that_its_own_key_replaces()
