"""What the importing program sees: names, signatures, types, records, fields, arguments."""

import copy
import inspect
import pickle
import threading
from importlib import import_module
from types import SimpleNamespace
from unittest.mock import call

import decision_bounds as bounds
import pytest
from support import DAY, Reply, boom, import_fresh

NAMES = """logger _POLL_S DecisionError DecisionBudgetExceeded DecisionUnavailable DecisionTimeout
    DecisionStopped PaidReply never _nothing Share _Held _wait _Charges RequestRates RunBudget
    DailySpend""".split()
TYPES = NAMES[10:12] + NAMES[13:]
FIELDS = [(owner, name) for owner in TYPES for name, field in vars(getattr(bounds, owner)).items()
          if inspect.isdatadescriptor(field) and name[:2] != "__"]  # fmt: skip
SIGNATURES = {  # what they end with
    "Share": "(give_back=<built-in function _nothing>)", "DailySpend": "(cap, today, ledger)",
    "_Held": "(holders=0, amount=0.0, unbounded=0)", "RequestRates": "()",
    "RunBudget": "=<built-in function never>, _held_tokens=<factory>, _changed=<factory>)",
}  # fmt: skip
REFUSED = [
    ("bounds.RunBudget", call(1, 2, should_stop=3), "should_stop"),
    ("budget.__init__", call(2**63, 1), "max_calls"), ("bounds._Held", call(other=1), "other"),
    ("bounds.DailySpend", call(1.0, "x", None), "today"), ("bounds.Share", call(None), "give_back"),
    ("spend.__init__", call("1", str, None), "cap"), ("bounds.RunBudget", call(1), "max_tokens"),
    ("budget.hold", call(1.0, tokens=1.0), "tokens"), ("budget.hold", call("1"), "tokens"),
    ("budget.charge", call(None), "result"), ("budget.release", call(10**400), "tokens"),
    ("spend._spent_since", call(b"2024"), "day"), ("spend.charge", call(None), "reply"),
    ("spend.admit", call(float, None, float, bool), "positional"),
    ("spend.admit", call(str, deadline=None, clock=float, stopping=bool), "bound"),
    ("spend.admit", call(float, deadline="soon", clock=float, stopping=bool), "deadline"),
    ("spend.admit", call(float, deadline=None, clock=float, stopping=None), "stopping"),
    ("rates.cost", call(1.5, "f"), "size"), ("rates.learn", call(2**63, "f", Reply()), "size"),
    ("rates.learn", call(1, b"f", Reply()), "feature"), ("share.settle", call(), "reply"),
    ("bounds.Share", call(print, more=1), "more"),
]  # fmt: skip


def made(name, module=bounds):
    arguments = {"RunBudget": (10, 100), "DailySpend": (10.0, lambda: "today", None)}
    return getattr(module, name)(*arguments.get(name, ()))


def test_the_names_are_bound_in_order_and_the_public_ones_exported():
    assert [name for name in vars(bounds) if name[:2] != "__"] == NAMES
    assert bounds._POLL_S == 0.1 and len(bounds.__doc__) > 40 and not hasattr(bounds, "__all__")
    assert len(FIELDS) == 28
    for name, end in SIGNATURES.items():
        made = getattr(bounds, name)
        assert str(inspect.signature(made)).endswith(end) and len(made.__doc__) > 40


def test_defaults_are_the_modules_own_functions_and_a_new_object_each():
    one, other = made("RunBudget"), made("RunBudget")
    assert bounds.Share()._give_back is bounds._nothing and one.should_stop is bounds.never
    assert bounds.never() is False and bounds._nothing(_reply=Reply()) is None
    assert one._held_tokens is not other._held_tokens and one._changed is not other._changed
    assert type(one._changed) is type(made("DailySpend")._changed) is threading.Condition


@pytest.mark.parametrize("name", ["decision_bounds", "decision_client.engines.decision_bounds"])
def test_types_errors_and_logger_are_named_after_the_import(name):
    module = import_module(name)
    errors = [getattr(module, error) for error in NAMES[2:7]]
    assert module.logger.name == name
    assert {value.__module__ for value in vars(module).values() if callable(value)} == {name}
    assert [error.__base__ for error in errors] == [RuntimeError, *errors[:1] * 4]
    for error in errors:
        again = pickle.loads(pickle.dumps(error("a text")))
        assert type(again) is error and again.args == ("a text",)
    with pytest.raises(module.DecisionBudgetExceeded):
        module.RunBudget(0, 9, _held_tokens=import_fresh()._Held()).hold(3.0)


