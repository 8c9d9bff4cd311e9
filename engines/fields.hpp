#pragma once

// Attributes that stand for a field of the object's C++ struct. A table row carries a Field, which
// says where the value lies and what may be put there.

#include "python.hpp"

namespace decision_bounds::python {

/// How an object begins that has fields which are not objects. Such a field can be deleted, since
/// tests that patch it delete it before they put the old value back; until then its attribute is
/// missing, and the operations go on with its last value.
struct Deletable {
  PyObject_HEAD
  std::uint32_t deleted;  // a bit a field, by its offset
};

struct Field {
  const char* name;
  std::size_t offset;
  /// Raises unless `value` may be set; null where anything may. `self` is the object.
  void (*check)(PyObject* self, PyObject* value, const char* name) = nullptr;
};

PyObject* get_int64(PyObject* self, void* field);
int set_int64(PyObject* self, PyObject* value, void* field);
PyObject* get_double(PyObject* self, void* field);
int set_double(PyObject* self, PyObject* value, void* field);
PyObject* get_bool(PyObject* self, void* field);
int set_bool(PyObject* self, PyObject* value, void* field);
PyObject* get_text(PyObject* self, void* field);
int set_text(PyObject* self, PyObject* value, void* field);
PyObject* get_object(PyObject* self, void* field);
int set_object(PyObject* self, PyObject* value, void* field);

void check_callable(PyObject* self, PyObject* value, const char* name);
void check_callable_or_none(PyObject* self, PyObject* value, const char* name);
/// These ask for the methods that the module calls.
void check_lock(PyObject* self, PyObject* value, const char* name);
void check_condition(PyObject* self, PyObject* value, const char* name);
void check_charges(PyObject* self, PyObject* value, const char* name);
void check_held(PyObject* self, PyObject* value, const char* name);

/// Raises AttributeError for a field that was never set, or deleted.
[[noreturn]] void raise_unset(PyObject* self, const char* name);

/// `object` (borrowed), or the AttributeError where it was never set.
inline PyObject* set_or_raise(PyObject* object, PyObject* self, const char* name) {
  if (object == nullptr) raise_unset(self, name);
  return object;
}

inline PyGetSetDef int64_field(Field& field) noexcept {
  return {field.name, get_int64, set_int64, nullptr, &field};
}
inline PyGetSetDef double_field(Field& field) noexcept {
  return {field.name, get_double, set_double, nullptr, &field};
}
inline PyGetSetDef bool_field(Field& field) noexcept {
  return {field.name, get_bool, set_bool, nullptr, &field};
}
inline PyGetSetDef text_field(Field& field) noexcept {
  return {field.name, get_text, set_text, nullptr, &field};
}
inline PyGetSetDef object_field(Field& field) noexcept {
  return {field.name, get_object, set_object, nullptr, &field};
}

}  // namespace decision_bounds::python
