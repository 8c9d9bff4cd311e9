#pragma once

// How Python enters the module: the C functions of methods and of __init__.

#include "capi/type.hpp"
#include "host/state.hpp"

namespace decision_bounds::python {

/// The C function of a method whose body is `Owned body(State&, Object&, const Arguments&)`.
template <auto Body>
struct Method;

template <class Object, Owned (*Body)(State&, Object&, const Arguments&)>
struct Method<Body> {
  /// The state is that of the module whose type defines the method: a derived type may have been
  /// made anywhere.
  static PyObject* entry(PyObject* self, PyTypeObject* defining, PyObject* const* arguments,
                         Py_ssize_t count, PyObject* keyword_names) {
    auto* state = static_cast<State*>(PyType_GetModuleState(defining));
    const auto body = [&] {
      if (state == nullptr) throw_raised();  // the collector took the type from its module
      return Body(alive(*state), *reinterpret_cast<Object*>(self),
                  {arguments, count, keyword_names, nullptr})
          .release();
    };
    return guarded<PyObject*>(nullptr, body, LibraryErrors{state});
  }
};

/// A row of a method table; `doc` begins with the signature.
template <auto Body>
PyMethodDef method(const char* name, const char* doc) noexcept {
  // cppcheck-suppress throwInNoexceptFunction ; nothing is called here
  return {name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&Method<Body>::entry)),
          METH_METHOD | METH_FASTCALL | METH_KEYWORDS, doc};
}

/// For a method without parameters.
inline void take_none(const char* function, const Arguments& arguments) {
  sort_arguments({function, {}, 0, 0}, arguments, {});
}

/// The __init__ of a type whose parameters are fields.
template <class Object>
int init_slot(PyObject* self, PyObject* arguments, PyObject* keywords) {
  return guarded<int>(-1, [&] {
    const State& state = state_of(self);
    initialise(self, state.module, Object::name, Object::fields,
               {&PyTuple_GET_ITEM(arguments, 0), PyTuple_GET_SIZE(arguments), nullptr, keywords});
    return 0;
  });
}

/// The functions and classes of the module.
extern PyMethodDef never_function, nothing_function, wait_function;
PyTypeObject* make_held_type(PyObject* module);
PyTypeObject* make_charges_type(PyObject* module);
PyTypeObject* make_share_type(PyObject* module);
PyTypeObject* make_request_rates_type(PyObject* module);
PyTypeObject* make_run_budget_type(PyObject* module);
PyTypeObject* make_daily_spend_type(PyObject* module);

}  // namespace decision_bounds::python
