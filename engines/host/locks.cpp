#include "host/locks.hpp"

#include "capi/fields.hpp"

namespace decision_bounds::python {

void TakenLock::take(const State& state, PyObject* lock) {
  state_ = &state;
  native_ = state.native_lock(lock);
  Owned taken = Owned::copy(lock);
  if (native_ != nullptr) {
    checked([&] { return native_->acquire(lock, state[Kept::no_arguments], nullptr); });
  } else {
    enter(lock);
  }
  lock_ = std::move(taken);
}

void TakenLock::enter(PyObject* lock) {
  const Owned enter = get_special(lock, state_->name(Name::__enter__));
  exit_ = get_special(lock, state_->name(Name::__exit__));
  if (!enter || !exit_) {
    raise(PyExc_TypeError, "'%.200s' object does not support the context manager protocol",
          Py_TYPE(lock)->tp_name);
  }
  is_owned_ = get_if_there(lock, state_->name(Name::_is_owned));
  const bool can_tell =
      is_owned_ && PyCFunction_Check(is_owned_.get()) &&
      PyCFunction_GET_FUNCTION(is_owned_.get()) == state_->reentrant_lock.is_owned;
  // Where this thread holds it already, that says nothing about what happens now.
  if (!can_tell || says_owned()) is_owned_ = Owned();
  try {
    call(enter.get());
  } catch (Raised&) {
    if (says_owned()) leave();
    throw;
  }
}

void TakenLock::let_go(Deferred& deferred) {
  const Owned lock = std::move(lock_);
  if (!lock) return;
  try {
    if (native_ != nullptr) {
      checked([&] { return native_->release(lock.get(), nullptr); });
      return;
    }
    try {
      leave();
    } catch (Raised&) {
      if (says_owned()) leave();  // it was ended before it let go
      throw;
    }
  } catch (RaisedInterrupt&) {
    deferred.keep();
    throw;
  }
}

void TakenLock::leave() { call(exit_.get(), Py_None, Py_None, Py_None); }

bool TakenLock::says_owned() const {
  if (!is_owned_) return false;
  PyObject* lock = PyCFunction_GET_SELF(is_owned_.get());
  return truth(checked([=, this] { return state_->reentrant_lock.is_owned(lock, nullptr); }));
}

void PythonLock::lock() {
  skipped_ = brief_ && is_free();
  if (!skipped_) taken_.take(state_, lock_.get());
}

bool PythonLock::is_free() const {
  const NativeLock* native = state_.native_lock(lock_.get());
  return native != nullptr && native->locked != nullptr &&
         !truth(checked([&] { return native->locked(lock_.get(), nullptr); }));
}

}  // namespace decision_bounds::python
