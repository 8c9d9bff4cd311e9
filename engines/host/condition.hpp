#pragma once

#include "host/deferred.hpp"
#include "host/locks.hpp"

namespace decision_bounds::python {

/// What a threading.Condition is made of, as its __dict__ had it at one version. A bound keeps that
/// beside the attribute, so that as long as the version is the same nothing is looked up. (Where
/// dicts have no version, each use looks up what it wants.) It holds references of its own: the
/// interpreter may let the last one of the dict's go, and so run Python code, before the dict has
/// its new version.
struct ConditionParts {
  std::uint64_t version;
  PyObject* lock;     // null: not one of the interpreter's own
  PyObject* waiters;  // a deque; null: notify_all must be called
};

/// The condition variable of a bound. A threading.Condition that nobody has patched is used through
/// its lock's C functions, and its notify_all is called only where somebody waits; any other is
/// used as a `with` block would. Between lock() and unlock() no Python code runs but what the rules
/// call by their virtual functions, and what the host's own condition runs.
class PythonCondition final : public Condition {
 public:
  /// `parts`: what is known of the condition in the attribute.
  PythonCondition(State& state, const Attribute& attribute, ConditionParts& parts,
                  Deferred& deferred)
      : state_(state), attribute_(attribute), parts_(parts), deferred_(deferred) {}

  void lock() override;
  void unlock() override { taken_.let_go(deferred_); }
  void wait_for(double seconds) override;
  void notify_all() override;

  /// For a caller that has locked `condition` itself.
  void adopt(PyObject* condition) { condition_ = Owned::copy(condition); }
  /// The condition that this operation locked: the attribute may be replaced at any time.
  [[nodiscard]] PyObject* object() const noexcept { return condition_.get(); }

 private:
  enum class Part { lock, waiters };
  /// The part of `condition` that is wanted, where it is a threading.Condition that nobody has
  /// patched. Where a dict has a version, both parts are looked up, to be kept.
  const ConditionParts* parts_of(PyObject* condition, Part wanted);

  State& state_;
  Attribute attribute_;
  ConditionParts& parts_;
  Deferred& deferred_;
  Owned condition_;
  TakenLock taken_;
};

/// Raises TypeError unless `value` can be the condition of a bound.
inline void check_condition(PyObject* value, const char* shown) {
  check_methods(value, shown, "a condition variable",
                {"__enter__", "__exit__", "wait", "notify_all"});
}

}  // namespace decision_bounds::python
