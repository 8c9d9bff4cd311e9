#include "capi/version.hpp"

#include <unistd.h>

namespace decision_bounds::python {

PyObject* take_raised() noexcept {
  PyObject* type = nullptr;
  PyObject* value = nullptr;
  PyObject* traceback = nullptr;
  if (PyErr_Occurred() == nullptr) {  // out of memory, some functions of the C API forget it
    PyErr_SetString(PyExc_SystemError, "a function of the interpreter failed without an error");
  }
  PyErr_Fetch(&type, &value, &traceback);
  entering([&] {
    PyErr_NormalizeException(&type, &value, &traceback);
    if (traceback != nullptr) PyException_SetTraceback(value, traceback);
    Py_XDECREF(type);
    Py_XDECREF(traceback);
  });
  return value;
}

void set_raised(PyObject* exception) noexcept {
  entering([exception] {
    auto* type = reinterpret_cast<PyObject*>(Py_TYPE(exception));
    PyErr_Restore(Py_NewRef(type), exception, PyException_GetTraceback(exception));
  });
}

void park_dying_thread() noexcept {
  for (;;) pause();
}

}  // namespace decision_bounds::python
