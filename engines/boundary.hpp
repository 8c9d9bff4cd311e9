#pragma once

// Where Python calls into the module: no C++ exception passes this line.

#include <cxxabi.h>

#include <algorithm>
#include <span>
#include <type_traits>

#include "python.hpp"
#include "state.hpp"

namespace decision_bounds::python {

/// Sets the Python error for the C++ exception being handled. `state` is null where no decision
/// error can come up.
void set_error(const State* state) noexcept;

/// What `body` returns, or `failure` with the Python error set. (Checks of undefined behaviour are
/// off: the reference that catches a cancelled thread's unwinding refers to no object.)
template <class Result, class Body>
__attribute__((no_sanitize("undefined"))) Result guarded(const State* state, Result failure,
                                                         Body body) {
  try {
    return body();
  } catch (abi::__forced_unwind&) {
    throw;  // a thread that is being cancelled from outside Python
  } catch (...) {
    set_error(state);
    return failure;
  }
}

/// The arguments of one call as Python passes them.
struct Arguments {
  PyObject* const* positional;
  Py_ssize_t count;
  PyObject* keyword_names;  // a tuple, its values behind the positional ones; or null
  PyObject* keywords;       // a dict, for __init__; or null
};

/// The parameters of a callable: the first `positional` may be passed by position, all by name; the
/// first `required` have no default.
template <std::size_t Count>
struct Parameters {
  const char* function;
  std::array<Name, Count> names;
  std::size_t positional = Count;
  std::size_t required = Count;
};

struct ParameterList {
  const char* function;
  std::span<const Name> names;
  std::size_t positional;
  std::size_t required;
};

/// Sorts `arguments` into `values`, one place a parameter; null for those left out.
void sort_arguments(const State& state, const ParameterList& parameters, const Arguments& arguments,
                    std::span<PyObject*> values);

template <std::size_t Count>
std::array<PyObject*, Count> sorted(const State& state, const Parameters<Count>& parameters,
                                    const Arguments& arguments) {
  std::array<PyObject*, Count> values{};
  if (arguments.count == Count && Count == parameters.positional &&
      arguments.keyword_names == nullptr && arguments.keywords == nullptr) {
    std::copy_n(arguments.positional, Count, values.begin());
    return values;
  }
  const ParameterList list{parameters.function, parameters.names, parameters.positional,
                           parameters.required};
  sort_arguments(state, list, arguments, values);
  return values;
}

/// The C function of a method whose body is `Owned body(State&, Object&, const Arguments&)`.
template <auto Body>
struct Method;

template <class Object, Owned (*Body)(State&, Object&, const Arguments&)>
struct Method<Body> {
  static PyObject* entry(PyObject* self, PyTypeObject* defining, PyObject* const* arguments,
                         Py_ssize_t count, PyObject* keyword_names) {
    auto* state = static_cast<State*>(PyType_GetModuleState(defining));
    return guarded<PyObject*>(state, nullptr, [&] {
      if (state == nullptr) throw_raised();  // the collector took the type from its module
      return Body(alive(*state), *reinterpret_cast<Object*>(self),
                  {arguments, count, keyword_names, nullptr})
          .release();
    });
  }
};

/// A row of a method table; `doc` begins with the signature.
template <auto Body>
PyMethodDef method(const char* name, const char* doc) noexcept {
  // cppcheck-suppress throwInNoexceptFunction ; nothing is called here
  return {name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&Method<Body>::entry)),
          METH_METHOD | METH_FASTCALL | METH_KEYWORDS, doc};
}

/// The __init__ slot whose body is `void body(State&, Object&, const Arguments&)`.
template <class Object, void (*Body)(State&, Object&, const Arguments&)>
int init_slot(PyObject* self, PyObject* arguments, PyObject* keywords) {
  return guarded<int>(nullptr, -1, [&] {
    Body(state_of(self), *reinterpret_cast<Object*>(self),
         {&PyTuple_GET_ITEM(arguments, 0), PyTuple_GET_SIZE(arguments), nullptr, keywords});
    return 0;
  });
}

}  // namespace decision_bounds::python
