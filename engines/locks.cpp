#include "locks.hpp"

#include "fields.hpp"

namespace decision_bounds::python {

namespace {

/// Whether this thread owns the lock of a condition; `otherwise` where it cannot say.
bool is_owned(const State& state, PyObject* condition, bool otherwise) {
  try {
    return truth(call_method(condition, state.name(Name::_is_owned)));
  } catch (Raised&) {
    return otherwise;
  }
}

}  // namespace

void LockByName::lock(const State& state, PyObject* lock) {
  state_ = &state;
  lock_ = Owned::copy(lock);
  Owned enter = get_if_there(lock, state.name(Name::__enter__));
  Owned leave = get_if_there(lock, state.name(Name::__exit__));
  is_block_ = enter && leave;
  if (!is_block_) {
    enter = get(lock, state.name(Name::acquire));
    leave = get(lock, state.name(Name::release));
  }
  tells_owner_ = !is_owned(state, lock, true);
  try {
    call(enter.get());
  } catch (Raised&) {
    if (tells_owner_ && is_owned(state, lock, false)) leave_ = std::move(leave);
    throw;
  }
  leave_ = std::move(leave);
}

void LockByName::unlock() {
  if (!is_held()) return;
  try {
    call_leave();
  } catch (Raised&) {
    if (tells_owner_ && is_owned(*state_, lock_.get(), false)) call_leave();
    throw;
  }
}

void LockByName::call_leave() {
  if (is_block_) {
    call(leave_.get(), Py_None, Py_None, Py_None);
  } else {
    call(leave_.get());
  }
}

void HostLock::lock() {
  bool ran = false;
  if (!field_.bind(state_, ran)) {
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
    if (!kept_) kept_ = std::current_exception();
  }
}

void HostCondition::enter() {
  if (hold_ == Hold::taken) return;  // it was there when an interrupt came
  bool ran = false;
  if (!field_.bind(state_, ran)) {
    condition_ = Owned::copy(set_or_raise(field_.object, self_, "_changed"));
    enter_by_name();
    return;
  }
  condition_ = Owned::copy(field_.object);
  acquire_ = Owned::copy(field_.acquire);
  release_ = Owned::copy(field_.release);
  waiters_ = Owned::copy(field_.waiters);
  hold_ = Hold::brief;
  if (section_ != Section::brief || ran || !field_.is_free()) take_now();
}

void HostCondition::enter_by_name() {
  try {
    by_name_.lock(state_, condition_.get());
  } catch (Raised&) {
    if (by_name_.is_held()) hold_ = Hold::taken;
    if (locking_ == Locking::may_fail) unlock();
    throw;
  }
  hold_ = Hold::taken;
}

bool HostCondition::take_now() {
  if (hold_ != Hold::brief) return false;
  call_builtin(acquire_.get(), state_.no_arguments);
  hold_ = Hold::taken;
  return true;
}

void HostCondition::unlock() {
  if (std::exchange(hold_, Hold::none) != Hold::taken) return;
  try {
    if (release_) {
      call_builtin(release_.get(), state_.no_arguments);
    } else {
      by_name_.unlock();
    }
  } catch (RaisedInterrupt&) {
    if (!kept_) kept_ = std::current_exception();  // where an error passes, its guard drops others
    throw;
  }
}

void HostCondition::wait_for(double seconds) {
  const Owned timeout = to_python(seconds);
  take_now();
  try {
    call_method(condition_.get(), state_.name(Name::wait), timeout.get());
  } catch (...) {
    // A wait that fails may have let the lock go without taking it back.
    if (!is_owned(state_, condition_.get(), true)) hold_ = Hold::none;
    throw;
  }
}

void HostCondition::notify_all() {
  if (hold_ == Hold::none) return;  // its waiters look again by themselves
  if (waiters_ && PyObject_Size(waiters_.get()) == 0) return;
  const auto wake = [this] {
    take_now();
    call_method(condition_.get(), state_.name(Name::notify_all));
  };
  try {
    insist_on(wake);
  } catch (RaisedError&) {
    if (locking_ == Locking::must_go_on) insist_on(wake);  // some may not have been woken yet
    throw;
  }
}

void HostCondition::throw_kept() const {
  if (kept_) std::rethrow_exception(kept_);
}

}  // namespace decision_bounds::python
