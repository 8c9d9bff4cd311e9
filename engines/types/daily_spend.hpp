#pragma once

#include "daily_spend_rules.hpp"
#include "host/logger.hpp"
#include "types/bound.hpp"

namespace decision_bounds::python {

struct DailySpendObject {
  ObjectHead head;
  internal::DailyAccount account;  // has a string, so zeros do not stand for it
  PyObject *today, *ledger, *held, *changed;
  ConditionParts changed_parts;
};

/// The functions of one admission (borrowed), for a _wait that the host has put into the module.
struct Waiting {
  PyObject *deadline, *clock, *stopping;
};

/// One operation on a DailySpend.
class SpendOperation final : public BoundOperation, public internal::DailySpendRules {
 public:
  SpendOperation(State& state, DailySpendObject& self, Locking locking = Locking::may_fail)
      : BoundOperation(state, state[Known::daily_spend], locking,
                       {object_of(self), self.changed, "_changed"}, self.changed_parts,
                       {object_of(self), self.held, "_held"}),
        DailySpendRules(self.account, amounts_, condition_),
        object_(self),
        logger_(state) {}

  /// Admits a call and returns its share.
  Owned admit(PyObject* bound, const Waiting& waiting);

  std::string today() override {
    const Owned today = Owned::copy(set_or_raise(object_.today, self_, "_today"));
    return as<std::string>(call(today.get()).get(), "today()");
  }

  [[nodiscard]] bool has_ledger() const override {
    return set_or_raise(object_.ledger, self_, "_ledger") != Py_None;
  }

  double ask_ledger(const std::string& day) override {
    const Owned ledger = Owned::copy(object_.ledger);
    const Owned answer = call(ledger.get(), to_python(day).get());
    return PyFloat_AS_DOUBLE(checked([&] { return PyNumber_Float(answer.get()); }).get());
  }

  Logger& logger() override { return logger_; }

  double today_locked() override DECISION_BOUNDS_REQUIRES(changed_) {
    const Owned step = override_of(Name::_today_locked);
    if (!step) return DailySpendRules::today_locked();
    return as<double>(call(step.get()).get(), "_today_locked()");
  }

  double spent_since(const std::string& day) override DECISION_BOUNDS_REQUIRES(changed_) {
    const Owned step = override_of(Name::_spent_since);
    if (!step) return DailySpendRules::spent_since(day);
    return as<double>(call(step.get(), to_python(day).get()).get(), "_spent_since()");
  }

  double poll_seconds() override { return python::poll_seconds(state_); }
  void wait(std::optional<double> deadline, const Clock& clock, const StopSignal& stopping) override
      DECISION_BOUNDS_REQUIRES(changed_);

 private:
  void prepare_share(double held) override;

  DailySpendObject& object_;
  PythonLogger logger_;
  Waiting waiting_{};
  Owned most_;    // what bound() last said, as a float object: what the share will hold
  Owned action_;  // of an account whose _give_back the host has overridden
};

}  // namespace decision_bounds::python
