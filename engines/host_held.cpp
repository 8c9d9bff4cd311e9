#include "host_held.hpp"

#include "fields.hpp"
#include "objects.hpp"

namespace decision_bounds::python {

bool HostHeld::is_plain() const noexcept {
  return field_ != nullptr && untouched(reinterpret_cast<HeldObject*>(field_), state_.held);
}

internal::Held* HostHeld::record() {
  set_or_raise(field_, self_, name_);
  return is_plain() ? &reinterpret_cast<HeldObject*>(field_)->record : nullptr;
}

Owned HostHeld::as_object(double share) const {
  return amount_ != nullptr ? Owned::copy(amount_) : to_python(share);
}

bool HostHeld::admits(double share, double used, double limit) {
  if (const internal::Held* held = record()) return held->admits(share, used, limit);
  const Owned object = Owned::copy(field_);
  const Owned first = as_object(share);
  const Owned second = to_python(used);
  const Owned third = to_python(limit);
  return truth(
      call_method(object.get(), state_.name(Name::admits), first.get(), second.get(), third.get()));
}

void HostHeld::take(double share) {
  if (internal::Held* held = record()) return held->take(share);
  const Owned object = Owned::copy(field_);
  const Owned amount = as_object(share);
  call_method(object.get(), state_.name(Name::take), amount.get());
}

void HostHeld::give_back(double share) {
  if (internal::Held* held = record()) return held->give_back(share);
  const Owned object = Owned::copy(field_);
  const Owned amount = as_object(share);
  call_method(object.get(), state_.name(Name::give_back), amount.get());
}

}  // namespace decision_bounds::python
