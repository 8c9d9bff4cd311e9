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

/// The record of the module's own in `object`, of the type `known` or one derived from it; null
/// where it is none.
template <class Object>
decltype(Object::record)* record_in(const Owned& object, const KnownType& known) noexcept {
  if (!PyObject_TypeCheck(object.get(), known.type)) return nullptr;
  return &reinterpret_cast<Object*>(object.get())->record;
}

/// The step `name` of `object`, ready to be called; null where it is that of the module's own
/// record.
template <class Object>
Owned step_of(const State& state, const Owned& object, KnownType& known, Name name) {
  return record_in<Object>(object, known) != nullptr
             ? override_of(object.get(), known, state.name(name))
             : get(object.get(), state.name(name));
}

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
  [[nodiscard]] Owned step(const Owned& held, Name name) const {
    return step_of<HeldObject>(state_, held, state_[Known::held], name);
  }
  [[nodiscard]] internal::Held* record_of(const Owned& held) const noexcept {
    return record_in<HeldObject>(held, state_[Known::held]);
  }

  State& state_;
  Attribute attribute_;
  Deferred& deferred_;
  PyObject* amount_ = nullptr;
};

/// The maxima in an attribute of a RequestRates, for one operation.
class PythonCharges {
 public:
  PythonCharges(State& state, Owned object) : state_(state), object_(std::move(object)) {}

  /// Whether its steps run no Python code.
  [[nodiscard]] bool is_native() const {
    return is_untouched(object_.get(), state_[Known::charges]);
  }
  [[nodiscard]] double bound(std::int64_t size) const;
  void learn(std::int64_t size, double charge);

 private:
  [[nodiscard]] Owned step(Name name) const {
    return step_of<ChargesObject>(state_, object_, state_[Known::charges], name);
  }

  State& state_;
  Owned object_;
};

/// Raise TypeError unless `value` has the methods of such a record.
inline void check_held(PyObject* value, const char* shown) {
  check_methods(value, shown, "a _Held", {"admits", "take", "give_back"});
}
inline void check_charges(PyObject* value, const char* shown) {
  check_methods(value, shown, "a _Charges", {"bound", "learn"});
}

}  // namespace decision_bounds::python
