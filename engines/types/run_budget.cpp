#include "types/run_budget.hpp"

#include "docs.hpp"
#include "types/method.hpp"
#include "types/share.hpp"

namespace decision_bounds::python {
namespace {

Owned never_stop(PyObject* module) { return Owned::copy(module_state(module)[Kept::never]); }

#define DECISION_BOUNDS_COUNTER(name) \
  { #name, DECISION_BOUNDS_PLACE(RunBudgetObject, counts.name), #name }
#define DECISION_BOUNDS_LIMIT(name) \
  { #name, DECISION_BOUNDS_PLACE(RunBudgetObject, counts.name), #name, true }

// The attributes, and the parameters of __init__ in their order.
constexpr Field budget_fields[] = {
    DECISION_BOUNDS_LIMIT(max_calls),
    DECISION_BOUNDS_LIMIT(max_tokens),
    DECISION_BOUNDS_COUNTER(calls),
    DECISION_BOUNDS_COUNTER(input_tokens),
    DECISION_BOUNDS_COUNTER(cost),
    DECISION_BOUNDS_COUNTER(cache_hits),
    DECISION_BOUNDS_COUNTER(in_flight),
    object_field("should_stop", DECISION_BOUNDS_PLACE(RunBudgetObject, should_stop), check_callable,
                 never_stop, "should_stop"),
    object_field("_held_tokens", DECISION_BOUNDS_PLACE(RunBudgetObject, held_tokens), check_held,
                 new_held, "_held_tokens"),
    object_field("_changed", DECISION_BOUNDS_PLACE(RunBudgetObject, changed), check_condition,
                 new_condition, "_changed"),
    {nullptr, DECISION_BOUNDS_PLACE(RunBudgetObject, changed_parts.lock)},
    {nullptr, DECISION_BOUNDS_PLACE(RunBudgetObject, changed_parts.waiters)}};

// ---- the share of a pass ----

void end_call(State& state, PyObject* budget, PyObject* tokens, PyObject* reply) {
  BudgetOperation(state, *reinterpret_cast<RunBudgetObject*>(budget), Locking::must_go_on)
      .end(tokens, reply);
}

PyObject* give_back_entry(PyObject* pair, PyObject* reply) {
  return guarded<PyObject*>(nullptr, [=] {
    PyObject* budget = PyTuple_GET_ITEM(pair, 0);
    end_call(state_of(budget), budget, PyTuple_GET_ITEM(pair, 1), reply);
    return none().release();
  });
}

PyMethodDef give_back_function = {
    "give_back", give_back_entry, METH_O,
    "give_back(reply, /)\n--\n\n"
    "Gives back what the call held of its pass: charges reply, or releases when it is None."};

Owned give_back_object(State&, PyObject* budget, PyObject* tokens) {
  const Owned pair = checked([=] { return PyTuple_Pack(2, budget, tokens); });
  return checked([&] { return PyCFunction_New(&give_back_function, pair.get()); });
}

const GiveBack gives_tokens_back{end_call, give_back_object};

// ---- the methods ----

Owned stopping(State& state, RunBudgetObject& self, const Arguments& arguments) {
  take_none("stopping", arguments);
  return to_bool(should_stop(state, self));
}

Owned exhausted(State& state, RunBudgetObject& self, const Arguments& arguments) {
  take_none("exhausted", arguments);
  BudgetOperation budget(state, self);
  return to_bool(budget.answer_of([&] { return budget.exhausted(); }));
}

Owned exhausted_locked(State& state, RunBudgetObject& self,
                       const Arguments& arguments) DECISION_BOUNDS_NO_ANALYSIS {
  take_none("_exhausted_locked", arguments);
  return to_bool(BudgetOperation(state, self).RunBudgetRules::exhausted_locked());
}

Owned summary(State& state, RunBudgetObject& self, const Arguments& arguments) {
  take_none("summary", arguments);
  BudgetOperation budget(state, self);
  return budget.answer_of([&] { return budget.summary(); });
}

Owned summary_locked(State& state, RunBudgetObject& self, const Arguments& arguments) {
  take_none("_summary_locked", arguments);
  return as_dict(state, self.counts);
}

/// A tokens argument with a default of 0.
Owned tokens_or_0(PyObject* value) {
  return value != nullptr ? as_float(value, "tokens") : to_python(0.0);
}

Owned reserve(State& state, RunBudgetObject& self, const Arguments& arguments) {
  constexpr Parameters<1> parameters{"reserve", {"tokens"}, 1, 0};
  const Owned tokens = tokens_or_0(parameters.sorted(arguments)[0]);
  BudgetOperation budget(state, self);
  budget.with_amount(tokens.get(), [&](double amount) { budget.reserve(amount); });
  return none();
}

Owned hold(State& state, RunBudgetObject& self, const Arguments& arguments) {
  constexpr Parameters<1> parameters{"hold", {"tokens"}};
  Owned tokens = as_float(parameters.sorted(arguments)[0], "tokens");
  Owned share = new_share(state);
  BudgetOperation(state, self).admit(tokens.get());
  arm(share, gives_tokens_back, object_of(self), std::move(tokens));
  return share;
}

Owned release(State& state, RunBudgetObject& self, const Arguments& arguments) {
  constexpr Parameters<1> parameters{"release", {"tokens"}, 1, 0};
  const Owned tokens = tokens_or_0(parameters.sorted(arguments)[0]);
  BudgetOperation budget(state, self, Locking::must_go_on);
  budget.with_amount(tokens.get(), [&](double amount) { budget.release(amount); });
  return none();
}

Owned charge(State& state, RunBudgetObject& self, const Arguments& arguments) {
  constexpr Parameters<2> parameters{"charge", {"result", "tokens"}, 2, 1};
  const auto [result, reserved] = parameters.sorted(arguments);
  const Owned tokens = tokens_or_0(reserved);
  const PythonReply paid(state, as_reply(result, "result"));
  // With no tokens it may be a cache hit, which gives nothing back and can be tried again.
  const bool ends_call = BudgetOperation::stands_for_a_call(PyFloat_AS_DOUBLE(tokens.get()));
  BudgetOperation budget(state, self, ends_call ? Locking::must_go_on : Locking::may_fail);
  budget.with_amount(tokens.get(),
                     [&](double amount) { budget.RunBudgetRules::charge(paid, amount); });
  return none();
}

PyMethodDef methods[] = {
    method<stopping>("stopping", doc::RunBudget_stopping),
    method<exhausted>("exhausted", doc::RunBudget_exhausted),
    method<exhausted_locked>("_exhausted_locked", doc::RunBudget_exhausted_locked),
    method<summary>("summary", doc::RunBudget_summary),
    method<summary_locked>("_summary_locked", doc::RunBudget_summary_locked),
    method<reserve>("reserve", doc::RunBudget_reserve),
    method<hold>("hold", doc::RunBudget_hold),
    method<release>("release", doc::RunBudget_release),
    method<charge>("charge", doc::RunBudget_charge),
    {}};

}  // namespace

constinit const Fields RunBudgetObject::fields = budget_fields;

PyTypeObject* make_run_budget_type(PyObject* module) {
  return make_record_type<RunBudgetObject, &RunBudgetObject::counts>(
      module, {"decision_bounds.RunBudget", doc::RunBudget, methods, init_slot<RunBudgetObject>});
}

}  // namespace decision_bounds::python
