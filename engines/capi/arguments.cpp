#include "capi/arguments.hpp"

namespace decision_bounds::python {
namespace {

/// Puts a keyword argument into its place. `expected` is where it stands when the caller keeps to
/// the declared order.
void place(const ParameterList& list, PyObject* keyword, PyObject* value, std::size_t expected,
           std::span<PyObject*> values) {
  if (!PyUnicode_Check(keyword)) raise(PyExc_TypeError, "keywords must be strings");
  const auto is_at = [&](std::size_t index) {
    return PyUnicode_CompareWithASCIIString(keyword, list.names[index]) == 0;
  };
  const std::size_t count = list.names.size();
  std::size_t index = expected;
  if (index >= count || !is_at(index)) {
    for (index = 0; index < count && !is_at(index);) ++index;
  }
  if (index == count) {
    raise(PyExc_TypeError, "%s() got an unexpected keyword argument '%S'", list.function, keyword);
  }
  if (values[index] != nullptr) {
    raise(PyExc_TypeError, "%s() got multiple values for argument '%S'", list.function, keyword);
  }
  values[index] = value;
}

}  // namespace

void sort_arguments(const ParameterList& list, const Arguments& arguments,
                    std::span<PyObject*> values) {
  const auto count = static_cast<std::size_t>(arguments.count);
  if (count > list.positional) {
    raise(PyExc_TypeError, "%s() takes at most %zu positional arguments (%zu given)", list.function,
          list.positional, count);
  }
  std::copy_n(arguments.positional, count, values.begin());
  PyObject* keyword = nullptr;
  PyObject* value = nullptr;
  if (arguments.keyword_names != nullptr) {
    const auto keywords = static_cast<std::size_t>(PyTuple_GET_SIZE(arguments.keyword_names));
    for (std::size_t i = 0; i < keywords; ++i) {
      keyword = PyTuple_GET_ITEM(arguments.keyword_names, static_cast<Py_ssize_t>(i));
      place(list, keyword, arguments.positional[count + i], count + i, values);
    }
  }
  if (arguments.keywords != nullptr) {
    std::size_t expected = count;
    for (Py_ssize_t i = 0; PyDict_Next(arguments.keywords, &i, &keyword, &value) != 0;) {
      place(list, keyword, value, expected++, values);
    }
  }
  for (std::size_t i = 0; i < list.required; ++i) {
    if (values[i] == nullptr) {
      raise(PyExc_TypeError, "%s() missing required argument: '%s'", list.function, list.names[i]);
    }
  }
}

}  // namespace decision_bounds::python
