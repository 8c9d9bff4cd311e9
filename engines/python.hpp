#pragma once

// The few things that the module needs of the C API, in C++ terms: owned references, errors as
// exceptions, and calls into Python that survive the end of the interpreter.

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <concepts>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

namespace decision_bounds::python {

/// Stops this thread for good. An interpreter that finalises ends each thread that wants its lock
/// back by unwinding it, which would run C++ destructors on a thread that must not touch Python any
/// more. The thread is parked instead, as later interpreters do it themselves; it ends with the
/// process.
[[noreturn]] void park_dying_thread() noexcept;

/// Parks the thread when it is unwound through the guard's scope. (Catching the unwinding would end
/// the process where another exception is being handled already.)
class ParkIfUnwound {
 public:
  ParkIfUnwound() = default;
  ParkIfUnwound(const ParkIfUnwound&) = delete;
  ParkIfUnwound& operator=(const ParkIfUnwound&) = delete;
  ~ParkIfUnwound() {
    if (armed_) park_dying_thread();
  }

  void dismiss() noexcept { armed_ = false; }

 private:
  bool armed_ = true;
};

/// Runs `call`, which may run Python code and throws nothing. Every such call goes through here, so
/// that no frame of the module is ever unwound on a dying thread.
template <class Call>
auto entering(Call call) -> decltype(call()) {
  ParkIfUnwound guard;
  if constexpr (std::is_void_v<decltype(call())>) {
    call();
    guard.dismiss();
  } else {
    const auto result = call();
    guard.dismiss();
    return result;
  }
}

/// Lets the last reference go, which may run Python code. Kept apart so that drop() is small enough
/// to be inlined everywhere.
void drop_last(PyObject* object) noexcept;

/// Lets a reference go; null is fine.
inline void drop(PyObject* object) noexcept {
  if (object == nullptr) return;
  if (Py_REFCNT(object) > 1) {
    Py_DECREF(object);
  } else {
    drop_last(object);
  }
}

/// Detaches a field before its reference goes, so that Python code run by that sees it empty.
inline void clear(PyObject*& field) noexcept { drop(std::exchange(field, nullptr)); }

/// An owned reference, or null. A plain PyObject* is always borrowed.
class Owned {
 public:
  Owned() = default;
  /// Takes over a reference that the caller owns.
  static Owned steal(PyObject* object) noexcept { return Owned(object); }
  /// A new reference to a borrowed object.
  static Owned copy(PyObject* object) noexcept {
    Py_XINCREF(object);
    return Owned(object);
  }
  Owned(Owned&& other) noexcept : object_(other.release()) {}
  Owned& operator=(Owned&& other) noexcept {
    drop(std::exchange(object_, other.release()));
    return *this;
  }
  Owned(const Owned&) = delete;  // copy() says so where a reference is added
  Owned& operator=(const Owned&) = delete;
  ~Owned() { drop(object_); }

  [[nodiscard]] PyObject* get() const noexcept { return object_; }
  [[nodiscard]] PyObject* release() noexcept { return std::exchange(object_, nullptr); }
  explicit operator bool() const noexcept { return object_ != nullptr; }

 private:
  explicit Owned(PyObject* object) noexcept : object_(object) {}

  PyObject* object_ = nullptr;
};

inline Owned none() noexcept { return Owned::copy(Py_None); }

inline Owned to_bool(bool value) noexcept { return Owned::copy(value ? Py_True : Py_False); }

/// Puts `value` into a field, and hands out what was there.
inline Owned replace(PyObject*& field, Owned value) noexcept {
  return Owned::steal(std::exchange(field, value.release()));
}

/// A Python error on its way through C++, taken out of the interpreter's error indicator: code that
/// runs while it passes may call Python freely.
class Raised {
 public:
  /// Takes the indicator's error.
  Raised() noexcept;
  /// Puts the error back into the indicator.
  void restore() noexcept;
  [[nodiscard]] PyObject* value() const noexcept { return value_.get(); }

 private:
  Owned type_, value_, traceback_;
};

/// An instance of Exception.
class RaisedError final : public Raised, public std::exception {};
/// Any other: an interrupt or a request to exit. No std::exception, so nothing absorbs it.
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

inline bool truth(const Owned& object) {
  if (object.get() == Py_True) return true;
  if (object.get() == Py_False) return false;
  return checked_count([&] { return PyObject_IsTrue(object.get()); }) != 0;
}

inline Owned get(PyObject* object, PyObject* name) {
  return checked([=] { return PyObject_GetAttr(object, name); });
}

/// The attribute, or null where there is none.
Owned get_if_there(PyObject* object, PyObject* name);

template <std::same_as<PyObject*>... Arguments>
Owned call(PyObject* callable, Arguments... arguments) {
  PyObject* all[] = {nullptr, arguments...};  // the first place is the callee's to use
  return checked([&] {
    return PyObject_Vectorcall(callable, all + 1,
                               sizeof...(arguments) | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr);
  });
}

template <std::same_as<PyObject*>... Arguments>
Owned call_method(PyObject* object, PyObject* name, Arguments... arguments) {
  PyObject* all[] = {nullptr, object, arguments...};
  return checked([&] {
    return PyObject_VectorcallMethod(
        name, all + 1, (1 + sizeof...(arguments)) | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr);
  });
}

/// Calls a bound method of a built-in object without arguments, straight through its C function
/// where its calling convention is one of the two that locks have. `nothing` is an empty tuple.
Owned call_builtin(PyObject* method, PyObject* nothing);

Owned to_python(double value);
Owned to_python(std::int64_t value);
Owned to_python(const std::string& value);

/// `value` as a float object; the very object where it is one already.
Owned as_float(PyObject* value, const char* what);
/// None: no deadline.
std::optional<double> as_deadline(PyObject* value);

/// These read a value that the host gave; `what` names it in the error.
double as_double(PyObject* value, const char* what);
std::int64_t as_int64(PyObject* value, const char* what);
std::string as_string(PyObject* value, const char* what);
/// 0 for an argument that was left out (null).
inline double double_or_0(PyObject* value, const char* what) {
  return value != nullptr ? as_double(value, what) : 0.0;
}
inline std::int64_t int64_or_0(PyObject* value, const char* what) {
  return value != nullptr ? as_int64(value, what) : 0;
}
/// Returns `value`, or raises TypeError unless it can be called.
PyObject* as_callable(PyObject* value, const char* what);

}  // namespace decision_bounds::python
