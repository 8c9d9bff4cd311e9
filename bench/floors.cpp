// Calls Python objects from C in a loop: what no module written in C can go below.

#include <Python.h>

namespace {

/// repeat(n, *callables): calls each in turn, without arguments, n times.
PyObject* repeat(PyObject*, PyObject* const* arguments, Py_ssize_t count) {
  const Py_ssize_t times = count > 0 ? PyLong_AsSsize_t(arguments[0]) : 0;
  if (PyErr_Occurred() != nullptr) return nullptr;
  for (Py_ssize_t time = 0; time < times; ++time) {
    for (Py_ssize_t i = 1; i < count; ++i) {
      PyObject* answer = PyObject_CallNoArgs(arguments[i]);
      if (answer == nullptr) return nullptr;
      Py_DECREF(answer);
    }
  }
  Py_RETURN_NONE;
}

PyObject* nothing(PyObject*, PyObject*) { Py_RETURN_NONE; }

PyMethodDef methods[] = {
    {"repeat", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(repeat)), METH_FASTCALL,
     nullptr},
    {"nothing", nothing, METH_NOARGS, nullptr},
    {}};

PyModuleDef definition = {PyModuleDef_HEAD_INIT, "floors", nullptr, 0, methods, {}, {}, {}, {}};

}  // namespace

PyMODINIT_FUNC PyInit_floors() { return PyModuleDef_Init(&definition); }
