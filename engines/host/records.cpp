#include "host/records.hpp"

namespace decision_bounds::python {

bool PythonHeld::admits(double share, double used, double limit) {
  const HeldIn held(state_, attribute_.get());
  const Owned step = held.step(Name::admits);
  if (!step) return held.record()->admits(share, used, limit);
  return truth(call(step.get(), amount_, to_python(used).get(), to_python(limit).get()));
}

void PythonHeld::take(double share) {
  const HeldIn held(state_, attribute_.get());
  internal::Held* record = held.record();
  const Owned step = held.step(Name::take);
  if (!step) return record->take(share);
  const std::int64_t holders = record != nullptr ? record->holders : 0;
  try {
    call(step.get(), amount_);
  } catch (Raised&) {
    if (record != nullptr && record->holders > holders) record->give_back(share);
    throw;
  }
}

void PythonHeld::give_back(double share) {
  const HeldIn held(state_, attribute_.get());
  internal::Held* record = held.record();
  const Owned step = held.step(Name::give_back);
  if (!step) return record->give_back(share);
  const std::int64_t holders = record != nullptr ? record->holders : 0;
  bool called = false;
  // Called again only where the record says that nothing was given back; with no holders, or no
  // record, nothing can say so, and to give back twice would let in calls that have no room.
  deferred_.complete([&] {
    if (called && (holders == 0 || record->holders < holders)) return;
    called = true;
    call(step.get(), amount_);
  });
}

double PythonCharges::bound(std::int64_t size) const {
  const Owned step = RecordIn::step(Name::bound);
  if (!step) return record()->bound(size);
  return as<double>(call(step.get(), to_python(size).get()).get(), "bound()");
}

void PythonCharges::learn(std::int64_t size, double charge) {
  const Owned step = RecordIn::step(Name::learn);
  if (!step) return record()->learn(size, charge);
  call(step.get(), to_python(size).get(), to_python(charge).get());
}

}  // namespace decision_bounds::python
