#pragma once

// References. Owned owns one; a plain PyObject* is borrowed, but for the fields of an object, which
// own what they name until the garbage collector clears them.

#include <utility>

#include "capi/version.hpp"

namespace decision_bounds::python {

/// Lets the last reference go, which may run Python code. Kept apart so that drop() is small enough
/// to be inlined everywhere.
void drop_last(PyObject* object) noexcept;

/// Lets a reference go; null is fine.
[[gnu::always_inline]] inline void drop(PyObject* object) noexcept {
  if (object == nullptr) return;
  if (Py_REFCNT(object) > 1) {
    Py_DECREF(object);
  } else {
    drop_last(object);
  }
}

/// Detaches a field before its reference goes, so that Python code run by that sees it empty.
inline void clear(PyObject*& field) noexcept { drop(std::exchange(field, nullptr)); }

/// An owned reference, or null.
class Owned {
 public:
  Owned() = default;
  /// Takes over a reference that the caller owns.
  static Owned steal(PyObject* object) noexcept { return Owned(object); }
  /// A new reference to a borrowed object, or to null.
  static Owned copy(PyObject* object) noexcept {
    Py_XINCREF(object);
    return Owned(object);
  }
  Owned(Owned&& other) noexcept : object_(other.release()) {}
  Owned& operator=(Owned&& other) noexcept {
    drop(std::exchange(object_, other.release()));
    return *this;
  }
  Owned(const Owned&) = delete;  // copy() says so where a reference is added
  Owned& operator=(const Owned&) = delete;
  [[gnu::always_inline]] ~Owned() { drop(object_); }

  [[nodiscard]] PyObject* get() const noexcept { return object_; }
  [[nodiscard]] PyObject* release() noexcept { return std::exchange(object_, nullptr); }
  explicit operator bool() const noexcept { return object_ != nullptr; }

 private:
  explicit Owned(PyObject* object) noexcept : object_(object) {}

  PyObject* object_ = nullptr;
};

inline Owned none() noexcept { return Owned::copy(Py_None); }

/// Puts `value` into a field, and hands out what was there: to be let go once the object is whole
/// again, since that may run Python code.
inline Owned replace(PyObject*& field, Owned value) noexcept {
  return Owned::steal(std::exchange(field, value.release()));
}

}  // namespace decision_bounds::python
