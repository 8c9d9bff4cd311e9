"""What the importing program sees: names, signatures, types, records, fields, arguments."""

import copy
import inspect
import pickle
import threading
from _thread import LockType
from functools import partial
from importlib import import_module
from types import SimpleNamespace
from unittest.mock import call

import decision_bounds as bounds
import pytest
from support import DAY, Reply, admit, boom

NAMES = """logger _POLL_S DecisionError DecisionBudgetExceeded DecisionUnavailable DecisionTimeout
    DecisionStopped PaidReply never _nothing Share _Held _wait _Charges RequestRates RunBudget
    DailySpend""".split()
TYPES = NAMES[10:12] + NAMES[13:]
FIELDS = [(owner, name) for owner in TYPES for name, field in vars(getattr(bounds, owner)).items()
          if inspect.isdatadescriptor(field) and name[:2] != "__"]  # fmt: skip
CONSTRUCTORS = {
    "Share": "give_back=<built-in function _nothing>", "RequestRates": "",
    "_Held": "holders=0, amount=0.0, unbounded=0", "_Charges": "per_byte=0.0, per_call=0.0",
    "RunBudget": "max_calls, max_tokens, calls=0, input_tokens=0, cost=0.0, cache_hits=0, "
    "in_flight=0, should_stop=<built-in function never>, _held_tokens=<factory>, "
    "_changed=<factory>",
    "DailySpend": "cap, today, ledger",
}  # fmt: skip
REFUSED = [
    ("bounds.RunBudget", call(1), "max_tokens"), ("budget.__init__", call(2**63, 1), "max_calls"),
    ("bounds.RunBudget", call(1, 2, should_stop=3), "should_stop"),
    ("spend.__init__", call("1", str, None), "cap"),
    ("bounds.DailySpend", call(1.0, str), "ledger"), ("bounds._Held", call(other=1), "other"),
    ("bounds.DailySpend", call(1.0, "x", None), "today"), ("bounds.Share", call(None), "give_back"),
    ("share.settle", call(), "reply"), ("budget.hold", call(), "tokens"),
    ("budget.hold", call("1"), "tokens"), ("budget.hold", call(1.0, tokens=1.0), "tokens"),
    ("budget.release", call(10**400), "tokens"), ("budget.charge", call(None), "result"),
    ("spend.charge", call(None), "reply"), ("spend._spent_since", call(b"2024"), "day"),
    ("spend.admit", call(float, None, float, bool), "positional"),
    ("spend.admit", call(float, deadline=None, clock=float), "stopping"),
    ("spend.admit", call(str, deadline=None, clock=float, stopping=bool), "bound"),
    ("spend.admit", call(float, deadline="soon", clock=float, stopping=bool), "deadline"),
    ("rates.learn", call(2**63, "f", Reply()), "size"), ("rates.cost", call(1.5, "f"), "size"),
    ("rates.learn", call(1, b"f", Reply()), "feature"),
]  # fmt: skip


def made(name, module=bounds):
    arguments = {"RunBudget": (10, 100), "DailySpend": (10.0, lambda: "today", None)}
    return getattr(module, name)(*arguments.get(name, ()))


def test_the_names_are_bound_in_order_and_the_public_ones_exported():
    assert [name for name in vars(bounds) if name[:2] != "__"] == NAMES
    assert bounds._POLL_S == 0.1 and len(bounds.__doc__) > 40 and not hasattr(bounds, "__all__")
    assert len(FIELDS) == 28


@pytest.mark.parametrize("name", CONSTRUCTORS)
def test_a_type_is_made_from_its_parameters_and_says_what_it_is_for(name):
    made = getattr(bounds, name)
    assert str(inspect.signature(made)) == f"({CONSTRUCTORS[name]})" and len(made.__doc__) > 40


def test_defaults_are_the_modules_own_functions_and_a_new_object_each():
    one, other = made("RunBudget"), made("RunBudget")
    assert bounds.Share()._give_back is bounds._nothing and one.should_stop is bounds.never
    assert bounds.never() is False and bounds._nothing(_reply=Reply()) is None
    assert one._held_tokens is not other._held_tokens and one._changed is not other._changed
    assert type(one._changed) is type(made("DailySpend")._changed) is threading.Condition
    assert type(made("RequestRates")._lock) is LockType


