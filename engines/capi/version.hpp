#pragma once

// All that depends on the version of the interpreter, or on its insides. Nothing else in the module
// reads a private or unstable field, tests PY_VERSION_HEX, or knows what an interpreter gets wrong.

#define PY_SSIZE_T_CLEAN
#include <Python.h>
#include <structmember.h>

#include <cstdint>
#include <type_traits>

namespace decision_bounds::python {

// ---- versions of attributes ----

/// Tells one state of a type's attributes, its bases' included, from every other; 0: not to be
/// told. The interpreter sets the tag to 0 with each change, and gives a new one as it next looks
/// an attribute up. (CPython 3.13 and later do so for the first 1,000 changes of a type alone.)
inline unsigned int type_version(PyTypeObject* type) noexcept { return type->tp_version_tag; }

/// Makes the interpreter give the type a version, as each look-up of an attribute does. This one
/// neither binds what it finds nor allocates.
inline void assign_type_version(PyTypeObject* type, PyObject* name) noexcept {
  _PyType_Lookup(type, name);
}

/// Tells one state of a dict from every other state of any dict; 0: not to be told. From CPython
/// 3.12 on the tag is deprecated, and not every change of the dict changes it.
inline std::uint64_t dict_version([[maybe_unused]] PyObject* dict) noexcept {
#if PY_VERSION_HEX < 0x030C0000
  return reinterpret_cast<PyDictObject*>(dict)->ma_version_tag;
#else
  return 0;
#endif
}

/// The attributes of the type itself, a new reference. From CPython 3.12 on those of a static type
/// belong to the interpreter, not to the type.
inline PyObject* type_dict(PyTypeObject* type) noexcept {
#if PY_VERSION_HEX < 0x030C0000
  return Py_NewRef(type->tp_dict);
#else
  return PyType_GetDict(type);
#endif
}

/// The object's __dict__, a new reference; null with an error set. CPython 3.11 makes the dict as
/// it is first asked for. If the garbage collector runs just then and asks too, there are two dicts
/// over the same values, which are freed twice; so it is kept out. (Later versions collect between
/// two steps of Python code only.)
inline PyObject* instance_dict(PyObject* object) noexcept {
#if PY_VERSION_HEX < 0x030C0000
  const bool collects = PyGC_Disable() != 0;
  PyObject* dict = PyObject_GenericGetDict(object, nullptr);
  if (collects) PyGC_Enable();
  return dict;
#else
  return PyObject_GenericGetDict(object, nullptr);
#endif
}

// ---- interpreters ----

// Several interpreters may use the module, each with a lock of its own, since its memory belongs to
// an interpreter. In each, that lock keeps the objects whole, so a free-threaded build must turn
// its lock on when it imports the module. CPython 3.11 knows no such slots: there the first ends
// their list.
#if PY_VERSION_HEX < 0x030C0000
inline const PyModuleDef_Slot interpreters_slot = {0, nullptr};
#else
inline const PyModuleDef_Slot interpreters_slot = {Py_mod_multiple_interpreters,
                                                   Py_MOD_PER_INTERPRETER_GIL_SUPPORTED};
#endif
#if PY_VERSION_HEX < 0x030D0000
inline const PyModuleDef_Slot lock_slot = {0, nullptr};
#else
inline const PyModuleDef_Slot lock_slot = {Py_mod_gil, Py_MOD_GIL_USED};
#endif

// ---- the error indicator ----

/// Takes the exception out of the error indicator: a new reference, with its traceback.
PyObject* take_raised() noexcept;
/// Puts an exception into the error indicator; steals the reference.
void set_raised(PyObject* exception) noexcept;

// ---- the end of the interpreter ----

/// Stops this thread for good; it ends with the process.
[[noreturn]] void park_dying_thread() noexcept;

/// Runs `call`, which may run Python code (and so let the interpreter's lock go) and throws
/// nothing. Every such call of the module goes through here. One that does not is a crash that
/// shows up only when a program with daemon threads ends.
///
/// Up to CPython 3.13, a thread that wants the interpreter's lock back while the interpreter
/// finalises is ended by pthread_exit. That unwinds its stack, and would run C++ destructors on a
/// thread that must not touch Python any more; where an exception is being handled already, it
/// would end the process. So a thread that is unwound through here is parked. Later versions park
/// such threads themselves.
template <class Call>
auto entering(Call call) -> decltype(call()) {
  // NOLINTNEXTLINE(cppcoreguidelines-special-member-functions): it stays where it is
  struct Guard {
    bool is_armed = true;
    void dismiss() noexcept { is_armed = false; }
    ~Guard() {
      if (is_armed) park_dying_thread();
    }
  } guard;
  if constexpr (std::is_void_v<decltype(call())>) {
    call();
    guard.dismiss();
  } else {
    const auto result = call();
    guard.dismiss();
    return result;
  }
}

}  // namespace decision_bounds::python
