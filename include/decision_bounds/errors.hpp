#pragma once

// The errors that end a decision call. Each carries one message text and nothing else.

#include <stdexcept>

namespace decision_bounds {

/// A decision call failed, after its retries. The library never throws it itself: clients throw it,
/// and catch the whole family through it.
class DecisionError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Another call would exceed a RunBudget or the daily cost cap.
class DecisionBudgetExceeded : public DecisionError {
 public:
  using DecisionError::DecisionError;
};

/// The endpoint refuses requests and is not asked again until that window ends. Thrown by clients.
class DecisionUnavailable : public DecisionError {
 public:
  using DecisionError::DecisionError;
};

/// A call with a deadline ran out of it while it waited for room.
class DecisionTimeout : public DecisionError {
 public:
  using DecisionError::DecisionError;
};

/// The pass that the call belongs to has been asked to stop.
class DecisionStopped : public DecisionError {
 public:
  using DecisionError::DecisionError;
};

}  // namespace decision_bounds
