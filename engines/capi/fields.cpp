#include "capi/fields.hpp"

#include <cstring>
#include <vector>

namespace decision_bounds::python {
namespace {

std::uint32_t& deleted_in(PyObject* self) noexcept {
  return reinterpret_cast<ObjectHead*>(self)->deleted;
}

std::uint32_t bit_of(const Field& field) noexcept {
  return std::uint32_t{1} << (field.place.offset / sizeof(double) % 32);
}

Owned converted(const Field& field, PyObject* value, const char* shown) {
  if (field.place.plain != nullptr) return field.place.plain->converted(value, shown);
  if (field.check != nullptr) field.check(value, shown);
  return Owned::copy(value);
}

/// Puts what was converted, or null for what a field begins with, into the field. Hands out the
/// object that was there: letting it go may run Python code, which must find the field changed.
Owned store(PyObject* self, const Field& field, Owned value) {
  if (field.place.plain != nullptr) {
    field.place.plain->put(field.in(self), value.get());
  } else {
    value = replace(field.object_in(self), std::move(value));
  }
  deleted_in(self) &= ~bit_of(field);
  return value;
}

Owned value_in(PyObject* self, const Field& field) {
  if ((deleted_in(self) & bit_of(field)) != 0) raise_unset(self, field.name);
  if (field.place.plain != nullptr) return field.place.plain->get(field.in(self));
  return Owned::copy(set_or_raise(field.object_in(self), self, field.name));
}

PyObject* get_attribute(PyObject* self, void* field) {
  return guarded<PyObject*>(
      nullptr, [=] { return value_in(self, *static_cast<const Field*>(field)).release(); });
}

int set_attribute(PyObject* self, PyObject* object, void* closure) {
  const Field& field = *static_cast<const Field*>(closure);
  return guarded<int>(-1, [&] {
    if (object == nullptr) value_in(self, field);  // raises where it is deleted already
    if (object == nullptr && field.place.plain != nullptr) {
      deleted_in(self) |= bit_of(field);
    } else {
      store(self, field, object != nullptr ? converted(field, object, field.name) : Owned());
    }
    return 0;
  });
}

bool has(PyObject* value, const char* method) {
  const Owned name = checked([=] { return PyUnicode_InternFromString(method); });
  // A statement looks a special method up in the type.
  return static_cast<bool>(method[0] == '_' ? get_special(value, name.get())
                                            : get_if_there(value, name.get()));
}

}  // namespace

PyGetSetDef attribute_of(const Field& field) noexcept {
  return {field.name, get_attribute, set_attribute, nullptr, const_cast<Field*>(&field)};
}

void initialise(PyObject* self, const Signature& signature, Fields fields,
                const Arguments& arguments) {
  std::vector<PyObject*> given(fields.size());
  sort_arguments(signature, arguments, std::span(given).first(signature.parameters.size()));
  // Keyword arguments live in a dict, which the conversion of one may find and empty.
  std::vector<Owned> kept;
  kept.reserve(given.size());
  for (PyObject* value : given) kept.push_back(Owned::copy(value));
  std::vector<Owned> values(fields.size());
  for (std::size_t i = 0; i < fields.size(); ++i) {
    if (given[i] != nullptr) {
      values[i] = converted(fields[i], given[i], signature.parameters[i]);
    } else if (fields[i].initial != nullptr) {
      values[i] = fields[i].initial(self);
    }
  }
  for (std::size_t i = 0; i < fields.size(); ++i) {
    // What has no name is kept beside an attribute, and says itself what it belongs to.
    if (fields[i].name != nullptr) values[i] = store(self, fields[i], std::move(values[i]));
  }
}

void raise_unset(PyObject* self, const char* name) {
  const char* full = Py_TYPE(self)->tp_name;
  const char* dot = std::strrchr(full, '.');
  raise(PyExc_AttributeError, "'%.100s' object has no attribute '%s'",
        dot != nullptr ? dot + 1 : full, name);
}

void check_methods(PyObject* value, const char* shown, const char* kind,
                   std::initializer_list<const char*> methods) {
  for (const char* method : methods) {
    if (!has(value, method)) {
      raise(PyExc_TypeError, "%s must be %s: %.200s has no %s()", shown, kind,
            Py_TYPE(value)->tp_name, method);
    }
  }
}

}  // namespace decision_bounds::python
