#pragma once

// What RunBudget and DailySpend have in common.

#include "host/condition.hpp"
#include "host/records.hpp"
#include "host/reply.hpp"

namespace decision_bounds::python {

/// The parts of one operation on a bound. They refer to the attributes of the object, and take
/// copies as they use them: a host may replace an attribute at any time, even within the call.
class BoundOperation {
 public:
  /// Runs the `operation` on `amount` (a float object, borrowed), whose value it gets; then raises
  /// what had to be deferred.
  template <class Operation>
  void with_amount(PyObject* amount, Operation operation) {
    amounts_.set_amount(amount);
    deferred_.run([&] {
      operation(PyFloat_AS_DOUBLE(amount));
      return true;
    });
  }

  /// What the operation returns, likewise.
  template <class Operation>
  auto answer_of(Operation operation) {
    return deferred_.run(operation);
  }

 protected:
  BoundOperation(State& state, KnownType& known, Locking locking, const Attribute& changed,
                 ConditionParts& parts, const Attribute& held)
      : state_(state),
        self_(changed.self),
        known_(known),
        deferred_(locking),
        condition_(state, changed, parts, deferred_),
        amounts_(state, held, deferred_) {}

  /// What the host has put in the place of the step `name`; null for the module's own.
  [[nodiscard]] Owned override_of(Name name) const {
    return python::override_of(self_, known_, state_.name(name));
  }
  /// The `_wait` that the host has put into the module; null for the module's own.
  [[nodiscard]] Owned replaced_wait() const {
    Owned wait = global(state_, Name::_wait, state_[Kept::wait]);
    return wait.get() == state_[Kept::wait] ? Owned() : std::move(wait);
  }
  State& state_;
  PyObject* self_;
  KnownType& known_;
  Deferred deferred_;
  PythonCondition condition_;
  PythonHeld amounts_;
};

/// Ends the call of a share that holds `amount`, as GiveBack::end.
template <class Operation, class Object>
void end_call(State& state, PyObject* bound, PyObject* amount, PyObject* reply) {
  Operation operation(state, *reinterpret_cast<Object*>(bound), Locking::must_go_on);
  const PythonReply paid(state, reply);
  operation.with_amount(
      amount, [&](double held) { operation.give_back(held, reply == Py_None ? nullptr : &paid); });
}

inline Owned new_condition(PyObject* self) { return call(state_of(self)[Kept::new_condition]); }

inline Owned new_held(PyObject* self) { return call(state_of(self).type(Known::held)); }

}  // namespace decision_bounds::python
