#include "python.hpp"

#include <unistd.h>

#include <cstdarg>

namespace decision_bounds::python {

void park_dying_thread() noexcept {
  for (;;) pause();
}

[[gnu::noinline]] void drop_last(PyObject* object) noexcept {
  entering([object] { Py_DECREF(object); });
}

Owned get_if_there(PyObject* object, PyObject* name) {
  try {
    return get(object, name);
  } catch (RaisedError& error) {
    if (PyErr_GivenExceptionMatches(error.value(), PyExc_AttributeError) == 0) throw;
    return {};
  }
}

Raised::Raised() noexcept {
  PyObject* type = nullptr;
  PyObject* value = nullptr;
  PyObject* traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback);
  entering([&] {
    PyErr_NormalizeException(&type, &value, &traceback);
    if (traceback != nullptr) PyException_SetTraceback(value, traceback);
  });
  type_ = Owned::steal(type);
  value_ = Owned::steal(value);
  traceback_ = Owned::steal(traceback);
}

void Raised::restore() noexcept {
  entering([this] { PyErr_Restore(type_.release(), value_.release(), traceback_.release()); });
}

void throw_raised() {
  if (PyErr_ExceptionMatches(PyExc_Exception)) throw RaisedError();
  throw RaisedInterrupt();
}

void raise(PyObject* type, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  entering([&] { PyErr_FormatV(type, format, arguments); });
  va_end(arguments);
  throw_raised();
}

Owned call_builtin(PyObject* method, PyObject* nothing) {
  const int convention = PyCFunction_Check(method) ? PyCFunction_GET_FLAGS(method) : -1;
  if (convention == METH_NOARGS) {
    return checked(
        [=] { return PyCFunction_GET_FUNCTION(method)(PyCFunction_GET_SELF(method), nullptr); });
  }
  if (convention == (METH_VARARGS | METH_KEYWORDS)) {
    const auto function = reinterpret_cast<PyCFunctionWithKeywords>(
        reinterpret_cast<void (*)()>(PyCFunction_GET_FUNCTION(method)));
    return checked([=] { return function(PyCFunction_GET_SELF(method), nothing, nullptr); });
  }
  return call(method);
}

Owned to_python(double value) {
  return checked([=] { return PyFloat_FromDouble(value); });
}

Owned to_python(std::int64_t value) {
  return checked([=] { return PyLong_FromLongLong(value); });
}

Owned to_python(const std::string& value) {
  return checked([&] {
    return PyUnicode_FromStringAndSize(value.data(), static_cast<Py_ssize_t>(value.size()));
  });
}

double as_double(PyObject* value, const char* what) {
  if (PyFloat_CheckExact(value)) return PyFloat_AS_DOUBLE(value);
  const PyNumberMethods* number = Py_TYPE(value)->tp_as_number;
  if (!PyFloat_Check(value) &&
      (number == nullptr || (number->nb_float == nullptr && number->nb_index == nullptr))) {
    raise(PyExc_TypeError, "%s must be a real number, not %.200s", what, Py_TYPE(value)->tp_name);
  }
  const double result = entering([=] { return PyFloat_AsDouble(value); });
  if (result == -1.0 && PyErr_Occurred() != nullptr) {
    if (PyLong_Check(value) && PyErr_ExceptionMatches(PyExc_OverflowError)) {
      raise(PyExc_OverflowError, "%s is too large for a float", what);
    }
    throw_raised();
  }
  return result;
}

Owned as_float(PyObject* value, const char* what) {
  return PyFloat_CheckExact(value) ? Owned::copy(value) : to_python(as_double(value, what));
}

std::optional<double> as_deadline(PyObject* value) {
  if (value == Py_None) return std::nullopt;
  return as_double(value, "deadline");
}

std::int64_t as_int64(PyObject* value, const char* what) {
  if (!PyLong_Check(value)) {
    if (!PyIndex_Check(value)) {
      raise(PyExc_TypeError, "%s must be an integer, not %.200s", what, Py_TYPE(value)->tp_name);
    }
    return as_int64(checked([=] { return PyNumber_Index(value); }).get(), what);
  }
  int overflow = 0;
  const long long result = PyLong_AsLongLongAndOverflow(value, &overflow);
  if (overflow != 0) raise(PyExc_OverflowError, "%s is out of the range of 64 bits", what);
  return result;
}

std::string as_string(PyObject* value, const char* what) {
  if (!PyUnicode_Check(value)) {
    raise(PyExc_TypeError, "%s must be a str, not %.200s", what, Py_TYPE(value)->tp_name);
  }
  Py_ssize_t size = 0;
  const char* text = entering([&] { return PyUnicode_AsUTF8AndSize(value, &size); });
  if (text == nullptr) throw_raised();
  return {text, static_cast<std::size_t>(size)};
}

PyObject* as_callable(PyObject* value, const char* what) {
  if (PyCallable_Check(value) == 0) {
    raise(PyExc_TypeError, "%s must be callable, not %.200s", what, Py_TYPE(value)->tp_name);
  }
  return value;
}

}  // namespace decision_bounds::python
