#pragma once

// The interpreter's locks and condition variables as the library's seam sees them. Each object here
// serves one operation and lives on its stack.

#include "decision_bounds/host.hpp"
#include "lock_fields.hpp"

namespace decision_bounds::python {

/// What an operation does while it holds a lock.
enum class Section {
  calls_python,
  /// It runs no Python code, so the interpreter's own lock keeps it whole: a lock of the
  /// interpreter's that nobody holds need not be taken.
  brief,
};

/// Whether an operation may be refused its lock.
enum class Locking {
  may_fail,
  /// It gives back what a call holds: an interrupt is put off until the lock is there, or the
  /// waiters are woken, and with a lock that fails for good the steps run without it; the
  /// interpreter's lock keeps each of them whole. run() throws the error at the end.
  must_go_on,
};

/// A lock of the host's own, used as a `with` block would or, where it has no such methods, by
/// acquire and release. How to let it go is looked up before it is taken, since that may fail. An
/// `__enter__` or `__exit__` in Python can be ended by an interrupt, or for want of memory, with
/// the lock in either state; one that can say whether this thread owns it is asked.
class LockByName {
 public:
  /// After an error is_held() says whether it was taken all the same.
  void lock(const State& state, PyObject* lock);
  /// Does nothing where it was not taken.
  void unlock();
  [[nodiscard]] bool is_held() const noexcept { return static_cast<bool>(leave_); }

 private:
  void call_leave();

  const State* state_ = nullptr;
  Owned lock_, leave_;
  bool is_block_ = false;     // `leave_` is an __exit__
  bool tells_owner_ = false;  // and this thread did not own it before
};

class HostLock final : public Lock {
 public:
  HostLock(const State& state, PyObject* self, LockField& field, Section section)
      : state_(state), self_(self), field_(field), section_(section) {}

  void lock() override;
  void unlock() override;

 private:
  const State& state_;
  PyObject* self_;
  LockField& field_;
  Section section_;
  LockByName by_name_;
  Owned release_;  // null where the lock is used by name, or was not taken
};

class HostCondition final : public Condition {
 public:
  HostCondition(const State& state, PyObject* self, ConditionField& field, Section section,
                Locking locking = Locking::may_fail)
      : state_(state), self_(self), field_(field), section_(section), locking_(locking) {}

  void lock() override;
  void unlock() override;
  void wait_for(double seconds) override;
  void notify_all() override;

  /// For the next lock().
  void set_section(Section section) noexcept { section_ = section; }
  /// Ends a brief section: takes a lock that lock() left alone, before Python code runs. True if
  /// so: another thread may have had it in between.
  bool take_now();
  /// For a caller that has locked `condition` itself.
  void adopt(PyObject* condition) {
    condition_ = Owned::copy(condition);
    hold_ = Hold::taken;
  }
  /// The condition that this operation locked.
  [[nodiscard]] PyObject* object() const noexcept { return condition_.get(); }
  /// Runs the `steps` of an operation; then throws the error that was put off, or theirs.
  template <class Steps>
  void run(Steps steps) {
    try {
      steps();
    } catch (...) {
      throw_kept();
      throw;
    }
    throw_kept();
  }

 private:
  void enter();
  void enter_by_name();
  /// Runs `step`; where the operation must go on, again whenever an interrupt ends it, which is
  /// kept. Gives up after a hundred: some host may raise one each time.
  template <class Step>
  void insist_on(Step step);
  void throw_kept() const;

  const State& state_;
  PyObject* self_;
  ConditionField& field_;
  Section section_;
  Locking locking_;
  Owned condition_;
  LockByName by_name_;
  Owned acquire_, release_, waiters_;  // null where the condition is used by name
  enum class Hold { none, brief, taken } hold_ = Hold::none;
  std::exception_ptr kept_;
};

}  // namespace decision_bounds::python
