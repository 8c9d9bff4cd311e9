#include "capi/arguments.hpp"

#include <algorithm>

namespace decision_bounds::python {
namespace {

/// Puts a keyword argument into its place. `expected` is where it stands when the caller keeps to
/// the declared order; it is looked for from there on.
void place(const Signature& signature, PyObject* keyword, PyObject* value, std::size_t expected,
           std::span<PyObject*> values) {
  if (!PyUnicode_Check(keyword)) raise(PyExc_TypeError, "keywords must be strings");
  const std::size_t count = values.size();
  for (std::size_t tried = 0; tried < count; ++tried) {
    const std::size_t index = (expected + tried) % count;
    if (PyUnicode_CompareWithASCIIString(keyword, signature.parameters[index]) != 0) continue;
    if (values[index] == nullptr) {
      values[index] = value;
      return;
    }
    raise(PyExc_TypeError, "%s() got multiple values for argument '%S'", signature.name, keyword);
  }
  raise(PyExc_TypeError, "%s() got an unexpected keyword argument '%S'", signature.name, keyword);
}

}  // namespace

void sort_arguments(const Signature& signature, const Arguments& arguments,
                    std::span<PyObject*> values) {
  auto count = static_cast<std::size_t>(arguments.count);
  if (count > signature.positional) {
    raise(PyExc_TypeError, "%s() takes at most %zu positional arguments (%zu given)",
          signature.name, signature.positional, count);
  }
  std::copy_n(arguments.positional, std::min(count, values.size()), values.begin());
  PyObject* keyword = nullptr;
  PyObject* value = nullptr;
  if (arguments.keyword_names != nullptr) {
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(arguments.keyword_names); ++i, ++count) {
      keyword = PyTuple_GET_ITEM(arguments.keyword_names, i);
      place(signature, keyword, arguments.positional[count], count, values);
    }
  }
  if (arguments.keywords != nullptr) {
    for (Py_ssize_t i = 0; PyDict_Next(arguments.keywords, &i, &keyword, &value) != 0; ++count) {
      place(signature, keyword, value, count, values);
    }
  }
  for (std::size_t i = 0; i < signature.required; ++i) {
    if (values[i] == nullptr) {
      raise(PyExc_TypeError, "%s() missing required argument: '%s'", signature.name,
            signature.parameters[i]);
    }
  }
}

}  // namespace decision_bounds::python
