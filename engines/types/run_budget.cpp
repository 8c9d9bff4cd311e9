#include "types/run_budget.hpp"

#include "types/method.hpp"
#include "types/share.hpp"

namespace decision_bounds::python {
namespace {

Owned never_stop(PyObject* self) { return Owned::copy(state_of(self)[Kept::never]); }

#define DECISION_BOUNDS_COUNTER(name) \
  { #name, DECISION_BOUNDS_PLACE(RunBudgetObject, counts.name) }

constexpr Field budget_fields[] = {
    DECISION_BOUNDS_COUNTER(max_calls),
    DECISION_BOUNDS_COUNTER(max_tokens),
    DECISION_BOUNDS_COUNTER(calls),
    DECISION_BOUNDS_COUNTER(input_tokens),
    DECISION_BOUNDS_COUNTER(cost),
    DECISION_BOUNDS_COUNTER(cache_hits),
    DECISION_BOUNDS_COUNTER(in_flight),
    {"should_stop", DECISION_BOUNDS_PLACE(RunBudgetObject, should_stop), check_callable,
     never_stop},
    {"_held_tokens", DECISION_BOUNDS_PLACE(RunBudgetObject, held_tokens), check_held, new_held},
    {"_changed", DECISION_BOUNDS_PLACE(RunBudgetObject, changed), check_condition, new_condition},
    {nullptr, DECISION_BOUNDS_PLACE(RunBudgetObject, changed_parts.lock)},
    {nullptr, DECISION_BOUNDS_PLACE(RunBudgetObject, changed_parts.waiters)}};

// ---- the share of a pass ----

constexpr auto end_tokens = end_call<BudgetOperation, RunBudgetObject>;

PyObject* give_back_entry(PyObject* pair, PyObject* reply) {
  return guarded<PyObject*>(nullptr, [=] {
    PyObject* budget = PyTuple_GET_ITEM(pair, 0);
    end_tokens(state_of(budget), budget, PyTuple_GET_ITEM(pair, 1), reply);
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

const GiveBack gives_tokens_back{end_tokens, give_back_object};

// ---- the methods ----

bool stopping(State& state, RunBudgetObject& self) { return should_stop(state, self); }

bool exhausted(State& state, RunBudgetObject& self) {
  BudgetOperation budget(state, self);
  return budget.answer_of([&] { return budget.exhausted(); });
}

bool exhausted_locked(State& state, RunBudgetObject& self) DECISION_BOUNDS_NO_ANALYSIS {
  return BudgetOperation(state, self).RunBudgetRules::exhausted_locked();
}

Owned summary(State& state, RunBudgetObject& self) {
  BudgetOperation budget(state, self);
  return budget.answer_of([&] { return budget.summary(); });
}

Owned summary_locked(State& state, RunBudgetObject& self) { return as_dict(state, self.counts); }

void reserve(State& state, RunBudgetObject& self, const Float& tokens) {
  BudgetOperation budget(state, self);
  budget.with_amount(tokens.get(), [&](double amount) { budget.reserve(amount); });
}

Owned hold(State& state, RunBudgetObject& self, Float tokens) {
  Owned share = new_share(state);
  BudgetOperation(state, self).admit(tokens.get());
  arm(share, gives_tokens_back, object_of(self), std::move(tokens));
  return share;
}

void release(State& state, RunBudgetObject& self, const Float& tokens) {
  BudgetOperation budget(state, self, Locking::must_go_on);
  budget.with_amount(tokens.get(), [&](double amount) { budget.release(amount); });
}

void charge(State& state, RunBudgetObject& self, PyObject* result, const Float& tokens) {
  const PythonReply paid(state, as_reply(result, "result"));
  // With no tokens it may be a cache hit, which gives nothing back and can be tried again.
  const bool ends_call = BudgetOperation::stands_for_a_call(PyFloat_AS_DOUBLE(tokens.get()));
  BudgetOperation budget(state, self, ends_call ? Locking::must_go_on : Locking::may_fail);
  budget.with_amount(tokens.get(),
                     [&](double amount) { budget.RunBudgetRules::charge(paid, amount); });
}

PyMethodDef methods[] = {method<stub::RunBudget_stopping, stopping>(),
                         method<stub::RunBudget_exhausted, exhausted>(),
                         method<stub::RunBudget_exhausted_locked, exhausted_locked>(),
                         method<stub::RunBudget_summary, summary>(),
                         method<stub::RunBudget_summary_locked, summary_locked>(),
                         method<stub::RunBudget_reserve, reserve>(),
                         method<stub::RunBudget_hold, hold>(),
                         method<stub::RunBudget_release, release>(),
                         method<stub::RunBudget_charge, charge>(),
                         {}};

}  // namespace

PyTypeObject* make_run_budget_type(PyObject* module) {
  return make_record_type<RunBudgetObject, budget_fields, &RunBudgetObject::counts>(
      module, {stub::RunBudget, methods, init_slot<stub::RunBudget, budget_fields>});
}

}  // namespace decision_bounds::python
