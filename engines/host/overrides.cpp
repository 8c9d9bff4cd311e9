#include "host/overrides.hpp"

namespace decision_bounds::python {

void KnownType::remember(PyTypeObject* known) {
  type = known;
  const Owned own = Owned::steal(type_dict(known));
  entries = checked([&] { return PyDict_Copy(own.get()); }).release();
  compare();
}

bool KnownType::compare() {
  PyObject* name = nullptr;
  PyObject* value = nullptr;
  Py_ssize_t first = 0;
  if (PyDict_Next(entries, &first, &name, &value) != 0) assign_type_version(type, name);
  const unsigned int now = type_version(type);  // read before what it stands for
  const Owned own = Owned::steal(type_dict(type));
  bool found = type->tp_getattro != PyObject_GenericGetAttr;  // a host's own __getattribute__
  for (Py_ssize_t i = 0; PyDict_Next(entries, &i, &name, &value) != 0;) {
    found = found || (PyCallable_Check(value) != 0 && entry_of(own.get(), name).get() != value);
  }
  for (Py_ssize_t i = 0; PyDict_Next(own.get(), &i, &name, &value) != 0;) {
    // A new data descriptor takes precedence over the attributes of an object.
    found = found || (Py_TYPE(value)->tp_descr_set != nullptr && !entry_of(entries, name));
  }
  version = now;
  patched = found;
  return found;
}

Owned look_override_up(PyObject* self, const KnownType& known, PyObject* name) {
  // First without an allocation: where memory is short, a derived type that leaves a step alone
  // must still be able to give back.
  PyObject* dict = reinterpret_cast<ObjectHead*>(self)->dict;
  if (Py_TYPE(self)->tp_getattro == PyObject_GenericGetAttr &&
      (dict == nullptr || !entry_of(dict, name)) &&
      type_attribute(Py_TYPE(self), name).get() == entry_of(known.entries, name).get()) {
    return {};
  }
  return get(self, name);
}

}  // namespace decision_bounds::python
