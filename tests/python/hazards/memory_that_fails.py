"""Each allocation of each operation fails in its turn: all is as before, or done."""

from itertools import count, product

from _testcapi import remove_mem_hooks, set_nomemory

from support import Kind
from world import OPERATIONS, World

QUIET = 12  # an operation may do without an allocation that fails: so many in a row end the search
# An error that passes a Python frame without memory may become the interpreter's SystemError.
NAMES = [name for name in OPERATIONS if not name.endswith("and wait")]


def is_quiet(operate, world, k):
    """Whether the operation succeeds although its k-th allocation fails."""
    set_nomemory(k, k + 1)
    try:
        return operate(world) or True
    except (MemoryError, RuntimeError):  # the latter from threading.RLock()
        return False
    finally:
        remove_mem_hooks()


def main():
    for kind, name in product(("plain", "native"), NAMES):
        world, operate, quiet = World(Kind(kind)), OPERATIONS[name], 0
        before, _, after = world.state(), operate(world), world.state()
        for k in count():
            del world  # before the next one, which takes over what it used
            world = World(Kind(kind))
            quiet = quiet + 1 if is_quiet(operate, world, k) else 0
            where = f"{name}, {kind}, without memory at allocation {k}"
            assert not world.holds_a_lock(), f"{where}: a lock is held"
            if world.state() == before:
                operate(world)
            assert world.state() == after, f"{where}: {world.state()} for {after}"
            if quiet == QUIET:
                break
