#pragma once

// The errors that end a decision call. Each carries one message text and nothing else.

#include <stdexcept>

#include "decision_bounds/export.hpp"

namespace decision_bounds {

/// A decision call failed, after its retries. The library never throws it itself: clients throw it,
/// and catch the whole family through it.
class DECISION_BOUNDS_TYPE DecisionError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Another call would exceed a RunBudget or the daily cost cap.
class DECISION_BOUNDS_TYPE DecisionBudgetExceeded : public DecisionError {
 public:
  using DecisionError::DecisionError;
};

/// The endpoint refuses requests and is not asked again until that window ends. Thrown by clients.
class DECISION_BOUNDS_TYPE DecisionUnavailable : public DecisionError {
 public:
  using DecisionError::DecisionError;
};

/// A call with a deadline ran out of it while it waited for room.
class DECISION_BOUNDS_TYPE DecisionTimeout : public DecisionError {
 public:
  using DecisionError::DecisionError;
};

/// The pass that the call belongs to has been asked to stop.
class DECISION_BOUNDS_TYPE DecisionStopped : public DecisionError {
 public:
  using DecisionError::DecisionError;
};

}  // namespace decision_bounds
