#pragma once

// The types of the module: the slots that all have, written once.

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>
#include <vector>

#include "capi/fields.hpp"

namespace decision_bounds::python {

/// Whether the parameters of __init__ are the first rows, in their order.
constexpr bool fills(const Signature& signature, Fields fields) {
  return std::equal(signature.parameters.begin(), signature.parameters.end(), fields.begin(),
                    [](std::string_view parameter, const Field& field) {
                      return std::string_view(field.name).ends_with(parameter);
                    });
}

template <const auto& fields>
int traverse_slot(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  Py_VISIT(reinterpret_cast<ObjectHead*>(self)->dict);
  for (const Field& field : fields) {
    if (field.place.plain == nullptr) Py_VISIT(field.object_in(self));
  }
  return 0;
}

template <const auto& fields>
int clear_slot(PyObject* self) {
  clear(reinterpret_cast<ObjectHead*>(self)->dict);
  for (const Field& field : fields) {
    if (field.place.plain == nullptr) clear(field.object_in(self));
  }
  return 0;
}

/// The __init__ of a type whose parameters are fields.
template <const Signature& signature, const auto& fields>
int init_slot(PyObject* self, PyObject* arguments, PyObject* keywords) {
  static_assert(fills(signature, fields), "the parameters are those of the stub");
  return guarded<int>(-1, [&] {
    initialise(self, signature, fields, arguments_of_init(arguments, keywords));
    return 0;
  });
}

template <class Object, const auto& fields>
void dealloc_slot(PyObject* self) {
  PyTypeObject* type = Py_TYPE(self);
  // Also runs a __del__ that a host has set on the type, which may keep the object alive.
  if (type->tp_finalize != nullptr &&
      entering([=] { return PyObject_CallFinalizerFromDealloc(self); }) < 0) {
    return;
  }
  PyObject_GC_UnTrack(self);
  // Objects that hold each other in a long chain would take a stack frame each; the trashcan lets
  // them go one after the other.
  Py_TRASHCAN_BEGIN(self, (dealloc_slot<Object, fields>));
  if (reinterpret_cast<ObjectHead*>(self)->weakrefs != nullptr) {
    entering([=] { PyObject_ClearWeakRefs(self); });
  }
  clear_slot<fields>(self);
  std::destroy_at(reinterpret_cast<Object*>(self));
  type->tp_free(self);
  // An object holds its type; the type goes last, for it says how the memory is freed.
  drop(reinterpret_cast<PyObject*>(type));
  Py_TRASHCAN_END
}

template <class Function>
void* slot(Function* function) noexcept {
  return reinterpret_cast<void*>(reinterpret_cast<void (*)()>(function));
}

/// What distinguishes one type from the others; null where it has none.
struct TypeParts {
  const Signature& signature;
  PyMethodDef* methods;
  initproc init;
  PyGetSetDef extra = {};  ///< an attribute that is no field
  newfunc create = PyType_GenericNew;
  destructor finalize = nullptr;
  reprfunc repr = nullptr;        ///< records have a printed form
  richcmpfunc compare = nullptr;  ///< and are equal by field, so not hashable
};

/// The attribute table of a type, for the life of the process. Interpreters with locks of their own
/// may import at once; it is written by the first.
template <const auto& fields>
PyGetSetDef* attributes_of(const PyGetSetDef& extra) {
  static auto table = [&] {
    std::array<PyGetSetDef, std::size(fields) + 3> rows{};  // the last row stays empty
    auto row = rows.begin();
    for (const Field& field : fields) {
      if (field.name != nullptr) *row++ = attribute_of(field);
    }
    *row++ = {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr};
    *row = extra;
    return rows;
  }();
  return table.data();
}

/// Where the interpreter finds an object's __dict__ and its weak references.
inline PyMemberDef offset_members[] = {
    {"__dictoffset__", T_PYSSIZET, offsetof(ObjectHead, dict), READONLY, nullptr},
    {"__weaklistoffset__", T_PYSSIZET, offsetof(ObjectHead, weakrefs), READONLY, nullptr},
    {}};

/// A new heap type of `module`, named after it.
template <class Object, const auto& fields>
PyTypeObject* make_type(PyObject* module, const TypeParts& parts) {
  static_assert(std::is_standard_layout_v<Object> && offsetof(Object, head) == 0);
  static_assert(sizeof(Object) <= 32 * sizeof(double), "a bit of `deleted` for each word");
  std::vector<PyType_Slot> slots = {{Py_tp_doc, const_cast<char*>(parts.signature.doc)},
                                    {Py_tp_new, slot(parts.create)},
                                    {Py_tp_init, slot(parts.init)},
                                    {Py_tp_traverse, slot(traverse_slot<fields>)},
                                    {Py_tp_clear, slot(clear_slot<fields>)},
                                    {Py_tp_dealloc, slot(dealloc_slot<Object, fields>)},
                                    {Py_tp_methods, parts.methods},
                                    {Py_tp_getset, attributes_of<fields>(parts.extra)},
                                    {Py_tp_members, offset_members}};
  if (parts.finalize != nullptr) slots.push_back({Py_tp_finalize, slot(parts.finalize)});
  if (parts.repr != nullptr) {
    slots.push_back({Py_tp_repr, slot(parts.repr)});
    slots.push_back({Py_tp_richcompare, slot(parts.compare)});
  }
  slots.push_back({0, nullptr});
  const Owned module_name = checked([=] { return PyModule_GetNameObject(module); });
  const std::string name =
      as<std::string>(module_name.get(), "the module's name") + "." + parts.signature.name;
  PyType_Spec spec = {name.c_str(), sizeof(Object), 0,
                      Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC, slots.data()};
  return reinterpret_cast<PyTypeObject*>(
      checked([&] { return PyType_FromModuleAndSpec(module, &spec, nullptr); }).release());
}

/// "Name(field=value, ...)" of a record that has a to_string.
template <class Object, auto Record>
PyObject* repr_slot(PyObject* self) {
  return guarded<PyObject*>(nullptr, [self] {
    const auto& record = reinterpret_cast<Object*>(self)->*Record;
    const Owned name = checked([self] { return PyType_GetQualName(Py_TYPE(self)); });
    return to_python(to_string(record, as<std::string>(name.get(), "the type's name"))).release();
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
  return to_python(equal == (operation == Py_EQ)).release();
}

/// The type of a plain record: printed and compared by field.
template <class Object, const auto& fields, auto Record>
PyTypeObject* make_record_type(PyObject* module, TypeParts parts) {
  parts.repr = repr_slot<Object, Record>;
  parts.compare = compare_slot<Object, Record>;
  return make_type<Object, fields>(module, parts);
}

}  // namespace decision_bounds::python
