#pragma once

// The arguments of a call, sorted by parameter.

#include <algorithm>
#include <array>
#include <span>

#include "capi/errors.hpp"

namespace decision_bounds::python {

/// The arguments of one call as Python passes them; all borrowed.
struct Arguments {
  PyObject* const* positional;
  Py_ssize_t count;
  PyObject* keyword_names;  // a tuple, its values behind the positional ones; or null
  PyObject* keywords;       // a dict, for __init__; or null
};

/// The parameters of a callable: the first `positional` may be passed by position, all by keyword;
/// the first `required` have no default.
struct ParameterList {
  const char* function;
  std::span<const char* const> names;
  std::size_t positional;
  std::size_t required;
};

/// Sorts `arguments` into `values`, one place a parameter, null for those left out. Raises the
/// TypeError that a function written in Python would.
void sort_arguments(const ParameterList& list, const Arguments& arguments,
                    std::span<PyObject*> values);

template <std::size_t Count>
struct Parameters {
  const char* function;
  std::array<const char*, Count> names;
  std::size_t positional = Count;
  std::size_t required = Count;

  /// The same, quick where all come by position.
  [[nodiscard]] std::array<PyObject*, Count> sorted(const Arguments& arguments) const {
    std::array<PyObject*, Count> values{};
    if (arguments.count == Count && positional == Count && arguments.keyword_names == nullptr &&
        arguments.keywords == nullptr) {
      std::copy_n(arguments.positional, Count, values.begin());
    } else {
      sort_arguments({function, names, positional, required}, arguments, values);
    }
    return values;
  }
};

}  // namespace decision_bounds::python
