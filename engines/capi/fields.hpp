#pragma once

// The attributes of an object that are fields of its C++ struct. One row of a type's table makes
// the attribute, its conversion, the argument of __init__, and what the garbage collector sees of
// it.

#include <cstddef>
#include <initializer_list>
#include <span>
#include <type_traits>

#include "capi/arguments.hpp"
#include "capi/convert.hpp"

namespace decision_bounds::python {

/// How each object of the module begins. The interpreter allocates objects zeroed, not constructed:
/// what zeros do not stand for is constructed in place by the type's own `create`.
struct ObjectHead {
  PyObject_HEAD
  PyObject *dict, *weakrefs;
  /// The fields that were deleted, a bit each. A number can be deleted, since tests that patch one
  /// delete it before they put the old value back. Until then its attribute is missing, and the
  /// operations go on with its last value.
  std::uint32_t deleted;
};

/// The Python object of one of the module's structs.
template <class Object>
PyObject* object_of(Object& self) noexcept {
  return reinterpret_cast<PyObject*>(&self);
}

/// How a field that holds a C++ value is read and written.
struct Plain {
  /// Converts `value` to an object that put() takes; what may fail, fails here.
  Owned (*converted)(PyObject* value, const char* shown);
  void (*put)(void* field, PyObject* value);  ///< null: a zero, or an empty text
  Owned (*get)(const void* field);
};

template <class Value>
inline constexpr Plain plain{
    [](PyObject* value, const char* shown) { return to_python(as<Value>(value, shown)); },
    [](void* field, PyObject* value) {
      *static_cast<Value*>(field) = value != nullptr ? as<Value>(value, "") : Value();
    },
    [](const void* field) { return to_python(*static_cast<const Value*>(field)); }};

template <class Value>
inline constexpr const Plain* plain_of = &plain<Value>;
template <>
inline constexpr const Plain* plain_of<PyObject*> = nullptr;

struct Place {
  const Plain* plain;  ///< null: the field holds an object
  std::size_t offset;
};

/// Where a field lies in `Object`, and what it holds.
// NOLINTBEGIN(bugprone-macro-parentheses): a member cannot stand in parentheses
#define DECISION_BOUNDS_PLACE(Object, member)                                      \
  Place {                                                                          \
    plain_of<std::remove_reference_t<decltype((std::declval<Object&>().member))>>, \
        offsetof(Object, member)                                                   \
  }
// NOLINTEND(bugprone-macro-parentheses)

/// Raises unless an object may be put into a field; `shown` names the field in the error.
using Check = void (*)(PyObject* value, const char* shown);
/// Makes what a field of the new object `self` holds where no argument says.
using Initial = Owned (*)(PyObject* self);

struct Field {
  const char* name;  ///< of the attribute; null: none, only the garbage collector sees the field
  Place place;
  Check check = nullptr;      ///< of objects; null: any may be put there
  Initial initial = nullptr;  ///< of objects; numbers begin with 0, texts empty

  [[nodiscard]] void* in(PyObject* self) const noexcept {
    return reinterpret_cast<char*>(self) + place.offset;
  }
  /// Of a field that holds an object.
  [[nodiscard]] PyObject*& object_in(PyObject* self) const noexcept {
    return *static_cast<PyObject**>(in(self));
  }
};

/// The rows of a type. The parameters of its __init__ fill the first, in their order.
using Fields = std::span<const Field>;

/// The row of an attribute table for a field that has a name.
PyGetSetDef attribute_of(const Field& field) noexcept;

/// __init__: converts all arguments and makes all that is missing, and only then changes the
/// object, so that a failure changes nothing and a second __init__ works.
void initialise(PyObject* self, const Signature& signature, Fields fields,
                const Arguments& arguments);

/// Raises AttributeError for a field that was never set, or deleted.
[[noreturn]] void raise_unset(PyObject* self, const char* name);

/// `object` (borrowed), or the AttributeError where it was never set.
inline PyObject* set_or_raise(PyObject* object, PyObject* self, const char* name) {
  if (object == nullptr) raise_unset(self, name);
  return object;
}

/// An attribute of `self` as an operation uses it: a host may replace it at any time, so each use
/// takes a copy.
struct Attribute {
  PyObject* self;
  PyObject*& field;
  const char* name;

  [[nodiscard]] Owned get() const { return Owned::copy(set_or_raise(field, self, name)); }
};

inline void check_callable(PyObject* value, const char* shown) {
  require(PyCallable_Check(value) != 0, value, shown, "callable");
}
inline void check_callable_or_none(PyObject* value, const char* shown) {
  if (value != Py_None) check_callable(value, shown);
}
/// Raises TypeError unless `value`, which is to be `kind`, has these methods.
void check_methods(PyObject* value, const char* shown, const char* kind,
                   std::initializer_list<const char*> methods);

}  // namespace decision_bounds::python
