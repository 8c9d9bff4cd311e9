"""What the importing program sees: names, signatures, types, records, fields, arguments."""

import copy
import inspect
import operator
import pickle
import threading
import weakref
from functools import partial
from importlib import import_module

import decision_bounds as bounds
import pytest
from support import DAY, Reply, admit, boom

NAMES = """logger _POLL_S DecisionError DecisionBudgetExceeded DecisionUnavailable DecisionTimeout
    DecisionStopped PaidReply never _nothing Share _Held _wait _Charges RequestRates RunBudget
    DailySpend""".split()
SIGNATURES = """never(); _nothing(_reply); _wait(changed, stopping, *, deadline=None, clock=None)
Share(give_back=<built-in function _nothing>); Share.settle(reply); Share.__enter__()
Share.__exit__(*error); _Held(holders=0, amount=0.0, unbounded=0); _Held.take(share)
_Held.admits(share, used, limit); _Held.give_back(share); _Charges(per_byte=0.0, per_call=0.0)
_Charges.bound(size); _Charges.learn(size, charge); RequestRates(); RequestRates.tokens(size)
RequestRates.cost(size, feature); RequestRates.learn(size, feature, reply)
RunBudget(max_calls, max_tokens, calls=0, input_tokens=0, cost=0.0, cache_hits=0, in_flight=0, \
should_stop=<built-in function never>, _held_tokens=<factory>, _changed=<factory>)
RunBudget.stopping(); RunBudget.exhausted(); RunBudget._exhausted_locked(); RunBudget.summary()
RunBudget._summary_locked(); RunBudget.reserve(tokens=0.0); RunBudget.hold(tokens)
RunBudget.release(tokens=0.0); RunBudget.charge(result, tokens=0.0)
DailySpend(cap, today, ledger); DailySpend.spent(); DailySpend._give_back(held, reply)
DailySpend.admit(bound, *, deadline, clock, stopping); DailySpend.charge(reply)
DailySpend._today_locked(); DailySpend._spent_since(day)""".replace("\n", "; ").split("; ")
FIELDS = {
    "_Held": "holders amount unbounded", "_Charges": "per_byte per_call", "Share": "_give_back",
    "RequestRates": "_lock _cost _tokens _features",
    "RunBudget": "max_calls max_tokens calls input_tokens cost cache_hits in_flight should_stop "
    "_held_tokens _changed",
    "DailySpend": "_cap _today _ledger _changed _held _day _cost _capped",
}  # fmt: skip
REFUSED = {
    "bounds.RunBudget(1)": "max_tokens", "bounds.RunBudget(1, 2, should_stop=3)": "should_stop",
    "budget.__init__(2**63, 1)": "max_calls", "bounds.DailySpend(1.0, 'x', None)": "today",
    "spend.__init__('1', str, None)": "cap", "bounds.DailySpend(1.0, str)": "ledger",
    "bounds.Share(None)": "give_back", "bounds.Share().settle()": "reply",
    "budget.hold()": "tokens", "budget.hold('1')": "tokens", "budget.release(10**400)": "tokens",
    "budget.hold(1.0, tokens=1.0)": "tokens", "budget.charge(None)": "result",
    "spend.charge(None)": "reply", "spend.admit(float, None, float, bool)": "positional",
    "spend.admit(float, deadline=None, clock=float)": "stopping", "admit(spend, str)": "bound",
    "admit(spend, deadline='soon')": "deadline", "spend._spent_since(b'2024')": "day",
    "rates.learn(2**63, 'f', Reply())": "size", "rates.learn(1, b'f', Reply())": "feature",
    "rates.cost(1.5, 'f')": "size", "bounds._Held(other=1)": "other",
}  # fmt: skip


def made(name):
    arguments = {"RunBudget": (10, 100), "DailySpend": (10.0, lambda: "today", None)}
    return getattr(bounds, name)(*arguments.get(name, ()))


def test_the_names_are_bound_in_order_and_the_public_ones_exported():
    assert [name for name in vars(bounds) if name[:2] != "__"] == NAMES
    exec("from decision_bounds import *", exported := {})
    assert list(exported)[1:] == [name for name in NAMES if name[0] != "_"]
    assert bounds._POLL_S == 0.1 and "gives it back exactly once" in bounds.__doc__


@pytest.mark.parametrize("signature", SIGNATURES)
def test_a_callable_has_its_parameters_and_says_what_it_does(signature):
    path = signature.partition("(")[0]
    target = operator.attrgetter(path)(bounds)
    found = str(inspect.signature(target)).replace("(self, /, ", "(").replace("(self, /)", "()")
    assert path + found == signature and len(target.__doc__) > 15


