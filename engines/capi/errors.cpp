#include "capi/errors.hpp"

#include <cstdarg>

namespace decision_bounds::python {

[[gnu::noinline]] void drop_last(PyObject* object) noexcept {
  entering([object] { Py_DECREF(object); });
}

void throw_raised() {
  if (PyErr_Occurred() == nullptr || PyErr_ExceptionMatches(PyExc_Exception)) throw RaisedError();
  throw RaisedInterrupt();
}

void raise(PyObject* type, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  entering([&] { PyErr_FormatV(type, format, arguments); });
  va_end(arguments);
  throw_raised();
}

void RuntimeErrors::set(const std::exception& error) const noexcept {
  entering([&] { PyErr_SetString(PyExc_RuntimeError, error.what()); });
}

}  // namespace decision_bounds::python
