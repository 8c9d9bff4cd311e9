#pragma once

#include <exception>

#include "capi/errors.hpp"

namespace decision_bounds::python {

/// Whether an operation may be refused its lock.
enum class Locking {
  may_fail,
  /// It gives back what a call holds, which must return: an interrupt is deferred, and with a lock
  /// that fails for good the operation runs without it. The interpreter's own lock keeps each step
  /// of it whole.
  must_go_on,
};

/// The error that an operation raises at its end, since it had to go on when the error came up.
class Deferred {
 public:
  explicit Deferred(Locking locking) noexcept : locking_(locking) {}

  [[nodiscard]] bool must_go_on() const noexcept { return locking_ == Locking::must_go_on; }

  /// Defers the error that is being handled, unless another has been.
  void keep() noexcept {
    if (!error_) error_ = std::current_exception();
  }

  /// Runs `step`; where the operation must go on, again whenever an interrupt ends it.
  template <class Step>
  void insist(Step step) {
    if (must_go_on()) {
      repeat(step);
    } else {
      step();
    }
  }

  /// Runs `step` again whenever an interrupt ends it, whatever the operation. Where that may fail,
  /// the interrupt is raised as soon as the step is done.
  template <class Step>
  void complete(Step step) {
    repeat(step);
    if (error_ && !must_go_on()) std::rethrow_exception(error_);
  }

  /// What the whole operation returns; throws what was deferred or else the operation's own error.
  template <class Operation>
  auto run(Operation operation) {
    try {
      auto answer = operation();
      if (!error_) return answer;
    } catch (const Raised&) {
      if (!error_) throw;
    } catch (const std::exception&) {
      if (!error_) throw;
    }
    std::rethrow_exception(error_);
  }

 private:
  /// Each try begins afresh, so `step` must change nothing that outlives a failure. Gives up after
  /// a hundred: some host may raise an interrupt each time.
  template <class Step>
  void repeat(Step step) {
    constexpr int most_tries = 100;
    for (int tries = 0; tries < most_tries; ++tries) {
      try {
        return step();
      } catch (RaisedInterrupt&) {
        keep();
      }
    }
  }

  Locking locking_;
  std::exception_ptr error_;
};

}  // namespace decision_bounds::python
