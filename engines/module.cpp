// The module: the steps that its import runs, and its memory.

#include "boundary.hpp"
#include "functions.hpp"
#include "lock_fields.hpp"
#include "objects.hpp"
#include "python_source.hpp"
#include "waiting.hpp"

namespace decision_bounds::python {
namespace {

// ---- the import ----

/// Binds `value` to `name` in the module and hands the reference on to the state.
void bind(PyObject* module, const char* name, PyObject*& place, Owned value) {
  checked_count([&] { return PyModule_AddObjectRef(module, name, value.get()); });
  place = value.release();
}

void bind_type(PyObject* module, const char* name, OwnType& place, PyTypeObject* type) {
  place.type = type;
  auto* object = reinterpret_cast<PyObject*>(type);
  checked_count([&] { return PyModule_AddObjectRef(module, name, object); });
}

void bind_function(PyObject* module, PyMethodDef& function, PyObject*& place) {
  const Owned module_name = checked([=] { return PyModule_GetNameObject(module); });
  bind(module, function.ml_name, place,
       checked([&] { return PyCFunction_NewEx(&function, module, module_name.get()); }));
}

void bind_error(PyObject* module, const char* name, PyObject*& place, PyObject* base,
                const char* doc) {
  const Owned module_name = checked([=] { return PyModule_GetNameObject(module); });
  const std::string full = as_string(module_name.get(), "the module's name") + "." + name;
  bind(module, name, place,
       checked([&] { return PyErr_NewExceptionWithDoc(full.c_str(), doc, base, nullptr); }));
}

Owned import_from(const char* module, const char* name) {
  const Owned imported = checked([=] { return PyImport_ImportModule(module); });
  return checked([&] { return PyObject_GetAttrString(imported.get(), name); });
}

void intern_names(State& state) {
  constexpr const char* texts[] = {
#define DECISION_BOUNDS_NAME(name) #name,
      DECISION_BOUNDS_NAMES(DECISION_BOUNDS_NAME)
#undef DECISION_BOUNDS_NAME
  };
  const auto interned = [](const std::string& text) {
    return checked([&] { return PyUnicode_InternFromString(text.c_str()); }).release();
  };
  for (std::size_t i = 0; i < state.names.size(); ++i) state.names[i] = interned(texts[i]);
  const RunSummary summary = summary_of({.max_calls = 0, .max_tokens = 0});
  for (std::size_t i = 0; i < summary.size(); ++i) {
    state.summary_keys[i] = interned(std::string(summary[i].key));
  }
}

void take_from_host(PyObject* module, State& state) {
  Owned condition = import_from("threading", "Condition");
  if (!PyType_Check(condition.get())) {
    raise(PyExc_TypeError, "threading.Condition must be a type, not %R", condition.get());
  }
  state.condition.type = reinterpret_cast<PyTypeObject*>(condition.release());
  state.condition.version = attributes_version(state.condition);
  state.allocate_lock = import_from("threading", "Lock").release();
  state.lock = reinterpret_cast<PyTypeObject*>(Py_NewRef(Py_TYPE(call(state.allocate_lock).get())));
  state.transparent_lock = reinterpret_cast<PyTypeObject*>(
      Py_XNewRef(reinterpret_cast<PyObject*>(transparent_lock_type(state))));
  state.no_arguments = checked([] { return PyTuple_New(0); }).release();
  state.deque = import_from("collections", "deque").release();
  state.partial = import_from("functools", "partial").release();
  const Owned get_logger = import_from("logging", "getLogger");
  const Owned name = checked([=] { return PyModule_GetNameObject(module); });
  bind(module, "logger", state.logger, call(get_logger.get(), name.get()));
}

void bind_errors(PyObject* module, State& state) {
  bind_error(module, "DecisionError", state.decision_error, PyExc_RuntimeError,
             "A decision call failed, after its retries.");
  bind_error(module, "DecisionBudgetExceeded", state.budget_exceeded, state.decision_error,
             "Another call would exceed a RunBudget or the daily cost cap.");
  bind_error(module, "DecisionUnavailable", state.unavailable, state.decision_error,
             "The endpoint refuses requests; it is not asked again until that window ends.");
  bind_error(module, "DecisionTimeout", state.timeout, state.decision_error,
             "A call ran out of its deadline while it waited for room.");
  bind_error(module, "DecisionStopped", state.stopped, state.decision_error,
             "The pass that the call belongs to has been asked to stop.");
}

void execute(PyObject* module) {
  State& state = module_state(module);
  state.module = module;
  intern_names(state);
  take_from_host(module, state);
  const Owned poll = to_python(internal::poll_s);
  checked_count([&] { return PyModule_AddObjectRef(module, "_POLL_S", poll.get()); });
  bind_errors(module, state);
  define_paid_reply(module);
  bind_function(module, never_function, state.never);
  bind_function(module, nothing_function, state.nothing);
  bind_type(module, "Share", state.share, make_share_type(module));
  bind_type(module, "_Held", state.held, make_held_type(module));
  bind_function(module, wait_function, state.wait);
  bind_type(module, "_Charges", state.charges, make_charges_type(module));
  bind_type(module, "RequestRates", state.request_rates, make_request_rates_type(module));
  bind_type(module, "RunBudget", state.run_budget, make_run_budget_type(module));
  bind_type(module, "DailySpend", state.daily_spend, make_daily_spend_type(module));
  state.give_back =
      get(reinterpret_cast<PyObject*>(state.daily_spend.type), state.name(Name::_give_back))
          .release();
  define_signatures(module);
  for (OwnType* own : {&state.share, &state.held, &state.charges, &state.request_rates,
                       &state.run_budget, &state.daily_spend}) {
    own->version = attributes_version(*own);
  }
}

int execute_slot(PyObject* module) {
  return guarded<int>(nullptr, -1, [=] {
    execute(module);
    return 0;
  });
}

// ---- the module's memory ----

template <class Visit>
void each_object(State& state, Visit visit) {
  for (OwnType* own : {&state.share, &state.held, &state.charges, &state.request_rates,
                       &state.run_budget, &state.daily_spend, &state.condition}) {
    visit(own->type);
  }
  visit(state.lock);
  visit(state.transparent_lock);
  for (PyObject** object :
       {&state.decision_error, &state.budget_exceeded, &state.unavailable, &state.timeout,
        &state.stopped, &state.never, &state.nothing, &state.wait, &state.give_back,
        &state.allocate_lock, &state.deque, &state.partial, &state.logger, &state.no_arguments}) {
    visit(*object);
  }
}

int traverse_module(PyObject* module, visitproc visit, void* arg) {
  auto* state = static_cast<State*>(PyModule_GetState(module));
  if (state == nullptr) return 0;
  int result = 0;
  each_object(*state, [&](auto* object) {
    if (result == 0 && object != nullptr) result = visit(reinterpret_cast<PyObject*>(object), arg);
  });
  return result;
}

int clear_module(PyObject* module) {
  auto* state = static_cast<State*>(PyModule_GetState(module));
  if (state == nullptr) return 0;
  clear(state->no_arguments);  // first: by this alive() knows
  each_object(*state, [](auto*& object) {
    drop(reinterpret_cast<PyObject*>(std::exchange(object, nullptr)));
  });
  return 0;
}

void free_module(void* module) {
  auto* state = static_cast<State*>(PyModule_GetState(static_cast<PyObject*>(module)));
  if (state == nullptr) return;
  clear_module(static_cast<PyObject*>(module));
  // Names are part of no cycle and stay until nothing of the module can run any more.
  for (PyObject*& name : state->names) clear(name);
  for (PyObject*& key : state->summary_keys) clear(key);
}

PyModuleDef_Slot module_slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(reinterpret_cast<void (*)()>(execute_slot))},
    {0, nullptr}};

