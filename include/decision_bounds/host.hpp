#pragma once

// What the library takes from the program that hosts it: a plain lock, a condition variable over a
// re-entrant lock, and a logger. std_host.hpp implements all three over the standard library; a
// program with a thread system of its own brings its own.

#include <exception>
#include <span>
#include <string_view>
#include <variant>

#include "decision_bounds/export.hpp"
#include "decision_bounds/thread_annotations.hpp"

namespace decision_bounds {

/// A mutual-exclusion lock; it need not be re-entrant. Any thread may call it.
class DECISION_BOUNDS_TYPE DECISION_BOUNDS_CAPABILITY("lock") Lock {
 public:
  Lock() = default;
  Lock(const Lock&) = delete;  // a lock is known by its address
  Lock& operator=(const Lock&) = delete;
  virtual ~Lock() = default;

  virtual void lock() DECISION_BOUNDS_ACQUIRE() = 0;
  virtual void unlock() DECISION_BOUNDS_RELEASE() = 0;
};

/// A condition variable over a re-entrant lock of its own: a thread that holds the lock may take it
/// again, and holds it until it has let it go as often. Any thread may call it. A lock() that
/// throws while a share is given back would lose what the share held: an implementation whose lock
/// can fail must see to that itself.
class DECISION_BOUNDS_TYPE DECISION_BOUNDS_CAPABILITY("condition") Condition {
 public:
  Condition() = default;
  Condition(const Condition&) = delete;  // waiters know it by its address
  Condition& operator=(const Condition&) = delete;
  virtual ~Condition() = default;

  virtual void lock() DECISION_BOUNDS_ACQUIRE() = 0;
  virtual void unlock() DECISION_BOUNDS_RELEASE() = 0;
  /// Waits for a notify_all, at most `seconds` (above 0, finite). Requires the lock. Lets it go
  /// entirely for the wait, however often this thread holds it, and holds it as often again when it
  /// returns. May wake early. After an error the lock may be gone: the unlock that follows may then
  /// throw, but must not let go what another thread holds.
  virtual void wait_for(double seconds) DECISION_BOUNDS_REQUIRES(this) = 0;
  /// Wakes every waiter. Requires the lock.
  virtual void notify_all() DECISION_BOUNDS_REQUIRES(this) = 0;
};

/// An argument of a log record: a text for %s, a number for %f with a precision such as %.4f. The
/// text lives as long as the call that passes it.
using LogArgument = std::variant<std::string_view, double>;

/// Where warnings go. The library calls it from any thread, sometimes with a bound's lock held.
class DECISION_BOUNDS_TYPE Logger {
 public:
  Logger() = default;
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;
  virtual ~Logger() = default;

  /// Logs `format` (printf-style) with `arguments` at level warning. `error` is the error that the
  /// library absorbed, or null. What it throws propagates out of the operation that logged.
  virtual void warning(std::string_view format, std::span<const LogArgument> arguments,
                       std::exception_ptr error) = 0;
};

}  // namespace decision_bounds
