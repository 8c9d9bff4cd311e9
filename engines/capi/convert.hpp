#pragma once

// Numbers and texts between Python and C++. `what` names the value in the error.

#include <cstdint>
#include <string>

#include "capi/calls.hpp"

namespace decision_bounds::python {

Owned to_python(double value);
Owned to_python(std::int64_t value);
Owned to_python(const std::string& value);

/// TypeError for what is no real number, OverflowError for an integer too large for a float.
double as_double(PyObject* value, const char* what);
/// The same as a float object; the very object where it is one already.
Owned as_float(PyObject* value, const char* what);
/// TypeError for what is no integer, OverflowError for one beyond 64 bits.
std::int64_t as_int64(PyObject* value, const char* what);
/// TypeError for what is no str.
std::string as_string(PyObject* value, const char* what);
/// Returns `value`; TypeError unless it can be called.
PyObject* as_callable(PyObject* value, const char* what);

}  // namespace decision_bounds::python
