#pragma once

// The attributes that hold a lock or a condition variable, and what makes using the interpreter's
// own quick.

#include "state.hpp"

namespace decision_bounds::python {

/// A lock attribute, and the bound methods of a lock of the interpreter's own.
struct LockField {
  PyObject* object;  // the attribute
  PyObject* bound;   // the lock that the methods belong to
  PyObject *acquire, *release, *locked;

  /// Whether this is one of the interpreter's own locks, and its methods are at hand. `ran`: set
  /// when Python code may have run.
  bool bind(const State& state, bool& ran);

  int traverse(visitproc visit, void* arg) const;
  void clear() noexcept;
};

/// A condition attribute. For a threading.Condition that nobody changed, its lock's methods and its
/// queue of waiters, so that no Python code runs where nobody waits.
struct ConditionField {
  PyObject* object;                       // the attribute
  PyObject* bound;                        // the condition that the rest belongs to
  PyObject* dict;                         // its attributes
  std::uint64_t version;                  // of dict, when the rest was read from it
  PyObject *acquire, *release, *waiters;  // null where it must be used by name
  PyObject* reentrant;  // borrowed from acquire: the lock, where it can be seen to be free

  /// Whether this is a threading.Condition that nobody changed, and the rest is at hand. `ran`: set
  /// when Python code may have run.
  bool bind(const State& state, bool& ran);
  /// Whether the lock is seen to be free. True for as long as this thread runs no Python code.
  [[nodiscard]] bool is_free() const noexcept;

  int traverse(visitproc visit, void* arg) const;
  void clear() noexcept;
};

/// The type of the interpreter's re-entrant locks, borrowed, if it can be seen whether one is free;
/// else null.
PyTypeObject* transparent_lock_type(const State& state);

}  // namespace decision_bounds::python
