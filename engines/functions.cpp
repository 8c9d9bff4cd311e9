#include "functions.hpp"

#include <optional>

#include "boundary.hpp"
#include "locks.hpp"
#include "waiting.hpp"

namespace decision_bounds::python {
namespace {

PyObject* never_entry(PyObject*, PyObject*) { Py_RETURN_FALSE; }

/// The C function of a module function whose body is `Owned body(State&, const Arguments&)`.
template <Owned (*Body)(State&, const Arguments&)>
PyObject* function_entry(PyObject* module, PyObject* const* arguments, Py_ssize_t count,
                         PyObject* keyword_names) {
  State& state = module_state(module);
  return guarded<PyObject*>(&state, nullptr, [&] {
    return Body(alive(state), {arguments, count, keyword_names, nullptr}).release();
  });
}

template <Owned (*Body)(State&, const Arguments&)>
PyMethodDef function(const char* name, const char* doc) noexcept {
  return {name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&function_entry<Body>)),
          METH_FASTCALL | METH_KEYWORDS, doc};
}

Owned nothing(State& state, const Arguments& arguments) {
  constexpr Parameters<1> parameters{"_nothing", {Name::_reply}};
  sorted(state, parameters, arguments);
  return none();
}

Owned wait(State& state, const Arguments& arguments) DECISION_BOUNDS_NO_ANALYSIS {
  constexpr Parameters<4> parameters{
      "_wait", {Name::changed, Name::stopping, Name::deadline, Name::clock}, 2, 2};
  const auto [changed, stopping, deadline, clock] = sorted(state, parameters, arguments);
  if (!get_if_there(changed, state.name(Name::wait))) {
    raise(PyExc_TypeError, "changed must be a condition variable: %.200s has no wait()",
          Py_TYPE(changed)->tp_name);
  }
  as_callable(stopping, "stopping");
  std::function<double()> host_clock;
  if (clock != nullptr && clock != Py_None) {
    host_clock = [callable = as_callable(clock, "clock")] {
      return as_double(call(callable).get(), "clock()");
    };
  }
  const std::optional<double> end = deadline != nullptr ? as_deadline(deadline) : std::nullopt;
  ConditionField field{};
  HostCondition condition(state, nullptr, field, Section::calls_python);
  condition.adopt(changed);
  internal::wait_for_room(
      condition, [callable = stopping] { return truth(call(callable)); }, end, host_clock,
      poll_seconds(state));
  return none();
}

}  // namespace

PyMethodDef never_function = {
    "never", never_entry, METH_NOARGS,
    "never()\n--\n\n"
    "False, always: the stop signal that never comes. Any thread may call it."};
PyMethodDef nothing_function = function<nothing>("_nothing",
                                                 "_nothing(_reply)\n--\n\n"
                                                 "Does nothing: gives back a share of nothing.");
PyMethodDef wait_function = function<wait>(
    "_wait",
    "_wait(changed, stopping, *, deadline=None, clock=None)\n--\n\n"
    "One wait for room on the condition changed, whose lock the caller holds: until\n"
    "a wake-up, for 0.1 s at most, never past deadline (on the scale of clock, in\n"
    "seconds; both given, or no deadline is tested). The lock is let go entirely\n"
    "meanwhile, and held again in the end. Raises DecisionStopped when stopping() is\n"
    "true, before it looks at the clock, DecisionTimeout when no time is left, and\n"
    "what stopping and clock raise.");

}  // namespace decision_bounds::python
