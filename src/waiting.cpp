#include "waiting.hpp"

#include <algorithm>

#include "decision_bounds/errors.hpp"

namespace decision_bounds::internal {

void wait_for_room(Condition& changed, const StopSignal& stopping,
                   const std::optional<Deadline>& deadline, const std::function<double()>& poll) {
  if (stopping()) throw DecisionStopped(stopped_text);
  double timeout = poll();
  if (deadline && deadline->at && deadline->clock) {
    const double left = *deadline->at - deadline->clock();
    if (left <= 0.0) throw DecisionTimeout(deadline->passed);
    timeout = std::min(timeout, left);  // the poll where `left` is not a number
  }
  changed.wait_for(timeout);
}

}  // namespace decision_bounds::internal
