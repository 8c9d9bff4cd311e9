#pragma once

#include <functional>
#include <optional>

#include "decision_bounds/host.hpp"

namespace decision_bounds::internal {

/// The longest that one wait lasts, in seconds: how late a stop, a deadline or a new day, which
/// wake nobody, may be seen.
inline constexpr double poll_s = 0.1;

inline constexpr const char* stopped_text = "the pass was asked to stop";

/// One wait for room on `changed`, whose lock the caller holds: until a notify_all, for `poll`
/// seconds at most, never past `deadline` on the scale of `clock` (both given, or no deadline is
/// tested). Throws DecisionStopped when `stopping` says so, DecisionTimeout when no time is left,
/// and whatever the two functions throw. The caller tests for room again after each return.
void wait_for_room(Condition& changed, const std::function<bool()>& stopping,
                   std::optional<double> deadline = std::nullopt,
                   const std::function<double()>& clock = nullptr, double poll = poll_s)
    DECISION_BOUNDS_REQUIRES(changed);

}  // namespace decision_bounds::internal
