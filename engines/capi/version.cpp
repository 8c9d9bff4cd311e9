#include "capi/version.hpp"

#include <unistd.h>

namespace decision_bounds::python {

PyObject* take_raised() noexcept {
  if (PyErr_Occurred() == nullptr) {  // out of memory, some functions of the C API forget it
    PyErr_SetString(PyExc_SystemError, "a function of the interpreter failed without an error");
  }
#if PY_VERSION_HEX < 0x030C0000
  PyObject* type = nullptr;
  PyObject* value = nullptr;
  PyObject* traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback);
  entering([&] {
    PyErr_NormalizeException(&type, &value, &traceback);
    if (traceback != nullptr) PyException_SetTraceback(value, traceback);
    Py_XDECREF(type);
    Py_XDECREF(traceback);
  });
  return value;
#else
  return PyErr_GetRaisedException();
#endif
}

void set_raised(PyObject* exception) noexcept {
#if PY_VERSION_HEX < 0x030C0000
  entering([exception] {
    auto* type = reinterpret_cast<PyObject*>(Py_TYPE(exception));
    PyErr_Restore(Py_NewRef(type), exception, PyException_GetTraceback(exception));
  });
#else
  PyErr_SetRaisedException(exception);
#endif
}

void park_dying_thread() noexcept {
  for (;;) pause();
}

}  // namespace decision_bounds::python
