#include "types/daily_spend.hpp"

#include <functional>
#include <new>

#include "types/method.hpp"
#include "types/share.hpp"

namespace decision_bounds::python {
namespace {

constexpr Field spend_fields[] = {
    {"_cap", DECISION_BOUNDS_PLACE(DailySpendObject, account.cap)},
    {"_today", DECISION_BOUNDS_PLACE(DailySpendObject, today), check_callable},
    {"_ledger", DECISION_BOUNDS_PLACE(DailySpendObject, ledger), check_callable_or_none},
    {"_changed", DECISION_BOUNDS_PLACE(DailySpendObject, changed), check_condition, new_condition},
    {"_held", DECISION_BOUNDS_PLACE(DailySpendObject, held), check_held, new_held},
    {"_day", DECISION_BOUNDS_PLACE(DailySpendObject, account.day)},
    {"_cost", DECISION_BOUNDS_PLACE(DailySpendObject, account.cost)},
    {"_capped", DECISION_BOUNDS_PLACE(DailySpendObject, account.capped)},
    {nullptr, DECISION_BOUNDS_PLACE(DailySpendObject, changed_parts.lock)},
    {nullptr, DECISION_BOUNDS_PLACE(DailySpendObject, changed_parts.waiters)}};

PyObject* create(PyTypeObject* type, PyObject*, PyObject*) {
  PyObject* self = entering([=] { return type->tp_alloc(type, 0); });
  if (self != nullptr) {
    new (&reinterpret_cast<DailySpendObject*>(self)->account) internal::DailyAccount();
  }
  return self;
}

// ---- the share of a day ----

constexpr auto end_dollars = end_call<SpendOperation, DailySpendObject>;

/// The module's own _give_back, whatever the account has by now: it had that when it admitted the
/// call.
Owned give_back_object(State& state, PyObject* spend, PyObject* held) {
  PyObject* own = PyDict_GetItem(state[Known::daily_spend].entries, state.name(Name::_give_back));
  const Owned bound = checked([&] {
    return Py_TYPE(own)->tp_descr_get(own, spend, reinterpret_cast<PyObject*>(Py_TYPE(spend)));
  });
  return call(state[Kept::partial], bound.get(), held);
}

const GiveBack gives_dollars_back{end_dollars, give_back_object};

}  // namespace

void SpendOperation::wait(std::optional<double> deadline, const Clock& clock,
                          const StopSignal& stopping) {
  const Owned wait = replaced_wait();
  if (!wait) return DailySpendRules::wait(deadline, clock, stopping);
  const Owned keywords = checked(
      [this] { return PyTuple_Pack(2, state_.name(Name::deadline), state_.name(Name::clock)); });
  PyObject* all[] = {condition_.object(), waiting_.stopping, waiting_.deadline, waiting_.clock};
  checked([&] { return PyObject_Vectorcall(wait.get(), all, 2, keywords.get()); });
}

/// An overridden _give_back is bound as the call is admitted: later it may be another.
void SpendOperation::prepare_share(double) {
  action_ = Owned();
  if (const Owned step = override_of(Name::_give_back)) {
    action_ = call(state_[Kept::partial], step.get(), most_.get());
  }
}

Owned SpendOperation::admit(PyObject* bound, const Waiting& waiting) {
  waiting_ = waiting;
  std::optional<double> deadline;
  if (waiting.deadline != Py_None) deadline = as<double>(waiting.deadline, "deadline");
  Owned share = new_share(state_);
  const auto most = [this, bound] {
    most_ = as<Float>(call(bound).get(), "bound()");
    amounts_.set_amount(most_.get());
    return PyFloat_AS_DOUBLE(most_.get());
  };
  deferred_.run([&] {
    return DailySpendRules::admit(
        std::ref(most), deadline,
        [clock = waiting.clock] { return as<double>(call(clock).get(), "clock()"); },
        [stopping = waiting.stopping] { return truth(call(stopping)); });
  });
  if (action_) {
    arm(share, calls_target, action_.get(), {});
  } else {
    arm(share, gives_dollars_back, self_, std::move(most_));
  }
  return share;
}

namespace {

// ---- the methods ----

double spent(State& state, DailySpendObject& self) {
  SpendOperation spend(state, self);
  return spend.answer_of([&] { return spend.spent(); });
}

Owned admit(State& state, DailySpendObject& self, PyObject* bound, PyObject* deadline,
            PyObject* clock, PyObject* stopping) {
  check_callable(bound, "bound");
  check_callable(clock, "clock");
  check_callable(stopping, "stopping");
  return SpendOperation(state, self).admit(bound, {deadline, clock, stopping});
}

void charge(State& state, DailySpendObject& self, PyObject* reply) {
  const PythonReply paid(state, as_reply(reply, "reply"));
  SpendOperation spend(state, self);
  spend.answer_of([&] { return spend.charge(paid), true; });
}

void give_back(State& state, DailySpendObject& self, const Float& held, PyObject* reply) {
  end_dollars(state, object_of(self), held.get(), reply);
}

double today_locked(State& state, DailySpendObject& self) DECISION_BOUNDS_NO_ANALYSIS {
  return SpendOperation(state, self).DailySpendRules::today_locked();
}

double spent_since(State& state, DailySpendObject& self,
                   const std::string& day) DECISION_BOUNDS_NO_ANALYSIS {
  return SpendOperation(state, self).DailySpendRules::spent_since(day);
}

PyMethodDef methods[] = {method<stub::DailySpend_spent, spent>(),
                         method<stub::DailySpend_admit, admit>(),
                         method<stub::DailySpend_charge, charge>(),
                         method<stub::DailySpend_give_back, give_back>(),
                         method<stub::DailySpend_today_locked, today_locked>(),
                         method<stub::DailySpend_spent_since, spent_since>(),
                         {}};

}  // namespace

PyTypeObject* make_daily_spend_type(PyObject* module) {
  return make_type<DailySpendObject, spend_fields>(
      module, {.signature = stub::DailySpend,
               .methods = methods,
               .init = init_slot<stub::DailySpend, spend_fields>,
               .create = create});
}

}  // namespace decision_bounds::python
