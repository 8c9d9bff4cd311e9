#pragma once

#include "run_budget_rules.hpp"
#include "types/bound.hpp"

namespace decision_bounds::python {

struct RunBudgetObject {
  ObjectHead head;
  RunCounts counts;
  PyObject *should_stop, *held_tokens, *changed;
  ConditionParts changed_parts;
};

inline bool should_stop(const State& state, RunBudgetObject& self) {
  PyObject* field = set_or_raise(self.should_stop, object_of(self), "should_stop");
  if (field == state[Kept::never]) return false;
  const Owned signal = Owned::copy(field);  // it may replace itself while it runs
  return truth(call(signal.get()));
}

/// The counts are read before the dict is made: that may start the garbage collector, and so any
/// Python code.
inline Owned as_dict(const State& state, const RunCounts& counts) {
  const RunSummary summary = summary_of(counts);
  Owned dict = checked([] { return PyDict_New(); });
  for (std::size_t i = 0; i < summary.size(); ++i) {
    const Owned value = std::visit([](auto number) { return to_python(number); }, summary[i].value);
    checked_count([&] { return PyDict_SetItem(dict.get(), state.summary_keys[i], value.get()); });
  }
  return dict;
}

/// One operation on a RunBudget.
class BudgetOperation final : public BoundOperation, public internal::RunBudgetRules {
 public:
  BudgetOperation(State& state, RunBudgetObject& self, Locking locking = Locking::may_fail)
      : BoundOperation(state, state[Known::run_budget], locking,
                       {object_of(self), self.changed, "_changed"}, self.changed_parts,
                       {object_of(self), self.held_tokens, "_held_tokens"}),
        RunBudgetRules(self.counts, amounts_, condition_),
        object_(self) {}

  bool stopping() override {
    if (const Owned step = override_of(Name::stopping)) return truth(call(step.get()));
    return should_stop(state_, object_);
  }

  bool exhausted_locked() override DECISION_BOUNDS_REQUIRES(changed_) {
    if (const Owned step = override_of(Name::_exhausted_locked)) return truth(call(step.get()));
    return RunBudgetRules::exhausted_locked();
  }

  std::string printed_summary_locked() override DECISION_BOUNDS_REQUIRES(changed_) {
    const Owned step = override_of(Name::_summary_locked);
    if (!step) return RunBudgetRules::printed_summary_locked();
    const Owned summary = call(step.get());
    return as<std::string>(checked([&] { return PyObject_Str(summary.get()); }).get(),
                           "the summary");
  }

  double poll_seconds() override { return python::poll_seconds(state_); }

  void wait() override DECISION_BOUNDS_REQUIRES(changed_) {
    const Owned wait = replaced_wait();
    if (!wait) return RunBudgetRules::wait();
    const Owned signal = get(self_, state_.name(Name::stopping));
    call(wait.get(), condition_.object(), signal.get());
  }

  Owned summary() {
    return locked([this] {
      if (const Owned step = override_of(Name::_summary_locked)) return call(step.get());
      return as_dict(state_, object_.counts);
    });
  }

  /// The admission of hold().
  void admit(PyObject* tokens) {
    const Owned step = override_of(Name::reserve);
    if (!step) return with_amount(tokens, [this](double amount) { reserve(amount); });
    call(step.get(), tokens);
  }

 private:
  // The ends of a share. What a host has put in the place of release or charge is the host's own
  // from there on: what it leaves undone stays held.

  void end_unpaid(double tokens) override {
    const Owned step = override_of(Name::release);
    if (!step) return RunBudgetRules::end_unpaid(tokens);
    call(step.get(), amounts_.amount());
  }

  void end_paid(const PaidReply& reply, double tokens) override {
    const Owned step = override_of(Name::charge);
    if (!step) return RunBudgetRules::end_paid(reply, tokens);
    call(step.get(), static_cast<const PythonReply&>(reply).object(), amounts_.amount());
  }

  RunBudgetObject& object_;
};

}  // namespace decision_bounds::python
