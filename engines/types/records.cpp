// _Held and _Charges: plain records whose fields are numbers.

#include "host/records.hpp"

#include "types/method.hpp"

namespace decision_bounds::python {
namespace {

constexpr Field held_fields[] = {
    {"holders", DECISION_BOUNDS_PLACE(HeldObject, record.holders)},
    {"amount", DECISION_BOUNDS_PLACE(HeldObject, record.amount)},
    {"unbounded", DECISION_BOUNDS_PLACE(HeldObject, record.unbounded)}};

bool admits(State&, HeldObject& self, double share, double used, double limit) {
  return self.record.admits(share, used, limit);
}

void take(State&, HeldObject& self, double share) { self.record.take(share); }

void give_back(State&, HeldObject& self, double share) { self.record.give_back(share); }

PyMethodDef held_methods[] = {method<stub::Held_admits, admits>(),
                              method<stub::Held_take, take>(),
                              method<stub::Held_give_back, give_back>(),
                              {}};

constexpr Field charges_fields[] = {
    {"per_byte", DECISION_BOUNDS_PLACE(ChargesObject, record.per_byte)},
    {"per_call", DECISION_BOUNDS_PLACE(ChargesObject, record.per_call)}};

double bound(State&, ChargesObject& self, std::int64_t size) { return self.record.bound(size); }

void learn(State&, ChargesObject& self, std::int64_t size, double charge) {
  self.record.learn(size, charge);
}

PyMethodDef charges_methods[] = {
    method<stub::Charges_bound, bound>(), method<stub::Charges_learn, learn>(), {}};

}  // namespace

PyTypeObject* make_held_type(PyObject* module) {
  return make_record_type<HeldObject, held_fields, &HeldObject::record>(
      module, {stub::Held, held_methods, init_slot<stub::Held, held_fields>});
}

PyTypeObject* make_charges_type(PyObject* module) {
  return make_record_type<ChargesObject, charges_fields, &ChargesObject::record>(
      module, {stub::Charges, charges_methods, init_slot<stub::Charges, charges_fields>});
}

}  // namespace decision_bounds::python
