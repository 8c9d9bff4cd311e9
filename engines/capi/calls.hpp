#pragma once

// Attributes of Python objects, and calls.

#include "capi/errors.hpp"

namespace decision_bounds::python {

inline bool truth(const Owned& object) {
  if (object.get() == Py_True) return true;
  if (object.get() == Py_False) return false;
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

/// The definition behind a method of a built-in object, bound or not; null for anything else.
PyMethodDef* definition_of(PyObject* method) noexcept;

/// A method without arguments of a type written in C, called through its function: nothing is
/// looked up, nothing is allocated, and it runs no Python code of its own. (It may let the
/// interpreter's lock go, though, and run signal handlers.)
class NativeMethod {
 public:
  NativeMethod() = default;
  /// `definition`: of the method; null, or one whose calling convention is not known here, makes a
  /// method that is not there.
  explicit NativeMethod(const PyMethodDef* definition) noexcept;

  explicit operator bool() const noexcept { return plain_ != nullptr || keywords_ != nullptr; }
  /// Whether this is the method that `definition` defines.
  [[nodiscard]] bool is(const PyMethodDef* definition) const noexcept {
    return plain_ != nullptr && definition != nullptr && definition->ml_meth == plain_;
  }
  /// `no_arguments` is an empty tuple.
  Owned operator()(PyObject* self, PyObject* no_arguments) const {
    return checked([&] {
      return plain_ != nullptr ? plain_(self, nullptr) : keywords_(self, no_arguments, nullptr);
    });
  }

 private:
  PyCFunction plain_ = nullptr;                 // METH_NOARGS
  PyCFunctionWithKeywords keywords_ = nullptr;  // METH_VARARGS | METH_KEYWORDS
};

}  // namespace decision_bounds::python
