#pragma once

// Whether a host has overridden a step. A host may derive from a type of the module, patch a method
// of the type, or set an attribute of an object, and expects its own code to be called, as it would
// be with types written in Python.

#include "capi/calls.hpp"
#include "capi/fields.hpp"

namespace decision_bounds::python {

/// A type as it was when the module first saw it.
struct KnownType {
  PyTypeObject* type;    // owned
  PyObject* entries;     // owned: a copy of its own attributes at that time
  unsigned int version;  // the version of its attributes when they were last compared
  bool patched;          // what the comparison found

  /// Takes over the reference to `type` and remembers what it has now.
  void remember(PyTypeObject* known);
  /// Compares anew after the version has changed. Other changes than of methods do not count: to
  /// read a type's __annotations__, or to copy an object, adds attributes to it.
  bool compare();
};

/// Whether a method of `known` has been replaced or deleted since.
inline bool is_patched(KnownType& known) {
  const unsigned int version = type_version(known.type);
  return version == known.version && version != 0 ? known.patched : known.compare();
}

/// Whether no step of `object` can have been overridden: it is of the very type, which nobody has
/// patched, and has no attribute of its own.
inline bool is_untouched(PyObject* object, KnownType& known) {
  if (Py_TYPE(object) != known.type || is_patched(known)) return false;
  PyObject* dict = reinterpret_cast<ObjectHead*>(object)->dict;
  return dict == nullptr || PyDict_GET_SIZE(dict) == 0;
}

/// Looks the method `name` of `self` up; null where it is the module's own.
Owned look_override_up(PyObject* self, const KnownType& known, PyObject* name);

/// What stands in the place of the module's own method `name` of `self`, ready to be called; null
/// where it is the module's own.
inline Owned override_of(PyObject* self, KnownType& known, PyObject* name) {
  return is_untouched(self, known) ? Owned() : look_override_up(self, known, name);
}

}  // namespace decision_bounds::python
