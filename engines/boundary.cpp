#include "boundary.hpp"

#include <algorithm>
#include <new>

#include "decision_bounds/errors.hpp"

namespace decision_bounds::python {
namespace {

/// `expected`: where it stands when the caller keeps to the declared order.
std::size_t index_of(const State& state, const ParameterList& parameters, PyObject* keyword,
                     std::size_t expected) {
  if (expected < parameters.names.size() && state.name(parameters.names[expected]) == keyword) {
    return expected;  // both are interned, as a rule
  }
  for (std::size_t i = 0; i < parameters.names.size(); ++i) {
    if (PyUnicode_Compare(state.name(parameters.names[i]), keyword) == 0) return i;
  }
  raise(PyExc_TypeError, "%s() got an unexpected keyword argument '%S'", parameters.function,
        keyword);
}

void place(const State& state, const ParameterList& parameters, PyObject* keyword, PyObject* value,
           std::size_t expected, std::span<PyObject*> values) {
  const std::size_t index = index_of(state, parameters, keyword, expected);
  if (values[index] != nullptr) {
    raise(PyExc_TypeError, "%s() got multiple values for argument '%S'", parameters.function,
          keyword);
  }
  values[index] = value;
}

}  // namespace

void set_error(const State* state) noexcept {
  const auto set = [state](PyObject* State::*type, const std::exception& error) {
    entering([&] {
      PyErr_SetString(state != nullptr ? state->*type : PyExc_RuntimeError, error.what());
    });
  };
  try {
    throw;
  } catch (Raised& raised) {
    raised.restore();
  } catch (const DecisionBudgetExceeded& error) {
    set(&State::budget_exceeded, error);
  } catch (const DecisionStopped& error) {
    set(&State::stopped, error);
  } catch (const DecisionTimeout& error) {
    set(&State::timeout, error);
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
  } catch (const std::exception& error) {
    entering([&] { PyErr_SetString(PyExc_RuntimeError, error.what()); });
  }
}

void sort_arguments(const State& state, const ParameterList& parameters, const Arguments& arguments,
                    std::span<PyObject*> values) {
  const auto count = static_cast<std::size_t>(arguments.count);
  if (count > parameters.positional) {
    raise(PyExc_TypeError, "%s() takes at most %zu positional arguments (%zu given)",
          parameters.function, parameters.positional, count);
  }
  std::copy(arguments.positional, arguments.positional + count, values.begin());
  if (arguments.keyword_names != nullptr) {
    const Py_ssize_t keywords = PyTuple_GET_SIZE(arguments.keyword_names);
    for (Py_ssize_t i = 0; i < keywords; ++i) {
      place(state, parameters, PyTuple_GET_ITEM(arguments.keyword_names, i),
            arguments.positional[arguments.count + i], count + static_cast<std::size_t>(i), values);
    }
  }
  if (arguments.keywords != nullptr) {
    PyObject* keyword = nullptr;
    PyObject* value = nullptr;
    Py_ssize_t position = 0;
    std::size_t expected = count;
    while (PyDict_Next(arguments.keywords, &position, &keyword, &value) != 0) {
      place(state, parameters, keyword, value, expected++, values);
    }
  }
  for (std::size_t i = 0; i < parameters.required; ++i) {
    if (values[i] == nullptr) {
      raise(PyExc_TypeError, "%s() missing required argument: '%U'", parameters.function,
            state.name(parameters.names[i]));
    }
  }
}

}  // namespace decision_bounds::python