def test_defaults_are_the_modules_own_functions_and_a_new_object_each():
    parameters = inspect.signature(bounds.RunBudget).parameters
    one, other, share = made("RunBudget"), made("RunBudget"), inspect.signature(bounds.Share)
    assert share.parameters["give_back"].default is bounds._nothing is bounds.Share()._give_back
    assert parameters["should_stop"].default is bounds.never is one.should_stop
    assert bounds.never() is False and bounds._nothing(_reply=Reply()) is None
    assert one._held_tokens is not other._held_tokens and one._changed is not other._changed
    assert type(one._changed) is type(made("DailySpend")._changed) is threading.Condition
    assert isinstance(made("RequestRates")._lock, type(threading.Lock()))


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


@pytest.mark.parametrize("name", FIELDS)
def test_a_type_can_be_derived_from_weakly_referenced_and_given_attributes(name):
    thing, derived = made(name), type("Derived", (getattr(bounds, name),), {"more": 1})
    assert isinstance(derived.__new__(derived), getattr(bounds, name)) and derived.more == 1
    thing.note = reference = weakref.ref(thing, (gone := []).append)
    assert vars(thing) == {"note": reference} and reference() is thing
    del thing
    assert reference() is None and gone == [reference]


def test_records_show_and_compare_their_fields():
    budget = bounds.RunBudget(3, 9, cost=0.5, should_stop=bool, _held_tokens=bounds._Held(1))
    assert repr(budget).startswith("RunBudget(max_calls=3, max_tokens=9, calls=0, input_tokens=0")
    assert repr(budget).endswith(", cost=0.5, cache_hits=0, in_flight=0)")
    assert budget == bounds.RunBudget(3, 9, 0, 0, 0.5) != bounds.RunBudget(3, 9)
    held = bounds._Held(2, 1e16, 1)
    match held, budget:
        case bounds._Held(2, 1e16, 1), bounds.RunBudget(3, 9, 0):
            pass
        case _:
            raise AssertionError("not matched by position")
    assert held == copy.copy(held) == pickle.loads(pickle.dumps(held)) != bounds._Held()
    for record in (budget, held, bounds._Charges()):
        derived = type("Derived", (type(record),), {})(1, 2)
        assert derived != type(record)(1, 2) and repr(derived).startswith("Derived(")
        with pytest.raises(TypeError, match="unhashable"):
            hash(record)
        with pytest.raises(TypeError, match="not supported"):
            assert record < record


def test_a_reply_is_known_by_its_three_properties():
    assert isinstance(Reply(), bounds.PaidReply) and not isinstance(object(), bounds.PaidReply)
    assert bounds.PaidReply.__abstractmethods__ == {"cached", "input_tokens", "cost"}
    with pytest.raises(TypeError, match="abstract"):
        type("Half", (bounds.PaidReply,), {"cost": 1.0})()


@pytest.mark.parametrize(("owner", "name"), [(o, n) for o in FIELDS for n in FIELDS[o].split()])
def test_a_field_can_be_read_set_and_deleted_and_refuses_what_it_cannot_hold(owner, name):
    takes = {int: (2**62, "x", 1.5, 2**63), float: (0.1, "x", 10**400), str: (DAY, 2024),
             bool: (True,), set: ({"a"}, ["a"]), bounds._Charges: (bounds._Charges(), 1.0),
             bounds._Held: (bounds._Held(), bounds.Share()), type(None): (bool, 5)}  # fmt: skip
    thing = made(owner)
    before = getattr(thing, name)
    function, condition = (lambda: False, 5), (threading.Condition(), boom)
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


@pytest.mark.parametrize("call", REFUSED)
def test_a_wrong_argument_is_named_and_changes_nothing(call):
    budget, spend, rates = made("RunBudget"), made("DailySpend"), made("RequestRates")
    with pytest.raises((TypeError, OverflowError), match=REFUSED[call]):
        eval(call, globals(), {"budget": budget, "spend": spend, "rates": rates})
    assert budget == made("RunBudget") and budget._held_tokens == spend._held == bounds._Held()
    assert (spend._cap, spend._cost, rates._features) == (10.0, 0.0, set())


def test_the_action_of_a_share_is_a_function_until_it_is_given_back():
    budget, spend = made("RunBudget"), made("DailySpend")
    tokens, dollars = budget.hold(3.0), admit(spend, 0.5)
    action = dollars._give_back
    assert isinstance(action, partial) and action is dollars._give_back
    assert (action.func, action.args) == (spend._give_back, (0.5,))
    tokens._give_back(Reply())
    dollars.settle(None)
    assert dollars._give_back is None and spend._held.holders == budget.in_flight == 0
