#include "host/state.hpp"

#include <string_view>

#include "capi/convert.hpp"
#include "decision_bounds/errors.hpp"
#include "waiting.hpp"

namespace decision_bounds::python {

void NativeLock::remember(const Owned& lock, const char* name) {
  PyTypeObject* found = Py_TYPE(lock.get());
  // No type written in Python is immutable, so none can pass for the interpreter's own.
  if (std::string_view(found->tp_name) != name ||
      !PyType_HasFeature(found, Py_TPFLAGS_IMMUTABLETYPE)) {
    return;
  }
  const Owned own = Owned::steal(type_dict(found));
  const auto function = [&](const char* of, int convention) -> PyCFunction {
    PyObject* method = PyDict_GetItemString(own.get(), of);
    if (method == nullptr || !Py_IS_TYPE(method, &PyMethodDescr_Type)) return nullptr;
    const PyMethodDef* definition = reinterpret_cast<PyMethodDescrObject*>(method)->d_method;
    return definition->ml_flags == convention ? definition->ml_meth : nullptr;
  };
  acquire = reinterpret_cast<PyCFunctionWithKeywords>(
      reinterpret_cast<void (*)()>(function("acquire", METH_VARARGS | METH_KEYWORDS)));
  release = function("release", METH_NOARGS);
  locked = function("locked", METH_NOARGS);
  is_owned = function("_is_owned", METH_NOARGS);
  if (acquire != nullptr && release != nullptr) {
    type = reinterpret_cast<PyTypeObject*>(Py_NewRef(found));
  }
}

void LibraryErrors::set(const std::exception& error) const noexcept {
  PyObject* type = PyExc_RuntimeError;
  if (state != nullptr && dynamic_cast<const DecisionBudgetExceeded*>(&error) != nullptr) {
    type = (*state)[Kept::budget_exceeded];
  } else if (state != nullptr && dynamic_cast<const DecisionStopped*>(&error) != nullptr) {
    type = (*state)[Kept::stopped];
  } else if (state != nullptr && dynamic_cast<const DecisionTimeout*>(&error) != nullptr) {
    type = (*state)[Kept::timeout];
  }
  entering([&] { PyErr_SetString(type, error.what()); });
}

State& state_of(PyObject* object) {
  PyObject* module = PyType_GetModuleByDef(Py_TYPE(object), &module_definition);
  if (module == nullptr) throw_raised();
  return alive(module_state(module));
}

Owned global(const State& state, Name name, PyObject* fallback) {
  Owned value = entry_of(PyModule_GetDict(state.module), state.name(name));
  return value && value.get() != Py_None ? std::move(value) : Owned::copy(fallback);
}

double poll_seconds(const State& state) {
  const Owned fallback = to_python(internal::poll_s);
  return as<double>(global(state, Name::_POLL_S, fallback.get()).get(), "_POLL_S");
}

}  // namespace decision_bounds::python