def test_records_show_and_compare_their_fields_and_a_reply_has_three():
    budget = bounds.RunBudget(3, 9, cost=0.5, should_stop=bool, _held_tokens=bounds._Held(1))
    assert repr(budget).startswith("RunBudget(max_calls=3, max_tokens=9, calls=0,")
    assert budget == bounds.RunBudget(3, 9, 0, 0, 0.5) != bounds.RunBudget(3, 9)
    held = bounds._Held(2, 1e16, 1)
    assert bounds._Held.__match_args__ == ("holders", "amount", "unbounded")
    assert held == copy.copy(held) == pickle.loads(pickle.dumps(held)) != bounds._Held()
    for record in (budget, held, bounds._Charges()):
        derived = type("Derived", (type(record),), {})(1, 2)
        assert derived != type(record)(1, 2) and repr(derived).startswith("Derived(")
        assert type(record).__hash__ is None and record.__lt__(record) is NotImplemented
        pytest.raises(TypeError, record.__eq__, other=record)
    assert isinstance(Reply(), bounds.PaidReply) and not isinstance(held, bounds.PaidReply)
    assert bounds.PaidReply.__abstractmethods__ == {"cached", "input_tokens", "cost"}


@pytest.mark.parametrize(("owner", "name"), FIELDS)
def test_a_field_can_be_read_set_and_deleted_and_refuses_what_it_cannot_hold(owner, name):
    takes = {int: (2**62, "x", 1.5, 2**63), float: (0.1, "x", 10**400), str: (DAY, 2024),
             bool: (True,), set: ({"a"}, ["a"]), bounds._Charges: (bounds._Charges(), 1.0),
             bounds._Held: (bounds._Held(), bounds.Share()), type(None): (bool, 5)}  # fmt: skip
    before = getattr(thing := made(owner), name)
    lock = SimpleNamespace(**{name: boom for name in dir(threading.Condition)})  # for no with block
    function, condition = (lambda: False, 5), (threading.Condition(), boom, lock)
    good, *bad = takes.get(type(before), function if callable(before) else condition)
    setattr(thing, name, good)
    for value in bad:
        with pytest.raises(OverflowError if value in (2**63, 10**400) else TypeError, match=name):
            setattr(thing, name, value)
    found = getattr(thing, name)
    assert found == good if isinstance(good, (int, float, str)) else found is good
    delattr(thing, name)
    with pytest.raises(AttributeError, match=f"'{owner}' object has no attribute '{name}'"):
        getattr(thing, name)


@pytest.mark.parametrize(("path", "arguments", "named"), REFUSED, ids=str)
def test_a_wrong_argument_is_named_and_changes_nothing(path, arguments, named):
    budget, spend, rates, share = map(made, ("RunBudget", "DailySpend", "RequestRates", "Share"))
    target, step = path.split(".")
    with pytest.raises((TypeError, OverflowError), match=named):
        getattr(locals().get(target, bounds), step)(*arguments.args, **arguments.kwargs)
    assert budget == made("RunBudget") and budget._held_tokens == spend._held == bounds._Held()
    assert (spend._cap, spend._cost, rates._features) == (10.0, 0.0, set())


def test_a_keyword_that_is_no_str_is_refused():
    with pytest.raises(TypeError, match="keywords must be strings"):
        bounds.RunBudget(**{1: 2})


@pytest.mark.parametrize("manner", ["type", "subclass"])
@pytest.mark.parametrize("name", TYPES)
def test_a_finalizer_runs_once_and_may_keep_the_object(name, manner):
    kept, thing = [], made(name, fresh := import_fresh())
    if manner == "subclass":
        thing.__class__ = type("Derived", (type(thing),), {})
    type(thing).__del__ = lambda self: kept.append(self)
    del thing
    assert [isinstance(thing, getattr(fresh, name)) for thing in kept] == [True]
    kept.clear()
    assert kept == []

