#pragma once

#include <utility>

#include "decision_bounds/thread_annotations.hpp"

namespace decision_bounds::internal {

/// Holds a lock over a scope. The normal way out calls unlock(), which lets the lock's error out;
/// the destructor serves the ways out by an error, and lets that first error through.
template <class Lockable>
class [[nodiscard]] DECISION_BOUNDS_SCOPED_CAPABILITY Guard {
 public:
  explicit Guard(Lockable& lockable) DECISION_BOUNDS_ACQUIRE(lockable) : lockable_(&lockable) {
    lockable.lock();
  }
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;
  ~Guard() DECISION_BOUNDS_RELEASE() {
    if (lockable_ == nullptr) return;
    try {
      lockable_->unlock();
    } catch (...) {  // NOLINT(bugprone-empty-catch): the error that ends the scope goes on
    }
  }

  void unlock() DECISION_BOUNDS_RELEASE() { std::exchange(lockable_, nullptr)->unlock(); }

 private:
  Lockable* lockable_;
};

/// Runs `undo` when an error ends the scope before dismiss(); that error goes on.
template <class Undo>
class [[nodiscard]] OnError {
 public:
  explicit OnError(Undo undo) : undo_(std::move(undo)) {}
  OnError(const OnError&) = delete;
  OnError& operator=(const OnError&) = delete;
  ~OnError() {
    if (!armed_) return;
    try {
      undo_();
    } catch (...) {  // NOLINT(bugprone-empty-catch): the error that ends the scope goes on
    }
  }

  void dismiss() noexcept { armed_ = false; }

 private:
  Undo undo_;
  bool armed_ = true;
};

}  // namespace decision_bounds::internal
