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

}  // namespace decision_bounds::python
