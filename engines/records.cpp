// _Held and _Charges: plain records whose fields are numbers.

#include "objects.hpp"
#include "types.hpp"

namespace decision_bounds::python {

int HeldObject::traverse(visitproc, void*) const { return 0; }
void HeldObject::clear() noexcept {}
int ChargesObject::traverse(visitproc, void*) const { return 0; }
void ChargesObject::clear() noexcept {}

namespace {

// ---- _Held ----

void init_held(State& state, HeldObject& self, const Arguments& arguments) {
  constexpr Parameters<3> parameters{"_Held", {Name::holders, Name::amount, Name::unbounded}, 3, 0};
  const auto [holders, amount, unbounded] = sorted(state, parameters, arguments);
  self.record = {.holders = int64_or_0(holders, "holders"),
                 .amount = double_or_0(amount, "amount"),
                 .unbounded = int64_or_0(unbounded, "unbounded")};
  self.deleted = 0;
}

Owned admits(State& state, HeldObject& self, const Arguments& arguments) {
  constexpr Parameters<3> parameters{"admits", {Name::share, Name::used, Name::limit}};
  const auto [share, used, limit] = sorted(state, parameters, arguments);
  const double wanted = as_double(share, "share");
  const double settled = as_double(used, "used");
  const double most = as_double(limit, "limit");
  return to_bool(self.record.admits(wanted, settled, most));
}

Owned take(State& state, HeldObject& self, const Arguments& arguments) {
  constexpr Parameters<1> parameters{"take", {Name::share}};
  self.record.take(as_double(sorted(state, parameters, arguments)[0], "share"));
  return none();
}

Owned give_back(State& state, HeldObject& self, const Arguments& arguments) {
  constexpr Parameters<1> parameters{"give_back", {Name::share}};
  self.record.give_back(as_double(sorted(state, parameters, arguments)[0], "share"));
  return none();
}

Owned reduce_held(State& state, HeldObject& self, const Arguments& arguments) {
  sorted(state, Parameters<0>{"__reduce__", {}}, arguments);
  const internal::Held& held = self.record;
  return checked([&] {
    return Py_BuildValue("O(LdL)O", Py_TYPE(&self), held.holders, held.amount, held.unbounded,
                         self.dict != nullptr ? self.dict : Py_None);
  });
}

// ---- _Charges ----

void init_charges(State& state, ChargesObject& self, const Arguments& arguments) {
  constexpr Parameters<2> parameters{"_Charges", {Name::per_byte, Name::per_call}, 2, 0};
  const auto [per_byte, per_call] = sorted(state, parameters, arguments);
  self.record = {.per_byte = double_or_0(per_byte, "per_byte"),
                 .per_call = double_or_0(per_call, "per_call")};
  self.deleted = 0;
}

Owned bound(State& state, ChargesObject& self, const Arguments& arguments) {
  constexpr Parameters<1> parameters{"bound", {Name::size}};
  return to_python(self.record.bound(as_int64(sorted(state, parameters, arguments)[0], "size")));
}

Owned learn(State& state, ChargesObject& self, const Arguments& arguments) {
  constexpr Parameters<2> parameters{"learn", {Name::size, Name::charge}};
  const auto [size, charge] = sorted(state, parameters, arguments);
  const std::int64_t bytes = as_int64(size, "size");
  self.record.learn(bytes, as_double(charge, "charge"));
  return none();
}

Owned reduce_charges(State& state, ChargesObject& self, const Arguments& arguments) {
  sorted(state, Parameters<0>{"__reduce__", {}}, arguments);
  return checked([&] {
    return Py_BuildValue("O(dd)O", Py_TYPE(&self), self.record.per_byte, self.record.per_call,
                         self.dict != nullptr ? self.dict : Py_None);
  });
}

}  // namespace

PyTypeObject* make_held_type(PyObject* module) {
  static Field holders{"holders", offsetof(HeldObject, record.holders)};
  static Field amount{"amount", offsetof(HeldObject, record.amount)};
  static Field unbounded{"unbounded", offsetof(HeldObject, record.unbounded)};
  static PyGetSetDef attributes[] = {
      int64_field(holders), double_field(amount), int64_field(unbounded), dict_attribute(), {}};
  static PyMethodDef methods[] = {
      method<admits>("admits",
                     "admits($self, share, used, limit)\n--\n\n"
                     "Whether a call that would hold share may start while the settled calls used\n"
                     "used of limit. An infinite share (not known) only when nothing is held; and\n"
                     "while one is held, no other. All in the bound's unit. Takes no lock."),
      method<take>("take",
                   "take($self, share)\n--\n\n"
                   "Counts a call that holds share from now on. The bound's lock must be held."),
      method<give_back>(
          "give_back",
          "give_back($self, share)\n--\n\n"
          "Returns what take(share) took. Counts stop at 0. The bound's lock must be\n"
          "held."),
      method<reduce_held>("__reduce__", "__reduce__($self)\n--\n\nFor copy and pickle."),
      {}};
  return make_type<HeldObject>(
      module, {.name = "decision_bounds._Held",
               .doc = "_Held(holders=0, amount=0.0, unbounded=0)\n--\n\n"
                      "What the admitted calls hold of one bound: how many they are, the sum of\n"
                      "their bounded shares in the bound's unit, and how many hold an unbounded\n"
                      "one. Takes no lock: the bound's lock guards it.",
               .methods = methods,
               .attributes = attributes,
               .init = init_slot<HeldObject, init_held>,
               .repr = repr_slot<HeldObject, &HeldObject::record>,
               .compare = compare_slot<HeldObject, &HeldObject::record>});
}

PyTypeObject* make_charges_type(PyObject* module) {
  static Field per_byte{"per_byte", offsetof(ChargesObject, record.per_byte)};
  static Field per_call{"per_call", offsetof(ChargesObject, record.per_call)};
  static PyGetSetDef attributes[] = {
      double_field(per_byte), double_field(per_call), dict_attribute(), {}};
  static PyMethodDef methods[] = {
      method<bound>("bound",
                    "bound($self, size)\n--\n\n"
                    "The most that a request of size bytes may come to: the most per call or, if\n"
                    "more, the most per byte times size. Takes no lock."),
      method<learn>("learn",
                    "learn($self, size, charge)\n--\n\n"
                    "Takes in a reply that came to charge for a request of size bytes (below 1:\n"
                    "taken as 1). Takes no lock."),
      method<reduce_charges>("__reduce__", "__reduce__($self)\n--\n\nFor copy and pickle."),
      {}};
  return make_type<ChargesObject>(
      module,
      {.name = "decision_bounds._Charges",
       .doc = "_Charges(per_byte=0.0, per_call=0.0)\n--\n\n"
              "The most that one measure of the paid replies (US dollars, or input tokens)\n"
              "came to, per byte of a request and per call. Both only grow. Takes no lock.",
       .methods = methods,
       .attributes = attributes,
       .init = init_slot<ChargesObject, init_charges>,
       .repr = repr_slot<ChargesObject, &ChargesObject::record>,
       .compare = compare_slot<ChargesObject, &ChargesObject::record>});
}

}  // namespace decision_bounds::python
