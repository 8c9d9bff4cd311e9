#pragma once

#include "held.hpp"
#include "state.hpp"

namespace decision_bounds::python {

/// The held amounts in an attribute: a record of the module's own, or whatever the host put there.
class HostHeld final : public internal::HeldAmounts {
 public:
  HostHeld(State& state, PyObject* self, PyObject*& field, const char* name)
      : state_(state), self_(self), field_(field), name_(name) {}

  /// The amount that the operation is about as a float object (borrowed), so that none need be made
  /// where making it could fail.
  void set_amount(PyObject* amount) noexcept { amount_ = amount; }

  bool admits(double share, double used, double limit) override;
  void take(double share) override;
  void give_back(double share) override;

  /// Whether its steps run no Python code.
  [[nodiscard]] bool is_plain() const noexcept;

 private:
  /// The record, if its steps need no look-up by name.
  internal::Held* record();
  [[nodiscard]] Owned as_object(double share) const;

  State& state_;
  PyObject* self_;
  PyObject*& field_;
  const char* name_;
  PyObject* amount_ = nullptr;
};

}  // namespace decision_bounds::python
