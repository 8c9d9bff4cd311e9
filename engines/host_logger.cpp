#include "host_logger.hpp"

#include <array>
#include <string>

namespace decision_bounds::python {
namespace {

/// The absorbed error as a Python exception; None where there is no exception to show.
Owned python_error(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (RaisedError& raised) {
    return Owned::copy(raised.value());
  } catch (const std::exception& other) {
    const Owned text = to_python(std::string(other.what()));
    return call(PyExc_RuntimeError, text.get());
  }
}

Owned python_argument(const LogArgument& argument) {
  if (const auto* number = std::get_if<double>(&argument)) return to_python(*number);
  return to_python(std::string(std::get<std::string_view>(argument)));
}

}  // namespace

void HostLogger::warning(std::string_view format, std::span<const LogArgument> arguments,
                         std::exception_ptr error) {
  const Owned logger = global(state_, Name::logger, state_.logger);
  const Owned message = to_python(std::string(format));
  std::array<Owned, 2> texts;
  std::array<PyObject*, 5> all{logger.get(), message.get()};
  std::size_t count = 2;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    texts.at(i) = python_argument(arguments[i]);
    all.at(count++) = texts.at(i).get();
  }
  Owned caught, keyword;
  if (error) {
    caught = python_error(error);
    keyword = checked([this] { return PyTuple_Pack(1, state_.name(Name::exc_info)); });
    all.at(count) = caught.get();
  }
  checked([&] {
    return PyObject_VectorcallMethod(state_.name(Name::warning), all.data(), count, keyword.get());
  });
}

}  // namespace decision_bounds::python
