#pragma once

// The library's seam, filled with the interpreter's own lock, condition variable and logger. Each
// object here serves one operation and lives on its stack.

#include "decision_bounds/host.hpp"
#include "held.hpp"
#include "state.hpp"

namespace decision_bounds::python {

/// A lock attribute, and the bound methods of a lock of the interpreter's own.
struct LockField {
  PyObject* object;  // the attribute
  PyObject* bound;   // the lock that the rest belongs to
  PyObject *acquire, *release, *locked;
};

/// A condition attribute. For a threading.Condition that nobody changed, its lock's methods and its
/// queue of waiters, so that no Python code runs where nobody waits.
struct ConditionField {
  PyObject* object;  // the attribute
  PyObject* bound;   // the condition that the rest belongs to
  PyObject *acquire, *release, *waiters, *dict;
  std::uint64_t version;  // of dict, when the rest was read from it
  PyObject* reentrant;    // borrowed from acquire: the lock, where it can be seen to be free
};

/// The type of the interpreter's re-entrant locks, borrowed, if it can be seen whether one is free;
/// else null.
PyTypeObject* transparent_lock_type(const State& state);

int visit(const LockField& field, visitproc visit, void* arg);
int visit(const ConditionField& field, visitproc visit, void* arg);
void clear(LockField& field) noexcept;
void clear(ConditionField& field) noexcept;

/// What an operation does while it holds a plain lock.
enum class Section {
  calls_python,
  /// It runs no Python code, so the interpreter's own lock keeps it whole: while nobody holds a
  /// lock of the interpreter's own, that need not be taken.
  brief,
};

class HostLock final : public Lock {
 public:
  HostLock(State& state, PyObject* self, LockField& field, Section section)
      : state_(state), self_(self), field_(field), section_(section) {}

  void lock() override;
  void unlock() override;

 private:
  State& state_;
  PyObject* self_;
  LockField& field_;
  Section section_;
  Owned taken_, release_;
};

/// Whether an operation may be refused its lock.
enum class Locking {
  may_fail,
  /// It gives back what a call holds: an interrupt is put off until the lock is there, and with a
  /// lock that fails for good the steps run without it; the interpreter's lock keeps each of them
  /// whole. The error is kept, for finish().
  must_go_on,
};

class HostCondition final : public Condition {
 public:
  HostCondition(State& state, PyObject* self, ConditionField& field, Section section,
                Locking locking = Locking::may_fail)
      : state_(state), self_(self), field_(field), section_(section), locking_(locking) {}

  void lock() override;
  void unlock() override;
  void wait_for(double seconds) override;
  void notify_all() override;

  /// Until lock().
  void set_section(Section section) noexcept { section_ = section; }
  /// Ends a brief section: takes a lock that lock() left alone, before Python code runs. True if
  /// so: another thread may have had it in between.
  bool take_now();
  /// For a caller that has locked `condition` itself.
  void adopt(PyObject* condition) {
    locked_ = Owned::copy(condition);
    hold_ = Hold::taken;
  }
  /// The condition that this operation locked.
  [[nodiscard]] PyObject* object() const noexcept { return locked_.get(); }
  /// Throws the error that lock() kept, if there is one.
  void finish() const;

 private:
  void enter();
  void acquire() const;
  [[nodiscard]] bool owned() const;

  State& state_;
  PyObject* self_;
  ConditionField& field_;
  Section section_;
  Locking locking_;
  Owned locked_, release_;
  enum class Hold { none, brief, taken } hold_ = Hold::none;
  std::exception_ptr kept_;
};

/// Logs through the module's logger.
class HostLogger final : public Logger {
 public:
  explicit HostLogger(State& state) : state_(state) {}

  void warning(std::string_view format, std::span<const LogArgument> arguments,
               std::exception_ptr error) override;

 private:
  State& state_;
};

/// The held amounts in an attribute: a record of the module's own, or whatever the host put there.
class HostHeld final : public internal::HeldAmounts {
 public:
  HostHeld(State& state, PyObject* self, PyObject*& field, const char* name)
      : state_(state), self_(self), field_(field), name_(name) {}

  bool admits(double share, double used, double limit) override;
  void take(double share) override;
  void give_back(double share) override;

  /// Whether its steps run no Python code.
  [[nodiscard]] bool is_plain() const noexcept;

 private:
  /// The record, if its steps need no look-up by name.
  internal::Held* record();

  State& state_;
  PyObject* self_;
  PyObject*& field_;
  const char* name_;
};

/// The module's _POLL_S as it stands now, in seconds.
double poll_seconds(const State& state);

}  // namespace decision_bounds::python
