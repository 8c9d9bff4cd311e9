#pragma once

// How Python enters the module: the C functions of methods and functions.

#include <algorithm>
#include <tuple>

#include "capi/type.hpp"
#include "host/state.hpp"
#include "stub.hpp"

namespace decision_bounds::python {

/// The C functions of a callable whose body is `Result body(State&, Object&, Parameters...)`. Each
/// argument is converted to the type of its parameter, null where it was left out; then the body is
/// called. `Object` is PyObject, the module, for a function of the module.
template <const Signature& signature, auto Body>
struct Entry;

template <const Signature& signature, class Result, class Object, class... Parameters,
          Result (*Body)(State&, Object&, Parameters...)>
struct Entry<signature, Body> {
  static_assert(sizeof...(Parameters) == signature.parameters.size(), "those of the stub");

  /// The state is that of the module that made the type or one of its bases. (METH_METHOD would
  /// hand the type over, but CPython crashes where __get__(object) alone binds such a method.)
  static PyObject* method(PyObject* self, PyObject* const* arguments, Py_ssize_t count,
                          PyObject* keyword_names) {
    PyObject* module = PyType_GetModuleByDef(Py_TYPE(self), &module_definition);
    return enter(module != nullptr ? PyModule_GetState(module) : nullptr, self,
                 {arguments, count, keyword_names, nullptr});
  }

  static PyObject* function(PyObject* module, PyObject* const* arguments, Py_ssize_t count,
                            PyObject* keyword_names) {
    return enter(PyModule_GetState(module), module, {arguments, count, keyword_names, nullptr});
  }

 private:
  static PyObject* enter(void* found, PyObject* self, const Arguments& arguments) {
    auto* state = static_cast<State*>(found);
    const auto body = [&] {
      if (state == nullptr) throw_raised();  // the collector took the type from its module
      std::array<PyObject*, sizeof...(Parameters)> values{};
      alive(*state);
      constexpr bool may_come_by_position = values.size() <= signature.positional;
      if (may_come_by_position && arguments.count == std::ssize(values) &&
          arguments.keyword_names == nullptr) {  // the usual call, without a loop
        std::copy_n(arguments.positional, values.size(), values.begin());
      } else {
        sort_arguments(signature, arguments, values);
      }
      auto& object = *reinterpret_cast<Object*>(self);
      constexpr std::index_sequence_for<Parameters...> all;
      if constexpr (std::is_void_v<Result>) {
        run(*state, object, values, all);
        return none().release();
      } else {
        return to_python(run(*state, object, values, all)).release();
      }
    };
    return guarded<PyObject*>(nullptr, body, LibraryErrors{state});
  }

  template <std::size_t... I>
  static Result run(State& state, Object& self,
                    [[maybe_unused]] std::span<PyObject* const, sizeof...(I)> values,
                    std::index_sequence<I...>) {
    // Within braces they are converted in their order.
    std::tuple<std::remove_cvref_t<Parameters>...> converted{
        as<std::remove_cvref_t<Parameters>>(values[I], signature.parameters[I])...};
    const auto body = [&](auto&&... given) -> Result {
      return Body(state, self, std::forward<decltype(given)>(given)...);
    };
    return std::apply(body, std::move(converted));
  }
};

/// A row of a method table.
template <const Signature& signature, auto Body>
PyMethodDef method() noexcept {
  // cppcheck-suppress throwInNoexceptFunction ; nothing is called here
  auto* entry = reinterpret_cast<void (*)()>(&Entry<signature, Body>::method);
  return {signature.name, reinterpret_cast<PyCFunction>(entry), METH_FASTCALL | METH_KEYWORDS,
          signature.doc};
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
