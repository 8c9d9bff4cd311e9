#include "locks.hpp"

#include "fields.hpp"

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

/// Whether nobody holds the lock. True for as long as this thread runs no Python code.
bool is_free(PyObject* lock) noexcept {
  return lock != nullptr && reinterpret_cast<const ReentrantLock*>(lock)->count == 0;
}

// Reading methods makes objects, which may start the garbage collector and so run Python code that
// sets the very field: after a bind the field is looked at again, so many times at most.
constexpr int binds = 3;

/// Whether `field` holds one of the interpreter's own locks whose methods are at hand. `ran`: set
/// when Python code may have run.
bool is_bound(const State& state, LockField& field, bool& ran) {
  for (int tries = 0; tries <= binds; ++tries) {
    if (field.object == nullptr || Py_TYPE(field.object) != state.lock) return false;
    if (field.bound == field.object) return true;
    ran = true;
    const Owned lock = Owned::copy(field.object);
    Owned acquire = get(lock.get(), state.name(Name::acquire));
    Owned release = get(lock.get(), state.name(Name::release));
    Owned locked = get(lock.get(), state.name(Name::locked));
    [[maybe_unused]] const Owned before[] = {
        replace(field.bound, Owned::copy(lock.get())), replace(field.acquire, std::move(acquire)),
        replace(field.release, std::move(release)), replace(field.locked, std::move(locked))};
  }
  return false;
}

void bind(const State& state, ConditionField& field) {
  const Owned condition = Owned::copy(field.object);
  Owned dict = checked([&] { return PyObject_GenericGetDict(condition.get(), nullptr); });
  Owned acquire = get(condition.get(), state.name(Name::acquire));
  Owned release = get(condition.get(), state.name(Name::release));
  Owned waiters = get(condition.get(), state.name(Name::_waiters));
  const bool spied =
      checked_count([&] { return PyDict_Contains(dict.get(), state.name(Name::notify_all)); }) != 0;
  if (spied || reinterpret_cast<PyObject*>(Py_TYPE(waiters.get())) != state.deque) {
    for (Owned* method : {&acquire, &release, &waiters}) *method = Owned();
  }
  field.version = attributes_version(dict.get());
  field.reentrant = nullptr;
  if (acquire && PyCFunction_Check(acquire.get())) {
    PyObject* lock = PyCFunction_GET_SELF(acquire.get());
    if (lock != nullptr && Py_TYPE(lock) == state.transparent_lock) field.reentrant = lock;
  }
  [[maybe_unused]] const Owned before[] = {
      replace(field.bound, Owned::copy(condition.get())), replace(field.dict, std::move(dict)),
      replace(field.acquire, std::move(acquire)), replace(field.release, std::move(release)),
      replace(field.waiters, std::move(waiters))};
}

/// Whether `field` holds a threading.Condition that nobody changed. `ran`: as above.
bool is_bound(const State& state, ConditionField& field, bool& ran) {
  for (int tries = 0; tries <= binds; ++tries) {
    if (field.object == nullptr || Py_TYPE(field.object) != state.condition.type ||
        attributes_version(state.condition) != state.condition.version) {
      return false;
    }
    if (field.bound == field.object && attributes_version(field.dict) == field.version) {
      return field.acquire != nullptr;
    }
    ran = true;
    bind(state, field);
  }
  return false;
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

void LockByName::lock(const State& state, PyObject* lock) {
  Owned enter = get_if_there(lock, state.name(Name::__enter__));
  Owned exit = get_if_there(lock, state.name(Name::__exit__));
  if (enter && exit) {
    call(enter.get());
    exit_ = std::move(exit);
  } else {
    enter = get(lock, state.name(Name::acquire));
    Owned release = get(lock, state.name(Name::release));
    call(enter.get());
    release_ = std::move(release);
  }
}

void LockByName::unlock() {
  if (exit_) call(exit_.get(), Py_None, Py_None, Py_None);
  if (release_) call(release_.get());
}

void HostLock::lock() {
  bool ran = false;
  if (!is_bound(state_, field_, ran)) {
    const Owned lock = Owned::copy(set_or_raise(field_.object, self_, "_lock"));
    by_name_.lock(state_, lock.get());
    return;
  }
  if (section_ == Section::brief && !ran &&
      !truth(call_builtin(field_.locked, state_.no_arguments))) {
    return;
  }
  release_ = Owned::copy(field_.release);
  call_builtin(Owned::copy(field_.acquire).get(), state_.no_arguments);
}

void HostLock::unlock() {
  if (release_) {
    call_builtin(release_.get(), state_.no_arguments);
  } else {
    by_name_.unlock();
  }
}

template <class Step>
void HostCondition::insist_on(Step step) {
  constexpr int interrupts_put_off = 100;
  for (int interrupts = 0; interrupts <= interrupts_put_off; ++interrupts) {
    try {
      return step();
    } catch (RaisedInterrupt&) {
      if (locking_ == Locking::may_fail) throw;
      if (!kept_) kept_ = std::current_exception();
    }
  }
}

void HostCondition::lock() {
  try {
    insist_on([this] { enter(); });
  } catch (RaisedError&) {
    if (locking_ == Locking::may_fail) throw;
    kept_ = std::current_exception();
  }
}

void HostCondition::enter() {
  bool ran = false;
  if (!is_bound(state_, field_, ran)) {
    condition_ = Owned::copy(set_or_raise(field_.object, self_, "_changed"));
    by_name_.lock(state_, condition_.get());
    hold_ = Hold::taken;
    return;
  }
  condition_ = Owned::copy(field_.object);
  acquire_ = Owned::copy(field_.acquire);
  release_ = Owned::copy(field_.release);
  waiters_ = Owned::copy(field_.waiters);
  hold_ = Hold::brief;
  if (section_ != Section::brief || ran || !is_free(field_.reentrant)) take_now();
}

bool HostCondition::take_now() {
  if (hold_ != Hold::brief) return false;
  call_builtin(acquire_.get(), state_.no_arguments);
  hold_ = Hold::taken;
  return true;
}

void HostCondition::unlock() {
  if (std::exchange(hold_, Hold::none) != Hold::taken) return;
  if (release_) {
    call_builtin(release_.get(), state_.no_arguments);
  } else {
    by_name_.unlock();
  }
}

void HostCondition::wait_for(double seconds) {
  const Owned timeout = to_python(seconds);
  take_now();
  try {
    call_method(condition_.get(), state_.name(Name::wait), timeout.get());
  } catch (...) {
    // A wait that fails may have let the lock go without taking it back.
    if (!owned()) hold_ = Hold::none;
    throw;
  }
}

bool HostCondition::owned() const {
  try {
    return truth(call_method(condition_.get(), state_.name(Name::_is_owned)));
  } catch (Raised&) {
    return true;  // it cannot say
  }
}

void HostCondition::notify_all() {
  if (hold_ == Hold::none) return;  // its waiters look again by themselves
  if (waiters_ && PyObject_Size(waiters_.get()) == 0) return;
  insist_on([this] {
    take_now();
    call_method(condition_.get(), state_.name(Name::notify_all));
  });
}

void HostCondition::throw_kept() const {
  if (kept_) std::rethrow_exception(kept_);
}

}  // namespace decision_bounds::python
