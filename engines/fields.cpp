#include "fields.hpp"

#include "boundary.hpp"

namespace decision_bounds::python {
namespace {

template <class Value>
Value& at(PyObject* self, const Field& field) {
  return *reinterpret_cast<Value*>(reinterpret_cast<char*>(self) + field.offset);
}

template <class Value, class Convert>
PyObject* get_value(PyObject* self, void* closure, Convert convert) {
  const Field& field = *static_cast<const Field*>(closure);
  return guarded<PyObject*>(nullptr, nullptr,
                            [&] { return convert(at<Value>(self, field)).release(); });
}

template <class Value, class Convert>
int set_value(PyObject* self, PyObject* value, void* closure, Convert convert) {
  const Field& field = *static_cast<const Field*>(closure);
  return guarded<int>(nullptr, -1, [&] {
    require_value(value, field.name);
    const Value converted = convert(value, field.name);
    at<Value>(self, field) = converted;
    return 0;
  });
}

}  // namespace

PyObject* get_int64(PyObject* self, void* field) {
  return get_value<std::int64_t>(self, field, [](std::int64_t value) { return to_python(value); });
}

int set_int64(PyObject* self, PyObject* value, void* field) {
  return set_value<std::int64_t>(self, value, field, as_int64);
}

PyObject* get_double(PyObject* self, void* field) {
  return get_value<double>(self, field, [](double value) { return to_python(value); });
}

int set_double(PyObject* self, PyObject* value, void* field) {
  return set_value<double>(self, value, field, as_double);
}

PyObject* get_bool(PyObject* self, void* field) {
  return get_value<bool>(self, field,
                         [](bool value) { return Owned::copy(value ? Py_True : Py_False); });
}

int set_bool(PyObject* self, PyObject* value, void* field) {
  return set_value<bool>(self, value, field, [](PyObject* object, const char*) {
    return checked_count([=] { return PyObject_IsTrue(object); }) != 0;
  });
}

PyObject* get_object(PyObject* self, void* closure) {
  const Field& field = *static_cast<const Field*>(closure);
  return guarded<PyObject*>(nullptr, nullptr, [&] {
    return Owned::copy(set_or_raise(at<PyObject*>(self, field), self, field.name)).release();
  });
}

int set_object(PyObject* self, PyObject* value, void* closure) {
  const Field& field = *static_cast<const Field*>(closure);
  return guarded<int>(nullptr, -1, [&] {
    if (value != nullptr && field.check != nullptr) field.check(self, value, field.name);
    Py_XINCREF(value);
    drop(std::exchange(at<PyObject*>(self, field), value));
    return 0;
  });
}

void check_callable(PyObject*, PyObject* value, const char* name) { as_callable(value, name); }

void check_callable_or_none(PyObject*, PyObject* value, const char* name) {
  if (value != Py_None) as_callable(value, name);
}

void raise_unset(PyObject* self, const char* name) {
  raise(PyExc_AttributeError, "'%.100s' object has no attribute '%s'", Py_TYPE(self)->tp_name,
        name);
}

void require_value(PyObject* value, const char* name) {
  if (value == nullptr) raise(PyExc_TypeError, "%s cannot be deleted", name);
}

}  // namespace decision_bounds::python
