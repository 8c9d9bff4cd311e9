#pragma once

#include "daily_spend_steps.hpp"
#include "fields.hpp"
#include "host_held.hpp"
#include "host_logger.hpp"
#include "locks.hpp"
#include "objects.hpp"
#include "waiting.hpp"

namespace decision_bounds::python {

/// The Python objects of one admission, for a _wait that was put in the module's place.
struct Waiting {
  PyObject *deadline, *clock, *stopping;
};

/// One operation on a DailySpend. Steps that Python code may have overridden go by name.
class HostSpend final : public internal::DailySpendSteps {
 public:
  HostSpend(State& state, DailySpendObject& self, Locking locking = Locking::may_fail)
      : DailySpendSteps(self.account, held_, condition_),
        state_(state),
        self_(self),
        condition_(state, object(), self.changed, Section::calls_python, locking),
        held_(state, object(), self.held, "_held"),
        logger_(state) {}

  std::string today() override {
    const Owned today = Owned::copy(set_or_raise(self_.today, object(), "_today"));
    return as_string(call(today.get()).get(), "today()");
  }

  [[nodiscard]] bool has_ledger() const override {
    return set_or_raise(self_.ledger, object(), "_ledger") != Py_None;
  }

  double ask_ledger(const std::string& day) override {
    const Owned ledger = Owned::copy(self_.ledger);
    const Owned date = to_python(day);
    const Owned answer = call(ledger.get(), date.get());
    return PyFloat_AS_DOUBLE(checked([&] { return PyNumber_Float(answer.get()); }).get());
  }

  Logger& logger() override { return logger_; }

  double today_locked() override DECISION_BOUNDS_REQUIRES(changed_) {
    if (is_untouched()) return DailySpendSteps::today_locked();
    return as_double(call_method(object(), state_.name(Name::_today_locked)).get(),
                     "_today_locked()");
  }

  double spent_since(const std::string& day) override DECISION_BOUNDS_REQUIRES(changed_) {
    if (is_untouched()) return DailySpendSteps::spent_since(day);
    const Owned date = to_python(day);
    return as_double(call_method(object(), state_.name(Name::_spent_since), date.get()).get(),
                     "_spent_since()");
  }

  void wait(std::optional<double> deadline, const Clock& clock, const StopSignal& stopping) override
      DECISION_BOUNDS_REQUIRES(changed_) {
    const Owned wait = global(state_, Name::_wait, state_.wait);
    if (wait.get() == state_.wait) {
      internal::wait_for_room(changed_, stopping, deadline, clock, poll_seconds(state_));
      return;
    }
    const Owned keywords = checked(
        [this] { return PyTuple_Pack(2, state_.name(Name::deadline), state_.name(Name::clock)); });
    PyObject* all[] = {condition_.object(), waiting_.stopping, waiting_.deadline, waiting_.clock};
    checked([&] { return PyObject_Vectorcall(wait.get(), all, 2, keywords.get()); });
  }

  double admit(const CostBound& bound, const Waiting& waiting) {
    waiting_ = waiting;
    const std::optional<double> deadline = as_deadline(waiting.deadline);
    return DailySpendSteps::admit(
        bound, deadline,
        [clock = waiting.clock] { return as_double(call(clock).get(), "clock()"); },
        [stopping = waiting.stopping] { return truth(call(stopping)); });
  }

  /// The US dollars that the operation is about, as a float object (borrowed).
  void set_dollars(PyObject* dollars) noexcept { held_.set_amount(dollars); }

  /// Runs the `steps` of an operation: see HostCondition::run.
  template <class Steps>
  void run(Steps steps) {
    condition_.run(steps);
  }

 private:
  [[nodiscard]] PyObject* object() const { return reinterpret_cast<PyObject*>(&self_); }
  [[nodiscard]] bool is_untouched() const noexcept { return untouched(&self_, state_.daily_spend); }

  State& state_;
  DailySpendObject& self_;
  HostCondition condition_;
  HostHeld held_;
  HostLogger logger_;
  Waiting waiting_{};
};

}  // namespace decision_bounds::python
