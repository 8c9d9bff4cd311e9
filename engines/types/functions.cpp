// The functions of the module.

#include <optional>

#include "daily_spend_rules.hpp"
#include "host/condition.hpp"
#include "types/method.hpp"
#include "waiting.hpp"

namespace decision_bounds::python {
namespace {

PyObject* never_entry(PyObject*, PyObject*) { Py_RETURN_FALSE; }

/// A module function.
template <const Signature& signature, auto Body>
PyMethodDef function() noexcept {
  auto* entry = reinterpret_cast<void (*)()>(&Entry<signature, Body>::function);
  return {signature.name, reinterpret_cast<PyCFunction>(entry), METH_FASTCALL | METH_KEYWORDS,
          signature.doc};
}

void nothing(State&, PyObject&, PyObject*) {}

void wait(State& state, PyObject&, PyObject* changed, PyObject* stopping, PyObject* deadline,
          PyObject* clock) DECISION_BOUNDS_NO_ANALYSIS {
  check_methods(changed, "changed", "a condition variable", {"wait"});
  check_callable(stopping, "stopping");
  std::function<double()> host_clock;
  if (clock != nullptr && clock != Py_None) {
    check_callable(clock, "clock");
    host_clock = [clock] { return as<double>(call(clock).get(), "clock()"); };
  }
  std::optional<double> end;
  if (deadline != nullptr && deadline != Py_None) end = as<double>(deadline, "deadline");
  ConditionParts parts{};  // stays empty: the condition is only waited on
  Deferred deferred(Locking::may_fail);
  PythonCondition condition(state, {nullptr, changed, "changed"}, parts, deferred);
  condition.adopt(changed);
  internal::wait_for_room(
      condition, [stopping] { return truth(call(stopping)); },
      internal::Deadline{end, host_clock, internal::deadline_text},
      [&state] { return poll_seconds(state); });
}

}  // namespace

PyMethodDef never_function = {"never", never_entry, METH_NOARGS, stub::never.doc};
PyMethodDef nothing_function = function<stub::nothing, nothing>();
PyMethodDef wait_function = function<stub::wait, wait>();

}  // namespace decision_bounds::python
