// _Held and _Charges: plain records whose fields are numbers.

#include "host/records.hpp"

#include "docs.hpp"
#include "types/method.hpp"

namespace decision_bounds::python {
namespace {

constexpr Field held_fields[] = {
    {"holders", DECISION_BOUNDS_PLACE(HeldObject, record.holders), "holders"},
    {"amount", DECISION_BOUNDS_PLACE(HeldObject, record.amount), "amount"},
    {"unbounded", DECISION_BOUNDS_PLACE(HeldObject, record.unbounded), "unbounded"}};

Owned admits(State&, HeldObject& self, const Arguments& arguments) {
  constexpr Parameters<3> parameters{"admits", {"share", "used", "limit"}};
  const auto [share, used, limit] = parameters.sorted(arguments);
  const double wanted = as_double(share, "share");
  const double settled = as_double(used, "used");
  const double most = as_double(limit, "limit");
  return to_bool(self.record.admits(wanted, settled, most));
}

Owned take(State&, HeldObject& self, const Arguments& arguments) {
  constexpr Parameters<1> parameters{"take", {"share"}};
  self.record.take(as_double(parameters.sorted(arguments)[0], "share"));
  return none();
}

Owned give_back(State&, HeldObject& self, const Arguments& arguments) {
  constexpr Parameters<1> parameters{"give_back", {"share"}};
  self.record.give_back(as_double(parameters.sorted(arguments)[0], "share"));
  return none();
}

constexpr Field charges_fields[] = {
    {"per_byte", DECISION_BOUNDS_PLACE(ChargesObject, record.per_byte), "per_byte"},
    {"per_call", DECISION_BOUNDS_PLACE(ChargesObject, record.per_call), "per_call"}};

Owned bound(State&, ChargesObject& self, const Arguments& arguments) {
  constexpr Parameters<1> parameters{"bound", {"size"}};
  PyObject* size = parameters.sorted(arguments)[0];
  return to_python(self.record.bound(as_int64(size, "size")));
}

Owned learn(State&, ChargesObject& self, const Arguments& arguments) {
  constexpr Parameters<2> parameters{"learn", {"size", "charge"}};
  const auto [size, charge] = parameters.sorted(arguments);
  const std::int64_t bytes = as_int64(size, "size");
  self.record.learn(bytes, as_double(charge, "charge"));
  return none();
}

template <class Object>
Owned reduced(State&, Object& self, const Arguments& arguments) {
  take_none("__reduce__", arguments);
  return reduce(object_of(self), Object::fields);
}

PyMethodDef held_methods[] = {method<admits>("admits", doc::Held_admits),
                              method<take>("take", doc::Held_take),
                              method<give_back>("give_back", doc::Held_give_back),
                              method<reduced<HeldObject>>("__reduce__", nullptr),
                              {}};
PyMethodDef charges_methods[] = {method<bound>("bound", doc::Charges_bound),
                                 method<learn>("learn", doc::Charges_learn),
                                 method<reduced<ChargesObject>>("__reduce__", nullptr),
                                 {}};

}  // namespace

constinit const Fields HeldObject::fields = held_fields;
constinit const Fields ChargesObject::fields = charges_fields;

PyTypeObject* make_held_type(PyObject* module) {
  return make_record_type<HeldObject, &HeldObject::record>(
      module, {"decision_bounds._Held", doc::Held, held_methods, init_slot<HeldObject>});
}

PyTypeObject* make_charges_type(PyObject* module) {
  return make_record_type<ChargesObject, &ChargesObject::record>(
      module,
      {"decision_bounds._Charges", doc::Charges, charges_methods, init_slot<ChargesObject>});
}

}  // namespace decision_bounds::python
