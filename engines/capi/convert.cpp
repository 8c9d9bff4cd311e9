#include "capi/convert.hpp"

namespace decision_bounds::python {

Owned to_python(double value) {
  return checked([=] { return PyFloat_FromDouble(value); });
}

Owned to_python(std::int64_t value) {
  return checked([=] { return PyLong_FromLongLong(value); });
}

Owned to_python(std::string_view value) {
  return checked([=] {
    return PyUnicode_FromStringAndSize(value.data(), static_cast<Py_ssize_t>(value.size()));
  });
}

template <>
double as(PyObject* value, const char* what) {
  if (PyFloat_CheckExact(value)) return PyFloat_AS_DOUBLE(value);
  const PyNumberMethods* number = Py_TYPE(value)->tp_as_number;
  const bool is_number =
      number != nullptr && (number->nb_float != nullptr || PyIndex_Check(value) != 0);
  require(is_number, value, what, "a real number");
  const double result = entering([=] { return PyFloat_AsDouble(value); });
  if (result == -1.0 && PyErr_Occurred() != nullptr) {
    if (PyLong_Check(value) && PyErr_ExceptionMatches(PyExc_OverflowError)) {
      raise(PyExc_OverflowError, "%s is too large for a float", what);
    }
    throw_raised();
  }
  return result;
}

template <>
Float as(PyObject* value, const char* what) {
  if (value == nullptr) return {to_python(0.0)};
  return {PyFloat_CheckExact(value) ? Owned::copy(value) : to_python(as<double>(value, what))};
}

template <>
std::int64_t as(PyObject* value, const char* what) {
  if (!PyLong_Check(value)) {
    require(PyIndex_Check(value) != 0, value, what, "an integer");
    return as<std::int64_t>(checked([=] { return PyNumber_Index(value); }).get(), what);
  }
  int overflow = 0;
  const long long result = PyLong_AsLongLongAndOverflow(value, &overflow);
  if (overflow != 0) raise(PyExc_OverflowError, "%s is out of the range of 64 bits", what);
  return result;
}

template <>
std::string as(PyObject* value, const char* what) {
  require(PyUnicode_Check(value), value, what, "a str");
  Py_ssize_t size = 0;
  const char* text = entering([&] { return PyUnicode_AsUTF8AndSize(value, &size); });
  if (text == nullptr) throw_raised();
  return {text, static_cast<std::size_t>(size)};
}

}  // namespace decision_bounds::python
