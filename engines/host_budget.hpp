#pragma once

#include "fields.hpp"
#include "host_held.hpp"
#include "locks.hpp"
#include "objects.hpp"
#include "run_budget_steps.hpp"
#include "waiting.hpp"

namespace decision_bounds::python {

inline bool should_stop(const State& state, const RunBudgetObject& self) {
  auto* object = const_cast<PyObject*>(reinterpret_cast<const PyObject*>(&self));
  if (set_or_raise(self.should_stop, object, "should_stop") == state.never) return false;
  const Owned signal = Owned::copy(self.should_stop);  // it may replace itself
  return truth(call(signal.get()));
}

inline Owned as_dict(const State& state, const RunCounts& counts) {
  const RunSummary summary = summary_of(counts);
  Owned dict = checked([] { return PyDict_New(); });
  for (std::size_t i = 0; i < summary.size(); ++i) {
    const Owned value = std::visit([](auto number) { return to_python(number); }, summary[i].value);
    checked_count([&] { return PyDict_SetItem(dict.get(), state.summary_keys[i], value.get()); });
  }
  return dict;
}

/// One operation on a RunBudget. Steps that Python code may have overridden go by name.
class HostBudget final : public internal::RunBudgetSteps {
 public:
  HostBudget(State& state, RunBudgetObject& self, Section section,
             Locking locking = Locking::may_fail)
      : RunBudgetSteps(self.counts, held_, condition_),
        state_(state),
        self_(self),
        section_(section),
        held_(state, object(), self.held_tokens, "_held_tokens"),
        condition_(state, object(), self.changed, section_now(), locking) {}

  bool stopping() override {
    const bool answer = is_untouched() ? should_stop(state_, self_)
                                       : truth(call_method(object(), state_.name(Name::stopping)));
    condition_.set_section(section_now());  // the signal may have put other steps in place
    return answer;
  }

  bool exhausted_locked() override DECISION_BOUNDS_REQUIRES(changed_) {
    if (is_untouched()) return RunBudgetSteps::exhausted_locked();
    return truth(call_method(object(), state_.name(Name::_exhausted_locked)));
  }

  std::string printed_summary_locked() override DECISION_BOUNDS_REQUIRES(changed_) {
    if (is_untouched()) return RunBudgetSteps::printed_summary_locked();
    const Owned summary = call_method(object(), state_.name(Name::_summary_locked));
    return as_string(checked([&] { return PyObject_Str(summary.get()); }).get(), "the summary");
  }

  void wait() override DECISION_BOUNDS_REQUIRES(changed_) {
    if (condition_.take_now()) return;  // there may be room by now: look again before waiting
    const Owned wait = global(state_, Name::_wait, state_.wait);
    if (wait.get() == state_.wait) {
      internal::wait_for_room(
          changed_, [this] { return stopping(); }, std::nullopt, nullptr, poll_seconds(state_));
    } else {
      const Owned signal = get(object(), state_.name(Name::stopping));
      call(wait.get(), condition_.object(), signal.get());
    }
  }

  Owned summary() {
    return locked([this] {
      if (is_untouched()) return as_dict(state_, self_.counts);
      return call_method(object(), state_.name(Name::_summary_locked));
    });
  }

  /// Runs the `steps` of an operation on so many tokens, a float object (borrowed), of which they
  /// get the value: see HostCondition::run.
  template <class Steps>
  void run(PyObject* tokens, Steps steps) {
    held_.set_amount(tokens);
    condition_.run([&] { steps(PyFloat_AS_DOUBLE(tokens)); });
  }

  [[nodiscard]] bool is_untouched() const noexcept { return untouched(&self_, state_.run_budget); }

 private:
  [[nodiscard]] PyObject* object() const { return reinterpret_cast<PyObject*>(&self_); }

  [[nodiscard]] Section section_now() const noexcept {
    return is_untouched() && held_.is_plain() ? section_ : Section::calls_python;
  }

  State& state_;
  RunBudgetObject& self_;
  Section section_;
  HostHeld held_;
  HostCondition condition_;
};

}  // namespace decision_bounds::python