@pytest.mark.parametrize("name", ["decision_bounds", "decision_client.engines.decision_bounds"])
def test_types_errors_and_logger_are_named_after_the_import(name, fresh):
    module = import_module(name)
    assert module.logger.name == name and fresh.RunBudget.__module__ == "a.decision_bounds"
    assert {value.__module__ for value in vars(module).values() if callable(value)} == {name}
    for error in (getattr(module, error) for error in NAMES[2:7]):
        again = pickle.loads(pickle.dumps(error("a text")))
        assert type(again) is error and again.args == ("a text",)
        is_root = error is module.DecisionError
        assert error.__bases__ == ((RuntimeError if is_root else module.DecisionError),)
    with pytest.raises(fresh.DecisionBudgetExceeded):
        fresh.RunBudget(0, 9, _held_tokens=module._Held()).hold(3.0)


def test_records_show_and_compare_their_fields():
    budget = bounds.RunBudget(3, 9, cost=0.5, should_stop=bool, _held_tokens=bounds._Held(1))
    assert repr(budget).startswith("RunBudget(max_calls=3, max_tokens=9, calls=0, input_tokens=0")
    assert repr(budget).endswith(", cost=0.5, cache_hits=0, in_flight=0)")
    assert budget == bounds.RunBudget(3, 9, 0, 0, 0.5) != bounds.RunBudget(3, 9)
    held, fields = bounds._Held(2, 1e16, 1), [name for owner, name in FIELDS if owner == "_Held"]
    assert [*bounds._Held.__match_args__] == fields == ["holders", "amount", "unbounded"]
    assert held == copy.copy(held) == pickle.loads(pickle.dumps(held)) != bounds._Held()
    for record in (budget, held, bounds._Charges()):
        derived = type("Derived", (type(record),), {})(1, 2)
        assert derived != type(record)(1, 2) and repr(derived).startswith("Derived(")
        assert type(record).__hash__ is None
        for use, text in (lambda r: r.__eq__(other=r), "keyword"), (lambda r: r < r, "supported"):
            with pytest.raises(TypeError, match=text):
                use(record)


def test_a_reply_is_known_by_its_three_properties():
    assert isinstance(Reply(), bounds.PaidReply) and not isinstance(object(), bounds.PaidReply)
    assert bounds.PaidReply.__abstractmethods__ == {"cached", "input_tokens", "cost"}


@pytest.mark.parametrize(("owner", "name"), FIELDS)
def test_a_field_can_be_read_set_and_deleted_and_refuses_what_it_cannot_hold(owner, name):
    takes = {int: (2**62, "x", 1.5, 2**63), float: (0.1, "x", 10**400), str: (DAY, 2024),
             bool: (True,), set: ({"a"}, ["a"]), bounds._Charges: (bounds._Charges(), 1.0),
             bounds._Held: (bounds._Held(), bounds.Share()), type(None): (bool, 5)}  # fmt: skip
    thing = made(owner)
    before = getattr(thing, name)
    lock = SimpleNamespace(**{name: boom for name in dir(threading.Condition)})  # for no with block
    function, condition = (lambda: False, 5), (threading.Condition(), boom, lock)
    good, *bad = takes.get(type(before), function if callable(before) else condition)
    setattr(thing, name, good)
    for value in bad:
        too_large = isinstance(value, int) and value >= 2**63
        with pytest.raises(OverflowError if too_large else TypeError, match=name):
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


@pytest.mark.parametrize("manner", ["type", "subclass"])
@pytest.mark.parametrize("name", TYPES)
def test_a_finalizer_runs_once_and_may_keep_the_object(name, manner, fresh):
    kept, thing = [], made(name, fresh)
    if manner == "subclass":
        thing.__class__ = type("Derived", (type(thing),), {})
    type(thing).__del__ = lambda self: kept.append(self)
    del thing
    assert [isinstance(thing, getattr(fresh, name)) for thing in kept] == [True]
    kept.clear()
    assert kept == []


def test_the_action_of_a_share_is_a_function_until_it_is_given_back():
    budget, spend = made("RunBudget"), made("DailySpend")
    tokens, dollars = budget.hold(3.0), admit(spend, 0.5)
    action = dollars._give_back
    assert isinstance(action, partial) and action is dollars._give_back
    assert (action.func, action.args) == (spend._give_back, (0.5,))
    tokens._give_back(Reply())
    dollars.settle(None)
    assert dollars._give_back is None and spend._held.holders == budget.in_flight == 0
