// The module: the steps that its import runs, and its memory.

#include <algorithm>

#include "decision_bounds/version.hpp"
#include "python_sources.hpp"
#include "types/method.hpp"
#include "waiting.hpp"

namespace decision_bounds::python {
namespace {

// ---- the import ----

void bind(PyObject* module, const char* name, PyObject* value) {
  checked_count([=] { return PyModule_AddObjectRef(module, name, value); });
}

void bind_function(PyObject* module, PyMethodDef& function, PyObject*& place) {
  const Owned module_name = checked([=] { return PyModule_GetNameObject(module); });
  place =
      checked([&] { return PyCFunction_NewEx(&function, module, module_name.get()); }).release();
  bind(module, function.ml_name, place);
}

/// A name of the module's own type comes into being. What is added to the type from here on is no
/// method, so no host is taken to have patched it.
void bind_type(PyObject* module, const char* name, Known place, PyTypeObject* type) {
  module_state(module)[place].remember(type);
  bind(module, name, module_state(module).type(place));
}

Owned import_from(const char* module, const char* name) {
  const Owned imported = checked([=] { return PyImport_ImportModule(module); });
  return checked([&] { return PyObject_GetAttrString(imported.get(), name); });
}

void intern_names(State& state) {
  const auto interned = [](const std::string& text) {
    return checked([&] { return PyUnicode_InternFromString(text.c_str()); }).release();
  };
  std::transform(std::begin(name_texts), std::end(name_texts), state.names.begin(), interned);
  const RunSummary summary = summary_of({});
  std::transform(summary.begin(), summary.end(), state.summary_keys.begin(),
                 [&](const SummaryEntry& entry) { return interned(std::string(entry.key)); });
}

/// Whether `type` is threading.Condition itself with the methods that it came with. Another program
/// may have put a class, or a method, of its own in its place before this import; a function of its
/// own has other globals than those of threading.
bool is_condition_of_threading(PyObject* type) {
  if (!PyType_CheckExact(type)) return false;
  const Owned module = checked([] { return PyImport_ImportModule("threading"); });
  const Owned own = Owned::steal(type_dict(reinterpret_cast<PyTypeObject*>(type)));
  for (const char* name : {"__enter__", "__exit__", "wait", "notify", "notify_all"}) {
    PyObject* method = PyDict_GetItemString(own.get(), name);
    if (method == nullptr || !PyFunction_Check(method) ||
        PyFunction_GetGlobals(method) != PyModule_GetDict(module.get())) {
      return false;
    }
  }
  return true;
}

void take_from_host(State& state) {
  state[Kept::new_condition] = import_from("threading", "Condition").release();
  state[Kept::new_lock] = import_from("threading", "Lock").release();
  if (PyObject* condition = state[Kept::new_condition]; is_condition_of_threading(condition)) {
    state[Known::condition].remember(reinterpret_cast<PyTypeObject*>(Py_NewRef(condition)));
  }
  state.plain_lock.remember(call(import_from("_thread", "allocate_lock").get()), "_thread.lock");
  state.reentrant_lock.remember(call(import_from("_thread", "RLock").get()), "_thread.RLock");
  Owned deque = import_from("_collections", "deque");
  if (PyType_Check(deque.get()) &&
      PyType_HasFeature(reinterpret_cast<PyTypeObject*>(deque.get()), Py_TPFLAGS_IMMUTABLETYPE)) {
    state[Kept::deque_type] = deque.release();
  }
  state[Kept::partial] = import_from("functools", "partial").release();
  const Owned get_logger = import_from("logging", "getLogger");
  const Owned name = checked([&] { return PyModule_GetNameObject(state.module); });
  state[Kept::logger] = call(get_logger.get(), name.get()).release();
  state[Kept::no_arguments] = checked([] { return PyTuple_New(0); }).release();
}

/// Runs `source` in a namespace of its own that begins with what `module` defines; returns that.
Owned run_source(const char* source, PyObject* module) {
  Owned globals = checked([=] { return PyDict_Copy(PyModule_GetDict(module)); });
  checked([&] { return PyRun_String(source, Py_file_input, globals.get(), globals.get()); });
  return globals;
}

/// The errors and the protocol PaidReply, as the stub declares them.
void bind_declared(PyObject* module, State& state) {
  const Owned declared = run_source(source::declared, module);
  for (const char* name : {"DecisionError", "DecisionBudgetExceeded", "DecisionUnavailable",
                           "DecisionTimeout", "DecisionStopped", "PaidReply"}) {
    bind(module, name, PyDict_GetItemString(declared.get(), name));
  }
  const auto keep = [&](Kept place, const char* name) {
    state[place] = checked([&] { return PyObject_GetAttrString(module, name); }).release();
  };
  keep(Kept::budget_exceeded, "DecisionBudgetExceeded");
  keep(Kept::timeout, "DecisionTimeout");
  keep(Kept::stopped, "DecisionStopped");
}

/// The steps stand in the order in which the names come into being.
void execute(PyObject* module) {
  State& state = module_state(module);
  state.module = module;
  intern_names(state);
  take_from_host(state);
  bind(module, "__version__", to_python(std::string_view(DECISION_BOUNDS_VERSION)).get());
  bind(module, "logger", state[Kept::logger]);
  bind(module, "_POLL_S", to_python(internal::poll_s).get());
  bind_declared(module, state);
  bind_function(module, never_function, state[Kept::never]);
  bind_function(module, nothing_function, state[Kept::nothing]);
  bind_type(module, "Share", Known::share, make_share_type(module));
  bind_type(module, "_Held", Known::held, make_held_type(module));
  bind_function(module, wait_function, state[Kept::wait]);
  bind_type(module, "_Charges", Known::charges, make_charges_type(module));
  bind_type(module, "RequestRates", Known::request_rates, make_request_rates_type(module));
  bind_type(module, "RunBudget", Known::run_budget, make_run_budget_type(module));
  bind_type(module, "DailySpend", Known::daily_spend, make_daily_spend_type(module));
  run_source(source::signatures, module);
}

int execute_slot(PyObject* module) {
  return guarded<int>(-1, [=] {
    execute(module);
    return 0;
  });
}

// ---- the module's memory ----

/// What the garbage collector sees of the state, and clears. The names are part of no cycle, and
/// stay until nothing of the module can run any more.
template <class Visit>
void each_object(State& state, Visit visit) {
  for (PyObject*& object : state.kept) visit(object);
  for (KnownType& known : state.known) {
    visit(known.type);
    visit(known.entries);
  }
  visit(state.plain_lock.type);
  visit(state.reentrant_lock.type);
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
  clear((*state)[Kept::no_arguments]);  // first: by this alive() knows
  each_object(*state, [](auto*& object) {
    drop(reinterpret_cast<PyObject*>(std::exchange(object, nullptr)));
  });
  return 0;
}

void free_module(void* module) {
  auto* state = static_cast<State*>(PyModule_GetState(static_cast<PyObject*>(module)));
  if (state == nullptr) return;
  clear_module(static_cast<PyObject*>(module));
  for (PyObject*& name : state->names) clear(name);
  for (PyObject*& key : state->summary_keys) clear(key);
}

PyModuleDef_Slot module_slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(reinterpret_cast<void (*)()>(execute_slot))},
    interpreters_slot,
    lock_slot,
    {0, nullptr}};

}  // namespace

PyModuleDef module_definition = {PyModuleDef_HEAD_INIT, "decision_bounds", stub::module,
                                 sizeof(State),         nullptr,           module_slots,
                                 traverse_module,       clear_module,      free_module};

}  // namespace decision_bounds::python

PyMODINIT_FUNC PyInit_decision_bounds() {
  return PyModuleDef_Init(&decision_bounds::python::module_definition);
}
