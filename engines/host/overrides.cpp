#include "host/overrides.hpp"

namespace decision_bounds::python {

void KnownType::remember(PyTypeObject* known) {
  type = known;
  entries = checked([=] { return PyDict_Copy(type_dict(known)); }).release();
  compare();
}

bool KnownType::compare() {
  auto* object = reinterpret_cast<PyObject*>(type);
  // A look-up makes the interpreter give the type a version. It is read before what it stands for.
  const Owned any = checked([=] { return PyObject_GetAttrString(object, "__init__"); });
  const unsigned int now = type_version(type);
  bool found = type->tp_getattro != PyObject_GenericGetAttr;  // a host's own __getattribute__
  PyObject* name = nullptr;
  PyObject* known = nullptr;
  for (Py_ssize_t i = 0; PyDict_Next(entries, &i, &name, &known) != 0;) {
    if (PyCallable_Check(known) == 0) continue;
    found = found || entry_of(type_dict(type), name).get() != known;
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
