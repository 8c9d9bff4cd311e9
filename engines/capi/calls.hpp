#pragma once

// Attributes of Python objects, and calls.

#include "capi/errors.hpp"

namespace decision_bounds::python {

inline bool truth(const Owned& object) {
  return checked_count([&] { return PyObject_IsTrue(object.get()); }) != 0;
}

inline Owned get(PyObject* object, PyObject* name) {
  return checked([=] { return PyObject_GetAttr(object, name); });
}

/// The attribute, or null where there is none.
Owned get_if_there(PyObject* object, PyObject* name);

/// The entry of a dict; null where there is none. Allocates nothing.
Owned entry_of(PyObject* dict, PyObject* name);

/// The attribute of a type or of the first base that has it, not bound to anything; null where
/// there is none. Allocates nothing.
Owned type_attribute(PyTypeObject* type, PyObject* name);

/// What a statement such as `with` looks up: the attribute of the object's type, bound to the
/// object; null where the type has none. An attribute of the object's own is not seen.
Owned get_special(PyObject* object, PyObject* name);

template <std::same_as<PyObject*>... Arguments>
Owned call(PyObject* callable, Arguments... arguments) {
  PyObject* all[] = {nullptr, arguments...};  // the first place is the callee's to use
  return checked([&] {
    return PyObject_Vectorcall(callable, all + 1,
                               sizeof...(arguments) | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr);
  });
}

template <std::same_as<PyObject*>... Arguments>
Owned call_method(PyObject* object, PyObject* name, Arguments... arguments) {
  PyObject* all[] = {nullptr, object, arguments...};
  return checked([&] {
    return PyObject_VectorcallMethod(
        name, all + 1, (1 + sizeof...(arguments)) | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr);
  });
}

}  // namespace decision_bounds::python
