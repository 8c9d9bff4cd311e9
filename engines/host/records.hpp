#pragma once

// The records of the module, _Held and _Charges, as the bounds and the rates use them: natively, or
// by look-up where the host has put another object into the attribute or overridden a step.

#include "capi/convert.hpp"
#include "charges.hpp"
#include "held.hpp"
#include "host/deferred.hpp"
#include "host/state.hpp"

namespace decision_bounds::python {

struct HeldObject {
  ObjectHead head;
  internal::Held record;
};

struct ChargesObject {
  ObjectHead head;
  internal::Charges record;
};

/// What an attribute that is to hold a record has: an `Object` of the module's, of the type `which`
/// or one derived from it, or an object of the host's own.
template <class Object, Known which>
class RecordIn {
 public:
  RecordIn(State& state, Owned object) : state_(state), object_(std::move(object)) {}

  /// The module's record; null where it is none.
  [[nodiscard]] auto* record() const noexcept {
    const bool has_one = PyObject_TypeCheck(object_.get(), state_[which].type) != 0;
    return has_one ? &reinterpret_cast<Object*>(object_.get())->record : nullptr;
  }
  /// The step `name`, ready to be called; null where it is that of the module's own record.
  [[nodiscard]] Owned step(Name name) const {
    PyObject* method = state_.name(name);
    return record() != nullptr ? override_of(object_.get(), state_[which], method)
                               : get(object_.get(), method);
  }

 protected:
  State& state_;
  Owned object_;
};

using HeldIn = RecordIn<HeldObject, Known::held>;

/// The held amounts in an attribute of a bound, for one operation.
///
/// A step that the host has written in Python may be interrupted. Whether it has done its work by
/// then is seen from the record, if the object has one of the module's (it is a _Held, or derives
/// from it): what a `take` took is given back, and a `give_back` that had not begun is called
/// again. An object without such a record must see to interrupts itself.
class PythonHeld final : public internal::HeldAmounts {
 public:
  PythonHeld(State& state, const Attribute& attribute, Deferred& deferred)
      : state_(state), attribute_(attribute), deferred_(deferred) {}

  /// The amount that the operation is about, as a float object (borrowed), so that none need be
  /// made where making it could fail.
  void set_amount(PyObject* amount) noexcept { amount_ = amount; }
  [[nodiscard]] PyObject* amount() const noexcept { return amount_; }

  bool admits(double share, double used, double limit) override;
  void take(double share) override;
  void give_back(double share) override;

 private:
  State& state_;
  Attribute attribute_;
  Deferred& deferred_;
  PyObject* amount_ = nullptr;
};

/// The maxima in an attribute of a RequestRates, for one operation.
class PythonCharges : public RecordIn<ChargesObject, Known::charges> {
 public:
  using RecordIn::RecordIn;

  /// Whether its steps run no Python code.
  [[nodiscard]] bool is_native() const {
    return is_untouched(object_.get(), state_[Known::charges]);
  }
  [[nodiscard]] double bound(std::int64_t size) const;
  void learn(std::int64_t size, double charge);
};

/// Raise TypeError unless `value` has the methods of such a record.
inline void check_held(PyObject* value, const char* shown) {
  check_methods(value, shown, "a _Held", {"admits", "take", "give_back"});
}
inline void check_charges(PyObject* value, const char* shown) {
  check_methods(value, shown, "a _Charges", {"bound", "learn"});
}

}  // namespace decision_bounds::python
