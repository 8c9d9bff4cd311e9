#include "host/condition.hpp"

#include "capi/convert.hpp"

namespace decision_bounds::python {

const ConditionParts* PythonCondition::parts_of(PyObject* condition, Part wanted) {
  if (Py_TYPE(condition) != state_[Known::condition].type || is_patched(state_[Known::condition]))
    return nullptr;
  // Asked for each time: a host may replace the whole __dict__. What makes it allocates, so the
  // garbage collector could run; instance_dict() keeps it out.
  const Owned dict = checked([=] { return instance_dict(condition); });
  const std::uint64_t version = dict_version(dict.get());
  if (parts_.version == version && version != 0) return &parts_;
  const auto entry = [&](Name name) { return entry_of(dict.get(), state_.name(name)); };
  Owned lock;
  Owned waiters;
  if (wanted == Part::lock || version != 0) {
    lock = entry(Name::_lock);
    if (!lock || state_.native_lock(lock.get()) == nullptr) lock = Owned();
  }
  if (wanted == Part::waiters || version != 0) {
    waiters = entry(Name::_waiters);
    const bool is_spied = entry(Name::notify) || entry(Name::notify_all);
    const bool is_deque =
        waiters && reinterpret_cast<PyObject*>(Py_TYPE(waiters.get())) == state_[Kept::deque_type];
    if (!is_deque || is_spied) waiters = Owned();
  }
  // A key with an __eq__ in Python may have changed the dict in between.
  if (dict_version(dict.get()) != version) return nullptr;
  parts_.version = version;
  const Owned lock_before = replace(parts_.lock, std::move(lock));
  const Owned waiters_before = replace(parts_.waiters, std::move(waiters));
  return &parts_;
}

void PythonCondition::lock() {
  const auto enter = [this] {
    // From copies: while the lock is waited for, other threads and signal handlers run, and may
    // replace the attribute or the condition's own lock.
    condition_ = attribute_.get();
    const ConditionParts* parts = parts_of(condition_.get(), Part::lock);
    taken_.take(state_,
                parts != nullptr && parts->lock != nullptr ? parts->lock : condition_.get());
  };
  try {
    deferred_.insist(enter);
  } catch (RaisedError&) {
    if (!deferred_.must_go_on()) throw;
    deferred_.keep();
  }
}

void PythonCondition::wait_for(double seconds) {
  const Owned timeout = to_python(seconds);
  call_method(condition_.get(), state_.name(Name::wait), timeout.get());
}

void PythonCondition::notify_all() {
  if (!taken_.is_held()) return;  // it went on without the lock; waiters look again by themselves
  const auto wake = [this] {
    const ConditionParts* parts = parts_of(condition_.get(), Part::waiters);
    const bool nobody_waits =
        parts != nullptr && parts->waiters != nullptr && PyObject_Size(parts->waiters) == 0;
    if (!nobody_waits) call_method(condition_.get(), state_.name(Name::notify_all));
  };
  try {
    deferred_.insist(wake);
  } catch (RaisedError&) {
    if (deferred_.must_go_on()) deferred_.insist(wake);  // some may not have been woken yet
    throw;
  }
}

}  // namespace decision_bounds::python
