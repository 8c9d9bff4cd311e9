#pragma once

// Slots that every type of the module has, written once for all of them.

#include <cstddef>
#include <memory>

#include "boundary.hpp"
#include "fields.hpp"
#include "structmember.h"

namespace decision_bounds::python {

template <class Object>
int traverse_slot(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  auto* object = reinterpret_cast<Object*>(self);
  Py_VISIT(object->dict);
  return object->traverse(visit, arg);
}

template <class Object>
int clear_slot(PyObject* self) {
  auto* object = reinterpret_cast<Object*>(self);
  clear(object->dict);
  object->clear();
  return 0;
}

template <class Object>
void free_untracked(PyObject* self) {
  PyTypeObject* type = Py_TYPE(self);
  if (reinterpret_cast<Object*>(self)->weakrefs != nullptr) {
    entering([=] { PyObject_ClearWeakRefs(self); });
  }
  clear_slot<Object>(self);
  std::destroy_at(reinterpret_cast<Object*>(self));
  type->tp_free(self);
  drop(reinterpret_cast<PyObject*>(type));
}

/// Objects that hold each other in a long chain would take a frame each: the interpreter's trash
/// can takes them from the stack. A leaf ends a chain.
template <class Object>
void dealloc_slot(PyObject* self) {
  PyObject_GC_UnTrack(self);
  if constexpr (requires(Object object) { object.is_leaf(); }) {
    if (reinterpret_cast<Object*>(self)->is_leaf()) return free_untracked<Object>(self);
  }
  Py_TRASHCAN_BEGIN(self, dealloc_slot<Object>);
  free_untracked<Object>(self);
  Py_TRASHCAN_END
}

template <class Function>
void* slot(Function* function) noexcept {
  return reinterpret_cast<void*>(reinterpret_cast<void (*)()>(function));
}

/// Where the interpreter finds an object's __dict__ and its weak references.
template <class Object>
PyMemberDef* offset_members() noexcept {
  static PyMemberDef members[] = {
      {"__dictoffset__", T_PYSSIZET, offsetof(Object, dict), READONLY, nullptr},
      {"__weaklistoffset__", T_PYSSIZET, offsetof(Object, weakrefs), READONLY, nullptr},
      {nullptr, 0, 0, 0, nullptr}};
  return members;
}

inline PyGetSetDef dict_attribute() noexcept {
  return {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr};
}

/// What distinguishes one type from the others.
struct TypeParts {
  const char* name;  // "decision_bounds.Name"
  const char* doc;   // begins with the signature, where text can say it
  PyMethodDef* methods;
  PyGetSetDef* attributes;
  initproc init;
  newfunc create = PyType_GenericNew;
  reprfunc repr = nullptr;        // records have a printed form
  richcmpfunc compare = nullptr;  // and are equal by field, so not hashable
};

/// A new heap type of `module`, whose full name it takes for its __module__.
PyTypeObject* make_type(PyObject* module, PyType_Spec& spec);

template <class Object>
PyTypeObject* make_type(PyObject* module, const TypeParts& parts) {
  if constexpr (requires { &Object::deleted; }) {
    static_assert(offsetof(Object, deleted) == offsetof(Deletable, deleted));
  }
  PyType_Slot slots[] = {{Py_tp_doc, const_cast<char*>(parts.doc)},
                         {Py_tp_new, slot(parts.create)},
                         {Py_tp_init, slot(parts.init)},
                         {Py_tp_traverse, slot(traverse_slot<Object>)},
                         {Py_tp_clear, slot(clear_slot<Object>)},
                         {Py_tp_dealloc, slot(dealloc_slot<Object>)},
                         {Py_tp_methods, parts.methods},
                         {Py_tp_getset, parts.attributes},
                         {Py_tp_members, offset_members<Object>()},
                         // a type that is no record ends here
                         {parts.repr != nullptr ? Py_tp_repr : 0, slot(parts.repr)},
                         {Py_tp_richcompare, slot(parts.compare)},
                         {Py_tp_hash, slot(PyObject_HashNotImplemented)},
                         {0, nullptr}};
  PyType_Spec spec = {parts.name, sizeof(Object), 0,
                      Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC, slots};
  return make_type(module, spec);
}

/// The name by which an object's printed form calls it.
std::string type_name(PyObject* object);

/// "Name(field=value, ...)" of a record that has a to_string.
template <class Object, auto Record>
PyObject* repr_slot(PyObject* self) {
  return guarded<PyObject*>(nullptr, nullptr, [self] {
    const auto& record = reinterpret_cast<Object*>(self)->*Record;
    return to_python(to_string(record, type_name(self))).release();
  });
}

/// Records are equal when they are of the same type and equal by field; they have no order.
template <class Object, auto Record>
PyObject* compare_slot(PyObject* self, PyObject* other, int operation) {
  if ((operation != Py_EQ && operation != Py_NE) || Py_TYPE(self) != Py_TYPE(other)) {
    Py_RETURN_NOTIMPLEMENTED;
  }
  const bool equal =
      reinterpret_cast<Object*>(self)->*Record == reinterpret_cast<Object*>(other)->*Record;
  return PyBool_FromLong(equal == (operation == Py_EQ) ? 1 : 0);
}

}  // namespace decision_bounds::python
