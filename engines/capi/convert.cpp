#include "capi/convert.hpp"

namespace decision_bounds::python {

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
