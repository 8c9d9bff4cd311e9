#pragma once

// The interpreter's locks as the library's seam sees them. Each object here serves one operation
// and lives on its stack.

#include "decision_bounds/host.hpp"
#include "host/deferred.hpp"
#include "host/state.hpp"

namespace decision_bounds::python {

/// A lock, or a condition, that one operation takes as a `with` block would. The two types of the
/// interpreter's own are used through their C functions, so nothing of the host's runs.
///
/// Any other has an `__enter__` and an `__exit__` that may be written in Python: an interrupt, or a
/// lack of memory, can end them with the lock in either state. Only an object over a _thread.RLock
/// can then say whether this thread holds it, through the lock's own `_is_owned`, which runs no
/// Python code. It is asked, and what was taken is let go. No other lock is asked, since others
/// find out by taking it; such a lock may stay held, as after a `with` block.
class TakenLock {
 public:
  /// Takes the lock; after an error it is not held, as far as it can tell.
  void take(const State& state, PyObject* lock);
  /// Lets it go at the end of an operation; does nothing where it is not held. An interrupt is
  /// deferred too: where an error is on its way already, the guard of the lock would drop it.
  void let_go(Deferred& deferred);
  [[nodiscard]] bool is_held() const noexcept { return static_cast<bool>(lock_); }

 private:
  void enter(PyObject* lock);
  void leave();
  /// Whether the lock says that this thread holds it.
  [[nodiscard]] bool says_owned() const;

  const State* state_ = nullptr;
  const NativeLock* native_ = nullptr;  // its type; null where it is used as a with block
  Owned lock_;                          // null where it is not held
  Owned exit_;                          // its __exit__, looked up before it was taken
  Owned is_owned_;                      // null where it cannot tell
};

/// The plain lock of a RequestRates.
class PythonLock final : public Lock {
 public:
  /// `brief`: the operation runs no Python code while it holds the lock. Then the interpreter's own
  /// lock keeps it whole, and a _thread.lock that nobody holds need not be taken.
  PythonLock(const State& state, Owned lock, bool brief, Deferred& deferred)
      : state_(state), lock_(std::move(lock)), brief_(brief), deferred_(deferred) {}

  void lock() override;
  void unlock() override { taken_.let_go(deferred_); }

  /// Runs `read`, an operation that only reads. Where it ran without taking the lock, and somebody
  /// holds the lock afterwards, it is run again with the lock taken: Python code has run after all.
  template <class Read>
  double reading(Read read) {
    const double answer = read();
    if (!skipped_ || is_free()) return answer;
    brief_ = false;
    return read();
  }

 private:
  [[nodiscard]] bool is_free() const;

  const State& state_;
  Owned lock_;
  bool brief_;
  bool skipped_ = false;
  Deferred& deferred_;
  TakenLock taken_;
};

/// Raises TypeError unless `value` can be the lock of a RequestRates.
inline void check_lock(PyObject* value, const char* shown) {
  check_methods(value, shown, "a lock", {"__enter__", "__exit__"});
}

}  // namespace decision_bounds::python
