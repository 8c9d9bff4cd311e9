#include "fields.hpp"

#include <cstring>

#include "boundary.hpp"

namespace decision_bounds::python {
namespace {

template <class Value>
Value& at(PyObject* self, const Field& field) {
  return *reinterpret_cast<Value*>(reinterpret_cast<char*>(self) + field.offset);
}

std::uint32_t bit_of(const Field& field) noexcept {
  return std::uint32_t{1} << (field.offset / sizeof(double) % 32);
}

template <class Value, class Convert>
PyObject* get_value(PyObject* self, void* closure, Convert convert) {
  const Field& field = *static_cast<const Field*>(closure);
  return guarded<PyObject*>(nullptr, nullptr, [&] {
    if ((reinterpret_cast<Deletable*>(self)->deleted & bit_of(field)) != 0) {
      raise_unset(self, field.name);
    }
    return convert(at<Value>(self, field)).release();
  });
}

template <class Value, class Convert>
int set_value(PyObject* self, PyObject* value, void* closure, Convert convert) {
  const Field& field = *static_cast<const Field*>(closure);
  std::uint32_t& deleted = reinterpret_cast<Deletable*>(self)->deleted;
  return guarded<int>(nullptr, -1, [&] {
    if (value == nullptr) {
      if ((deleted & bit_of(field)) != 0) raise_unset(self, field.name);
      deleted |= bit_of(field);
    } else {
      at<Value>(self, field) = convert(value, field.name);
      deleted &= ~bit_of(field);
    }
    return 0;
  });
}

bool has(PyObject* value, const char* method) {
  const Owned name = checked([=] { return PyUnicode_InternFromString(method); });
  return static_cast<bool>(get_if_there(value, name.get()));
}

void check_methods(PyObject* value, const char* name, const char* kind,
                   std::initializer_list<const char*> methods) {
  for (const char* method : methods) {
    if (!has(value, method)) {
      raise(PyExc_TypeError, "%s must be %s: %.200s has no %s()", name, kind,
            Py_TYPE(value)->tp_name, method);
    }
  }
}

/// A lock is entered as by a with block, or else by acquire.
void check_lock_methods(PyObject* value, const char* name, const char* kind) {
  check_methods(value, name, kind,
                has(value, "__enter__") ? std::initializer_list<const char*>{"__exit__"}
                                        : std::initializer_list<const char*>{"acquire", "release"});
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

PyObject* get_bool(PyObject* self, void* field) { return get_value<bool>(self, field, to_bool); }

int set_bool(PyObject* self, PyObject* value, void* field) {
  return set_value<bool>(self, value, field, [](PyObject* object, const char*) {
    return checked_count([=] { return PyObject_IsTrue(object); }) != 0;
  });
}

PyObject* get_text(PyObject* self, void* field) {
  return get_value<std::string>(self, field,
                                [](const std::string& value) { return to_python(value); });
}

int set_text(PyObject* self, PyObject* value, void* field) {
  return set_value<std::string>(self, value, field, as_string);
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
    replace(at<PyObject*>(self, field), Owned::copy(value));
    return 0;
  });
}

void check_callable(PyObject*, PyObject* value, const char* name) { as_callable(value, name); }

void check_callable_or_none(PyObject*, PyObject* value, const char* name) {
  if (value != Py_None) as_callable(value, name);
}

void check_lock(PyObject*, PyObject* value, const char* name) {
  check_lock_methods(value, name, "a lock");
}

void check_condition(PyObject*, PyObject* value, const char* name) {
  check_lock_methods(value, name, "a condition variable");
  check_methods(value, name, "a condition variable", {"wait", "notify_all"});
}

void check_charges(PyObject*, PyObject* value, const char* name) {
  check_methods(value, name, "a _Charges", {"bound", "learn"});
}

void check_held(PyObject*, PyObject* value, const char* name) {
  check_methods(value, name, "a _Held", {"admits", "take", "give_back"});
}

void raise_unset(PyObject* self, const char* name) {
  const char* full = Py_TYPE(self)->tp_name;
  const char* dot = std::strrchr(full, '.');
  raise(PyExc_AttributeError, "'%.100s' object has no attribute '%s'",
        dot != nullptr ? dot + 1 : full, name);
}

}  // namespace decision_bounds::python
