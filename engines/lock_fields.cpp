#include "lock_fields.hpp"

namespace decision_bounds::python {
namespace {

/// How CPython 3.11 lays out a re-entrant lock, which has no method that says whether it is free.
struct ReentrantLock {
  PyObject_HEAD
  PyThread_type_lock lock;
  unsigned long owner;
  unsigned long count;
  PyObject* weakrefs;
};

// Reading methods makes objects, which may start the garbage collector and so run Python code that
// sets the very field: after a bind the field is looked at again, so many times at most.
constexpr int most_binds = 3;

/// The object of a C method, or null.
PyObject* object_of(const Owned& method) {
  return method && PyCFunction_Check(method.get()) ? PyCFunction_GET_SELF(method.get()) : nullptr;
}

/// The object's __dict__. CPython 3.11 makes a second one over the same values, and frees them
/// twice, when the garbage collector runs while it makes the first and something then asks for it.
Owned dict_of(const Owned& object) {
  const bool collects = PyGC_Disable() != 0;
  PyObject* dict = entering([&] { return PyObject_GenericGetDict(object.get(), nullptr); });
  if (collects) PyGC_Enable();
  if (dict == nullptr) throw_raised();
  return Owned::steal(dict);
}

/// Whether `dict`, a condition's attributes, has what a spy puts there.
bool is_spied(const State& state, const Owned& dict) {
  const auto has = [&](Name name) {
    return checked_count([&] { return PyDict_Contains(dict.get(), state.name(name)); }) != 0;
  };
  return has(Name::notify) || has(Name::notify_all);
}

/// Reads what the condition in `field` has.
void read_condition(const State& state, ConditionField& field) {
  const Owned condition = Owned::copy(field.object);
  Owned dict = dict_of(condition);
  const Owned lock = get_if_there(condition.get(), state.name(Name::_lock));
  Owned acquire = get_if_there(condition.get(), state.name(Name::acquire));
  Owned release = get_if_there(condition.get(), state.name(Name::release));
  Owned waiters = get_if_there(condition.get(), state.name(Name::_waiters));
  const bool plain = lock && object_of(acquire) == lock.get() && object_of(release) == lock.get() &&
                     waiters && reinterpret_cast<PyObject*>(Py_TYPE(waiters.get())) == state.deque;
  if (!plain || is_spied(state, dict)) {
    for (Owned* method : {&acquire, &release, &waiters}) *method = Owned();
  }
  field.version = attributes_version(dict.get());
  field.reentrant = acquire && Py_TYPE(lock.get()) == state.transparent_lock ? lock.get() : nullptr;
  [[maybe_unused]] const Owned before[] = {
      replace(field.bound, Owned::copy(condition.get())), replace(field.dict, std::move(dict)),
      replace(field.acquire, std::move(acquire)), replace(field.release, std::move(release)),
      replace(field.waiters, std::move(waiters))};
}

}  // namespace

PyTypeObject* transparent_lock_type(const State& state) {
  const Owned condition = call(reinterpret_cast<PyObject*>(state.condition.type));
  const Owned acquire = get(condition.get(), state.name(Name::acquire));
  if (!PyCFunction_Check(acquire.get())) return nullptr;
  PyObject* lock = PyCFunction_GET_SELF(acquire.get());
  if (lock == nullptr || Py_TYPE(lock)->tp_basicsize != sizeof(ReentrantLock)) return nullptr;
  const auto shows = [lock](unsigned long count, unsigned long owner) {
    const auto* layout = reinterpret_cast<const ReentrantLock*>(lock);
    return layout->count == count && layout->owner == owner;
  };
  const unsigned long self = PyThread_get_thread_ident();
  bool as_expected = shows(0, 0);
  call(acquire.get());
  as_expected = as_expected && shows(1, self);
  call(acquire.get());
  as_expected = as_expected && shows(2, self);
  call_method(lock, state.name(Name::release));
  as_expected = as_expected && shows(1, self);
  call_method(lock, state.name(Name::release));
  as_expected = as_expected && shows(0, 0);
  return as_expected ? Py_TYPE(lock) : nullptr;
}

bool LockField::bind(const State& state, bool& ran) {
  for (int binds = 0; binds <= most_binds; ++binds) {
    if (object == nullptr || Py_TYPE(object) != state.lock) return false;
    if (bound == object) return true;
    ran = true;
    const Owned lock = Owned::copy(object);
    Owned own_acquire = get(lock.get(), state.name(Name::acquire));
    Owned own_release = get(lock.get(), state.name(Name::release));
    Owned own_locked = get(lock.get(), state.name(Name::locked));
    [[maybe_unused]] const Owned before[] = {
        replace(bound, Owned::copy(lock.get())), replace(acquire, std::move(own_acquire)),
        replace(release, std::move(own_release)), replace(locked, std::move(own_locked))};
  }
  return false;
}

int LockField::traverse(visitproc visit, void* arg) const {
  Py_VISIT(object);
  Py_VISIT(bound);
  Py_VISIT(acquire);
  Py_VISIT(release);
  Py_VISIT(locked);
  return 0;
}

void LockField::clear() noexcept {
  for (PyObject** field : {&object, &bound, &acquire, &release, &locked}) python::clear(*field);
}

bool ConditionField::bind(const State& state, bool& ran) {
  for (int binds = 0; binds <= most_binds; ++binds) {
    if (object == nullptr || Py_TYPE(object) != state.condition.type ||
        attributes_version(state.condition) != state.condition.version) {
      return false;
    }
    if (bound == object && attributes_version(dict) == version) return acquire != nullptr;
    ran = true;
    read_condition(state, *this);
  }
  return false;
}

bool ConditionField::is_free() const noexcept {
  return reentrant != nullptr && reinterpret_cast<const ReentrantLock*>(reentrant)->count == 0;
}

int ConditionField::traverse(visitproc visit, void* arg) const {
  Py_VISIT(object);
  Py_VISIT(bound);
  Py_VISIT(dict);
  Py_VISIT(acquire);
  Py_VISIT(release);
  Py_VISIT(waiters);
  return 0;
}

void ConditionField::clear() noexcept {
  for (PyObject** field : {&object, &bound, &dict, &acquire, &release, &waiters}) {
    python::clear(*field);
  }
}

}  // namespace decision_bounds::python
