#include "types.hpp"

namespace decision_bounds::python {

PyTypeObject* make_type(PyObject* module, PyType_Spec& spec) {
  Owned type = checked([&] { return PyType_FromModuleAndSpec(module, &spec, nullptr); });
  const Owned name = checked([&] { return PyModule_GetNameObject(module); });
  checked_count([&] { return PyObject_SetAttrString(type.get(), "__module__", name.get()); });
  return reinterpret_cast<PyTypeObject*>(type.release());
}

std::string type_name(PyObject* object) {
  const Owned name = checked([=] { return PyType_GetQualName(Py_TYPE(object)); });
  return as_string(name.get(), "the type's name");
}

}  // namespace decision_bounds::python
