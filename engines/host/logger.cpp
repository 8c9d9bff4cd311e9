#include "host/logger.hpp"

#include <vector>

#include "capi/convert.hpp"

namespace decision_bounds::python {
namespace {

/// The absorbed error as a Python exception.
Owned python_error(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (RaisedError& raised) {
    return Owned::copy(raised.value());
  } catch (const std::exception& other) {
    return call(PyExc_RuntimeError, to_python(other.what()).get());
  }
}

}  // namespace

void PythonLogger::warning(std::string_view format, std::span<const LogArgument> arguments,
                           std::exception_ptr error) {
  const Owned logger = global(state_, Name::logger, state_[Kept::logger]);
  std::vector<Owned> objects;
  objects.push_back(to_python(format));
  for (const LogArgument& argument : arguments) {
    objects.push_back(std::visit([](auto value) { return to_python(value); }, argument));
  }
  Owned keyword;
  if (error) {
    objects.push_back(python_error(error));
    keyword = checked([this] { return PyTuple_Pack(1, state_.name(Name::exc_info)); });
  }
  std::vector<PyObject*> all{logger.get()};
  for (const Owned& object : objects) all.push_back(object.get());
  checked([&] {
    return PyObject_VectorcallMethod(state_.name(Name::warning), all.data(),
                                     all.size() - (keyword ? 1 : 0), keyword.get());
  });
}

}  // namespace decision_bounds::python
