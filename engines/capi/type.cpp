#include "capi/type.hpp"

#include <structmember.h>

namespace decision_bounds::python {

int traverse_fields(PyObject* self, Fields fields, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  Py_VISIT(reinterpret_cast<ObjectHead*>(self)->dict);
  for (const Field& field : fields) {
    if (field.place.plain == nullptr) Py_VISIT(field.object_in(self));
  }
  return 0;
}

void clear_fields(PyObject* self, Fields fields) noexcept {
  clear(reinterpret_cast<ObjectHead*>(self)->dict);
  for (const Field& field : fields) {
    if (field.place.plain == nullptr) clear(field.object_in(self));
  }
}

PyMemberDef* offset_members() noexcept {
  static PyMemberDef members[] = {
      {"__dictoffset__", T_PYSSIZET, offsetof(ObjectHead, dict), READONLY, nullptr},
      {"__weaklistoffset__", T_PYSSIZET, offsetof(ObjectHead, weakrefs), READONLY, nullptr},
      {nullptr, 0, 0, 0, nullptr}};
  return members;
}

PyTypeObject* make_type(PyObject* module, PyType_Spec& spec) {
  Owned type = checked([&] { return PyType_FromModuleAndSpec(module, &spec, nullptr); });
  const Owned name = checked([&] { return PyModule_GetNameObject(module); });
  checked_count([&] { return PyObject_SetAttrString(type.get(), "__module__", name.get()); });
  return reinterpret_cast<PyTypeObject*>(type.release());
}

std::string type_name(PyObject* object) {
  const Owned name = checked([=] { return PyType_GetQualName(Py_TYPE(object)); });
  return as<std::string>(name.get(), "the type's name");
}

}  // namespace decision_bounds::python
