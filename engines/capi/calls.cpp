#include "capi/calls.hpp"

namespace decision_bounds::python {

Owned get_if_there(PyObject* object, PyObject* name) {
  try {
    return get(object, name);
  } catch (RaisedError& error) {
    if (PyErr_GivenExceptionMatches(error.value(), PyExc_AttributeError) == 0) throw;
    return {};
  }
}

Owned entry_of(PyObject* dict, PyObject* name) {
  const Owned kept = Owned::copy(dict);  // a key may have an __eq__ in Python, which lets it go
  PyObject* entry = entering([=] { return PyDict_GetItemWithError(dict, name); });
  if (entry == nullptr && PyErr_Occurred() != nullptr) throw_raised();
  return Owned::copy(entry);
}

Owned type_attribute(PyTypeObject* type, PyObject* name) {
  const Owned bases = Owned::copy(type->tp_mro);
  Owned found;
  for (Py_ssize_t i = 0; !found && i < PyTuple_GET_SIZE(bases.get()); ++i) {
    PyObject* base = PyTuple_GET_ITEM(bases.get(), i);
    const Owned own = Owned::steal(type_dict(reinterpret_cast<PyTypeObject*>(base)));
    found = entry_of(own.get(), name);
  }
  return found;
}

Owned get_special(PyObject* object, PyObject* name) {
  PyTypeObject* type = Py_TYPE(object);
  Owned found = type_attribute(type, name);
  const descrgetfunc bind = found ? Py_TYPE(found.get())->tp_descr_get : nullptr;
  if (bind == nullptr) return found;
  return checked([&] { return bind(found.get(), object, reinterpret_cast<PyObject*>(type)); });
}

}  // namespace decision_bounds::python
