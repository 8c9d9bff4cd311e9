#pragma once

#include <functional>
#include <optional>

#include "decision_bounds/host.hpp"
#include "decision_bounds/stop_signal.hpp"

namespace decision_bounds::internal {

/// The longest that one wait lasts, in seconds: how late a stop, a deadline or a new day, which
/// wake nobody, may be seen.
inline constexpr double poll_s = 0.1;

inline constexpr const char* stopped_text = "the pass was asked to stop";

/// When a call must have been admitted.
struct Deadline {
  std::optional<double> at;              ///< seconds on the scale of `clock`; none: no deadline
  const std::function<double()>& clock;  ///< empty: no deadline is tested either
  const char* passed;                    ///< the message of the DecisionTimeout
};

/// One wait for room on `changed`, whose lock the caller holds: until a notify_all, for `poll()`
/// seconds at most, never past the deadline. Throws DecisionStopped when `stopping` says so,
/// DecisionTimeout when no time is left, and whatever the functions throw; asks them in the order
/// stopping, poll, clock. The caller tests for room again after each return.
void wait_for_room(Condition& changed, const StopSignal& stopping,
                   const std::optional<Deadline>& deadline, const std::function<double()>& poll)
    DECISION_BOUNDS_REQUIRES(changed);

}  // namespace decision_bounds::internal
