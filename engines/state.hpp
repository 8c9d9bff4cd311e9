#pragma once

// What one instance of the module owns: its types, its functions, what it takes from the host, and
// the names by which it asks Python objects.

#include <array>
#include <cstddef>

#include "python.hpp"

namespace decision_bounds::python {

// clang-format off
#define DECISION_BOUNDS_NAMES(X)                                                              \
  X(acquire) X(admits) X(amount) X(bound) X(cache_hits) X(cached) X(calls) X(cap) X(changed)  \
  X(charge) X(clock) X(cost) X(day) X(deadline) X(exc_info) X(feature) X(give_back) X(held)   \
  X(holders) X(in_flight) X(input_tokens) X(learn) X(ledger) X(limit) X(locked) X(logger)     \
  X(max_calls) X(max_tokens) X(notify) X(notify_all) X(per_byte) X(per_call) X(release)       \
  X(reply) X(reserve) X(result) X(settle) X(share) X(should_stop) X(size) X(stopping) X(take) \
  X(today) X(tokens) X(unbounded) X(used) X(wait) X(warning) X(_POLL_S) X(__enter__)          \
  X(__exit__) X(_changed) X(_exhausted_locked) X(_give_back) X(_held_tokens) X(_is_owned)     \
  X(_lock) X(_reply) X(_spent_since) X(_summary_locked) X(_today_locked) X(_wait) X(_waiters)
// clang-format on

enum class Name : std::size_t {
#define DECISION_BOUNDS_NAME(name) name,
  DECISION_BOUNDS_NAMES(DECISION_BOUNDS_NAME)
#undef DECISION_BOUNDS_NAME
      count
};

/// A type of which a step may be overridden from Python, and the version of its attributes as the
/// module defined them.
struct OwnType {
  PyTypeObject* type;
  std::uint64_t version;
};

struct State {
  PyObject* module;  // borrowed: the state is a piece of it

  OwnType share, held, charges, request_rates, run_budget, daily_spend;
  PyObject *decision_error, *budget_exceeded, *unavailable, *timeout, *stopped;
  PyObject *never, *nothing, *wait;
  PyObject* give_back;  // DailySpend's own method, unbound

  OwnType condition;               // threading.Condition
  PyObject* allocate_lock;         // threading.Lock
  PyTypeObject* lock;              // the type of its locks
  PyTypeObject* transparent_lock;  // of a condition's, if known from within
  PyObject* partial;               // functools.partial
  PyObject* deque;                 // collections.deque
  PyObject* logger;
  PyObject* no_arguments;  // an empty tuple

  std::array<PyObject*, static_cast<std::size_t>(Name::count)> names;
  std::array<PyObject*, 6> summary_keys;

  [[nodiscard]] PyObject* name(Name which) const noexcept {
    return names[static_cast<std::size_t>(which)];
  }
};

/// The version of a dict of attributes: another after each change.
inline std::uint64_t attributes_version(PyObject* dict) noexcept {
  return reinterpret_cast<PyDictObject*>(dict)->ma_version_tag;
}

/// The version of the type's own attributes as they are now.
inline std::uint64_t attributes_version(const OwnType& own) noexcept {
  return attributes_version(own.type->tp_dict);
}

/// Whether nothing about `object` can have been overridden: no subclass, no attribute of its type
/// replaced, no attribute of its own. Only then may a step skip the look-up by name.
template <class Object>
bool untouched(Object* object, const OwnType& own) noexcept {
  return Py_TYPE(object) == own.type && attributes_version(own) == own.version &&
         (object->dict == nullptr || PyDict_GET_SIZE(object->dict) == 0);
}

inline State& module_state(PyObject* module) {
  return *static_cast<State*>(PyModule_GetState(module));
}

/// Raises once the garbage collector has begun to take the module apart: nothing can run any more.
inline State& alive(State& state) {
  if (state.no_arguments == nullptr) raise(PyExc_RuntimeError, "decision_bounds is gone");
  return state;
}

/// The state of the module that defined `type` or one of its bases.
State& state_of(PyTypeObject* type);

inline State& state_of(PyObject* object) { return state_of(Py_TYPE(object)); }

/// The module's global `name` as it stands now; `fallback` (borrowed) when it is gone or None, as
/// at the end of the interpreter.
Owned global(const State& state, Name name, PyObject* fallback);

/// The module's _POLL_S as it stands now, in seconds.
double poll_seconds(const State& state);

}  // namespace decision_bounds::python
