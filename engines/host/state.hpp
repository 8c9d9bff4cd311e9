#pragma once

// What one instance of the module owns. Each interpreter has its own.

#include "capi/calls.hpp"
#include "capi/names.hpp"
#include "decision_bounds/run_budget.hpp"
#include "host/overrides.hpp"

namespace decision_bounds::python {

/// One of the two lock types of the interpreter's own, _thread.lock and _thread.RLock. Their
/// methods are called through their C functions, so nothing is looked up, nothing is allocated, and
/// they run no Python code of their own. (They may let the interpreter's lock go, though, and run
/// signal handlers.) Nothing that a `with` block would run is left out by that: the types cannot be
/// patched, and a derived type is another type.
struct NativeLock {
  PyTypeObject* type;  // owned; null where something else stood under its name
  PyCFunctionWithKeywords acquire;
  PyCFunction release;
  PyCFunction locked;    // of _thread.lock: whether any thread holds it; null of the other
  PyCFunction is_owned;  // of _thread.RLock: whether this thread does; null of the other

  /// Makes it of `lock`, a new object that should be of the type `name`. A function whose calling
  /// convention is not known here is taken not to be there.
  void remember(const Owned& lock, const char* name);
};

/// The objects that the module's state refers to, by what they are.
enum class Kept : std::size_t {
  budget_exceeded,
  timeout,
  stopped,
  never,
  nothing,
  wait,
  logger,
  new_condition,  // threading.Condition as it was at the import
  new_lock,       // and threading.Lock
  partial,        // functools.partial
  deque_type,     // collections.deque; null where something else stood in its place
  no_arguments,   // an empty tuple; null once the garbage collector has cleared the state
  count
};

/// The types whose methods a host may override.
enum class Known : std::size_t {
  share,
  held,
  charges,
  request_rates,
  run_budget,
  daily_spend,
  condition,  // threading.Condition; no type where another stood in its place at the import
  count
};

struct State {
  PyObject* module;  // borrowed: the state is a piece of it
  std::array<PyObject*, static_cast<std::size_t>(Kept::count)> kept;
  std::array<KnownType, static_cast<std::size_t>(Known::count)> known;
  NativeLock plain_lock, reentrant_lock;
  std::array<PyObject*, static_cast<std::size_t>(Name::count)> names;
  std::array<PyObject*, std::tuple_size_v<RunSummary>> summary_keys;

  [[nodiscard]] PyObject*& operator[](Kept which) noexcept {
    return kept[static_cast<std::size_t>(which)];
  }
  [[nodiscard]] PyObject* operator[](Kept which) const noexcept {
    return kept[static_cast<std::size_t>(which)];
  }
  [[nodiscard]] KnownType& operator[](Known which) noexcept {
    return known[static_cast<std::size_t>(which)];
  }
  [[nodiscard]] PyObject* type(Known which) const noexcept {
    return reinterpret_cast<PyObject*>(known[static_cast<std::size_t>(which)].type);
  }
  [[nodiscard]] PyObject* name(Name which) const noexcept {
    return names[static_cast<std::size_t>(which)];
  }
  [[nodiscard]] const NativeLock* native_lock(PyObject* lock) const noexcept {
    if (Py_TYPE(lock) == reentrant_lock.type) return &reentrant_lock;
    return Py_TYPE(lock) == plain_lock.type ? &plain_lock : nullptr;
  }
};

extern PyModuleDef module_definition;

/// Which Python error an error of the library becomes: the module's own of the same name.
struct LibraryErrors {
  const State* state;  // null where no decision error can come up

  void set(const std::exception& error) const noexcept;
};

inline State& module_state(PyObject* module) {
  return *static_cast<State*>(PyModule_GetState(module));
}

/// Raises once the garbage collector has begun to take the module apart: nothing can run any more.
inline State& alive(State& state) {
  if (state[Kept::no_arguments] == nullptr) raise(PyExc_RuntimeError, "decision_bounds is gone");
  return state;
}

/// The state of the module that defined the object's type or one of its bases.
State& state_of(PyObject* object);

/// The module's global `name` as it stands now; `fallback` (borrowed) when it is gone or None, as
/// at the end of the interpreter.
Owned global(const State& state, Name name, PyObject* fallback);

/// The module's _POLL_S as it stands now, in seconds.
double poll_seconds(const State& state);

}  // namespace decision_bounds::python
