#include "locks.hpp"

#include "fields.hpp"

namespace decision_bounds::python {

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
  bool ran = false;
  if (!field_.bind(state_, ran)) {
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
  if (section_ != Section::brief || ran || !field_.is_free()) take_now();
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
