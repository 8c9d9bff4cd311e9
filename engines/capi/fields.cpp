#include "capi/fields.hpp"

#include <cstring>
#include <utility>
#include <variant>
#include <vector>

namespace decision_bounds::python {
namespace {

/// A field's value outside its object; an Owned stands for the field's PyObject*.
using Value = std::variant<std::int64_t, double, bool, std::string, Owned>;

std::uint32_t& deleted_in(PyObject* self) noexcept {
  return reinterpret_cast<ObjectHead*>(self)->deleted;
}

std::uint32_t bit_of(const Field& field) noexcept {
  return std::uint32_t{1} << (field.place.offset / sizeof(double) % 32);
}

Value converted(const Field& field, PyObject* value, const char* shown) {
  switch (field.place.kind) {
    case Kind::int64:
      return as_int64(value, shown);
    case Kind::real:
      return as_double(value, shown);
    case Kind::boolean:
      return checked_count([=] { return PyObject_IsTrue(value); }) != 0;
    case Kind::text:
      return as_string(value, shown);
    case Kind::object:
      break;
  }
  if (field.check != nullptr) field.check(value, shown);
  return Owned::copy(value);
}

/// What a new object begins with.
Value initial(const Field& field, PyObject* module) {
  if (field.initial != nullptr) return field.initial(module);
  constexpr Value (*empty[])() = {[] { return Value(std::int64_t{0}); }, [] { return Value(0.0); },
                                  [] { return Value(false); }, [] { return Value(std::string()); },
                                  [] { return Value(Owned()); }};
  return empty[static_cast<std::size_t>(field.place.kind)]();
}

/// Puts `value` into the field. What was there is left in `value`: letting an object go may run
/// Python code, which must find the field changed.
void exchange(PyObject* self, const Field& field, Value& value) {
  const auto swap_in = [&](auto& held) {
    using Held = std::remove_reference_t<decltype(held)>;
    if constexpr (std::is_same_v<Held, Owned>) {
      held = replace(field.in<PyObject*>(self), std::move(held));
    } else {
      std::swap(field.in<Held>(self), held);
    }
  };
  std::visit(swap_in, value);
  deleted_in(self) &= ~bit_of(field);
}

Owned value_in(PyObject* self, const Field& field) {
  if ((deleted_in(self) & bit_of(field)) != 0) raise_unset(self, field.name);
  switch (field.place.kind) {
    case Kind::int64:
      return to_python(field.in<std::int64_t>(self));
    case Kind::real:
      return to_python(field.in<double>(self));
    case Kind::boolean:
      return to_bool(field.in<bool>(self));
    case Kind::text:
      return to_python(field.in<std::string>(self));
    case Kind::object:
      break;
  }
  return Owned::copy(set_or_raise(field.in<PyObject*>(self), self, field.name));
}

PyObject* get_attribute(PyObject* self, void* field) {
  return guarded<PyObject*>(
      nullptr, [=] { return value_in(self, *static_cast<const Field*>(field)).release(); });
}

int set_attribute(PyObject* self, PyObject* object, void* closure) {
  const Field& field = *static_cast<const Field*>(closure);
  return guarded<int>(-1, [&] {
    if (object == nullptr) value_in(self, field);  // raises where it is deleted already
    if (object == nullptr && field.place.kind != Kind::object) {
      deleted_in(self) |= bit_of(field);
    } else {
      Value value = object != nullptr ? converted(field, object, field.name) : Value(Owned());
      exchange(self, field, value);
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

void initialise(PyObject* self, PyObject* module, const char* function, Fields fields,
                const Arguments& arguments) {
  std::vector<const char*> names;
  std::size_t required = 0;
  for (const Field& field : fields) {
    if (field.parameter != nullptr) names.push_back(field.parameter);
    if (field.required) ++required;
  }
  std::vector<PyObject*> given(names.size());
  sort_arguments({function, names, names.size(), required}, arguments, given);
  std::vector<Value> values;
  auto argument = given.begin();
  for (const Field& field : fields) {
    PyObject* value = field.parameter != nullptr ? *argument++ : nullptr;
    values.push_back(value != nullptr ? converted(field, value, field.parameter)
                                      : initial(field, module));
  }
  auto value = values.begin();
  for (const Field& field : fields) {
    // What has no name is kept beside an attribute, and says itself what it belongs to.
    if (field.name != nullptr) exchange(self, field, *value);
    ++value;
  }
}

Owned reduce(PyObject* self, Fields fields) {
  const auto count = static_cast<Py_ssize_t>(fields.size());
  const Owned arguments = checked([=] { return PyTuple_New(count); });
  for (Py_ssize_t i = 0; i < count; ++i) {
    PyTuple_SET_ITEM(arguments.get(), i,
                     value_in(self, fields[static_cast<std::size_t>(i)]).release());
  }
  PyObject* dict = reinterpret_cast<ObjectHead*>(self)->dict;
  return checked([&] {
    return PyTuple_Pack(3, Py_TYPE(self), arguments.get(), dict != nullptr ? dict : Py_None);
  });
}

void raise_unset(PyObject* self, const char* name) {
  const char* full = Py_TYPE(self)->tp_name;
  const char* dot = std::strrchr(full, '.');
  raise(PyExc_AttributeError, "'%.100s' object has no attribute '%s'",
        dot != nullptr ? dot + 1 : full, name);
}

void check_callable(PyObject* value, const char* shown) { as_callable(value, shown); }

void check_callable_or_none(PyObject* value, const char* shown) {
  if (value != Py_None) as_callable(value, shown);
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
