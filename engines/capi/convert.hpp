#pragma once

// Numbers and texts between Python and C++.

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>

#include "capi/calls.hpp"

namespace decision_bounds::python {

Owned to_python(double value);
Owned to_python(std::int64_t value);
Owned to_python(std::string_view value);
inline Owned to_python(std::same_as<bool> auto value) noexcept {
  return Owned::copy(value ? Py_True : Py_False);
}
inline Owned to_python(Owned value) noexcept { return value; }

/// A number as a float object.
struct Float : Owned {};

/// Raises the TypeError that `what` must be `kind`, unless `value` is of that kind.
inline void require(bool is_of_kind, PyObject* value, const char* what, const char* kind) {
  if (is_of_kind) return;
  raise(PyExc_TypeError, "%s must be %s, not %.200s", what, kind, Py_TYPE(value)->tp_name);
}

/// `value` in C++ terms. `what` names it in the error.
template <class Value>
Value as(PyObject* value, const char* what);
/// TypeError for what is no real number, OverflowError for an integer too large for a float.
template <>
double as(PyObject* value, const char* what);
/// The same; the very object where it is a float already, and 0.0 for null.
template <>
Float as(PyObject* value, const char* what);
/// TypeError for what is no integer, OverflowError for one beyond 64 bits.
template <>
std::int64_t as(PyObject* value, const char* what);
/// Its truth.
template <>
inline bool as(PyObject* value, const char*) {
  return checked_count([=] { return PyObject_IsTrue(value); }) != 0;
}
/// TypeError for what is no str.
template <>
std::string as(PyObject* value, const char* what);
/// The object itself, borrowed, or null.
template <>
inline PyObject* as(PyObject* value, const char*) {
  return value;
}

}  // namespace decision_bounds::python
