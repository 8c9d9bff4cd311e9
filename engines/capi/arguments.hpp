#pragma once

// The arguments of a call, sorted by parameter.

#include <limits>
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

/// The arguments of an __init__, as the slot of a type gets them.
inline Arguments arguments_of_init(PyObject* tuple, PyObject* dict) noexcept {
  return {&PyTuple_GET_ITEM(tuple, 0), PyTuple_GET_SIZE(tuple), nullptr, dict};
}

/// Of a callable with a parameter such as *error: it takes what comes by position, and drops it.
inline constexpr std::size_t any_number = std::numeric_limits<std::size_t>::max();

/// A function, a method, or a class as its __init__ has it, as the stub declares it. embed.py makes
/// one of each.
struct Signature {
  const char* name;
  const char* doc;  ///< begins with the signature, where text can say it
  std::span<const char* const> parameters;
  std::size_t positional;  ///< so many may be passed by position, all by keyword
  std::size_t required;    ///< the first so many have no default
};

/// Sorts `arguments` into `values`, one place a parameter, null for those left out. Raises the
/// TypeError that a function written in Python would.
void sort_arguments(const Signature& signature, const Arguments& arguments,
                    std::span<PyObject*> values);

}  // namespace decision_bounds::python