PyModuleDef module_definition = {
    PyModuleDef_HEAD_INIT,
    "decision_bounds",
    "Bounds on what a client of a paid decision endpoint spends.\n\n"
    "A paid call holds a Share of each bound that it counts against, from the moment it is\n"
    "admitted until it ends, and gives it back exactly once, whatever ends it: what it may cost "
    "of\n"
    "the day's cap (DailySpend), and what it may use of its pass's input tokens (RunBudget).\n\n"
    "A call is admitted only while what the settled calls used plus what the admitted calls hold\n"
    "stays below the bound, so calls in flight at once cannot all pass a test that each would "
    "pass\n"
    "alone. A call that the calls in flight leave no room for waits for one of them to end: a\n"
    "tool's call no longer than its deadline, a batch pass's call until its pass stops. It is\n"
    "refused only when what the settled calls used fills the bound; but a pass's call that finds\n"
    "no free call slot, the calls in flight counted as used, is refused at once.\n\n"
    "A call counts on the day on which it settles, since the ledger dates a paid reply when it is\n"
    "recorded; a call admitted before midnight holds its share of the new day.\n\n"
    "What a call may cost is not known before its reply: RequestRates bounds it by what the paid\n"
    "calls so far cost (the most per call or, for a larger request, the most per byte times its\n"
    "size), and a feature's first call holds all that is left and runs alone. Since\n"
    "nothing bounds a reply's output before it comes, a call may cost more than any before it. "
    "The\n"
    "settled spend of a day passes the cap by at most the cost of one call, plus, for each call\n"
    "that costs more than the most an earlier call cost, what it costs above that most; such "
    "calls\n"
    "are the ones in flight when the most is raised. While no call costs more than the dearest\n"
    "earlier one, the day stops within one call of the cap.",
    sizeof(State),
    nullptr,
    module_slots,
    traverse_module,
    clear_module,
    free_module};

}  // namespace

State& state_of(PyTypeObject* type) {
  PyObject* module = PyType_GetModuleByDef(type, &module_definition);
  if (module == nullptr) throw_raised();
  return alive(module_state(module));
}

Owned global(const State& state, Name name, PyObject* fallback) {
  PyObject* value = entering(
      [&] { return PyDict_GetItemWithError(PyModule_GetDict(state.module), state.name(name)); });
  if (value == nullptr && PyErr_Occurred() != nullptr) throw_raised();
  return Owned::copy(value == nullptr || value == Py_None ? fallback : value);
}

double poll_seconds(const State& state) {
  const Owned fallback = to_python(internal::poll_s);
  return as_double(global(state, Name::_POLL_S, fallback.get()).get(), "_POLL_S");
}

}  // namespace decision_bounds::python

PyMODINIT_FUNC PyInit_decision_bounds() {
  return PyModuleDef_Init(&decision_bounds::python::module_definition);
}
