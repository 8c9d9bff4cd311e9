#pragma once

// Python errors as C++ exceptions, and the boundary at which C++ exceptions become Python errors.

#include <concepts>
#include <exception>
#include <new>

#include "capi/owned.hpp"

namespace decision_bounds::python {

/// A Python error on its way through C++, taken out of the interpreter's error indicator: guards
/// that run while it propagates may call Python freely. (With the indicator set, that would turn a
/// KeyError into a SystemError.)
class Raised {
 public:
  /// Takes the indicator's error.
  Raised() noexcept : value_(Owned::steal(take_raised())) {}
  /// Puts the error back into the indicator.
  void restore() noexcept { set_raised(value_.release()); }
  [[nodiscard]] PyObject* value() const noexcept { return value_.get(); }

 private:
  Owned value_;
};

/// An instance of Exception.
class RaisedError final : public Raised, public std::exception {};
/// Any other: an interrupt or a request to exit. It is no std::exception, so what absorbs ordinary
/// errors lets it propagate.
class RaisedInterrupt final : public Raised {};

/// Throws the indicator's error as a RaisedError or a RaisedInterrupt.
[[noreturn]] void throw_raised();
/// Sets and throws a Python error; `format` as for PyErr_Format.
[[noreturn]] void raise(PyObject* type, const char* format, ...);

/// The owned result of a C API function that returns null on error.
template <std::invocable Call>
Owned checked(Call call) {
  PyObject* result = entering(call);
  if (result == nullptr) throw_raised();
  return Owned::steal(result);
}

/// The result of a C API function that returns a negative number on error.
template <std::invocable Call>
auto checked_count(Call call) {
  const auto result = entering(call);
  if (result < 0) throw_raised();
  return result;
}

/// Says of a C++ exception that is none of the C API's which Python error it becomes.
struct RuntimeErrors {
  void set(const std::exception& error) const noexcept;
};

/// What `body` returns, or `failure` with the Python error set. Every entry from Python goes
/// through here, but for those that can throw nothing. There is no catch-all, since nothing else is
/// ever thrown, and a thread that is cancelled from outside Python must be let through.
template <class Result, class Body, class Errors = RuntimeErrors>
Result guarded(Result failure, Body body, const Errors& errors = {}) {
  try {
    return body();
  } catch (Raised& raised) {
    raised.restore();
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
  } catch (const std::exception& error) {
    errors.set(error);
  }
  return failure;
}

}  // namespace decision_bounds::python
