#pragma once

// The host's facilities over the standard library, for programs in C++.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include "decision_bounds/export.hpp"
#include "decision_bounds/host.hpp"

namespace decision_bounds {

/// A Lock over std::mutex.
class DECISION_BOUNDS_TYPE StdLock final : public Lock {
 public:
  void lock() override DECISION_BOUNDS_NO_ANALYSIS { mutex_.lock(); }
  void unlock() override DECISION_BOUNDS_NO_ANALYSIS { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

/// A Condition over std::mutex and std::condition_variable. Waits on the steady clock. A thread
/// must not be cancelled (pthread_cancel) while it uses one.
class DECISION_BOUNDS_API StdCondition final : public Condition {
 public:
  void lock() override;
  void unlock() override;
  void wait_for(double seconds) override;
  void notify_all() override;

 private:
  std::mutex mutex_;
  std::condition_variable woken_;
  std::atomic<std::thread::id> owner_;  // written only with mutex_ held
  std::uint64_t depth_ = 0;             // guarded by mutex_
  std::uint64_t waiters_ = 0;           // guarded by mutex_
};

/// A Logger that writes each warning as one line to standard error, with the absorbed error's text
/// behind it. Numbers are written with a decimal point whatever the locale.
class DECISION_BOUNDS_API StdLogger final : public Logger {
 public:
  void warning(std::string_view format, std::span<const LogArgument> arguments,
               std::exception_ptr error) override;

  /// The one instance that bounds use when they are given none.
  static StdLogger& instance();
};

}  // namespace decision_bounds
