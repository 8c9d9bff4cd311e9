// The functions of the module.

#include <optional>

#include "daily_spend_rules.hpp"
#include "docs.hpp"
#include "host/condition.hpp"
#include "types/method.hpp"
#include "waiting.hpp"

namespace decision_bounds::python {
namespace {

PyObject* never_entry(PyObject*, PyObject*) { Py_RETURN_FALSE; }

/// The C function of a module function whose body is `Owned body(State&, const Arguments&)`.
template <Owned (*Body)(State&, const Arguments&)>
PyObject* function_entry(PyObject* module, PyObject* const* arguments, Py_ssize_t count,
                         PyObject* keyword_names) {
  State& state = module_state(module);
  const auto body = [&] {
    return Body(alive(state), {arguments, count, keyword_names, nullptr}).release();
  };
  return guarded<PyObject*>(nullptr, body, LibraryErrors{&state});
}

template <Owned (*Body)(State&, const Arguments&)>
PyMethodDef function(const char* name, const char* doc) noexcept {
  return {name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&function_entry<Body>)),
          METH_FASTCALL | METH_KEYWORDS, doc};
}

Owned nothing(State&, const Arguments& arguments) {
  static_cast<void>(Parameters<1>{"_nothing", {"_reply"}}.sorted(arguments));
  return none();
}

Owned wait(State& state, const Arguments& arguments) DECISION_BOUNDS_NO_ANALYSIS {
  constexpr Parameters<4> parameters{"_wait", {"changed", "stopping", "deadline", "clock"}, 2, 2};
  const auto [changed, stopping, deadline, clock] = parameters.sorted(arguments);
  check_methods(changed, "changed", "a condition variable", {"wait"});
  as_callable(stopping, "stopping");
  std::function<double()> host_clock;
  if (clock != nullptr && clock != Py_None) {
    host_clock = [callable = as_callable(clock, "clock")] {
      return as_double(call(callable).get(), "clock()");
    };
  }
  std::optional<double> end;
  if (deadline != nullptr && deadline != Py_None) end = as_double(deadline, "deadline");
  PyObject* field = nullptr;
  ConditionParts parts{};  // stays empty: the condition is only waited on
  Deferred deferred(Locking::may_fail);
  PythonCondition condition(state, {nullptr, field, "changed"}, parts, deferred);
  condition.adopt(changed);
  internal::wait_for_room(
      condition, [callable = stopping] { return truth(call(callable)); },
      internal::Deadline{end, host_clock, internal::deadline_text},
      [&state] { return poll_seconds(state); });
  return none();
}

}  // namespace

PyMethodDef never_function = {"never", never_entry, METH_NOARGS, doc::never};
PyMethodDef nothing_function = function<nothing>("_nothing", doc::nothing);
PyMethodDef wait_function = function<wait>("_wait", doc::wait);

}  // namespace decision_bounds::python
