#include "waiting.hpp"

#include <algorithm>

#include "decision_bounds/errors.hpp"

namespace decision_bounds::internal {

void wait_for_room(Condition& changed, const std::function<bool()>& stopping,
                   std::optional<double> deadline, const std::function<double()>& clock,
                   double poll) {
  if (stopping()) throw DecisionStopped(stopped_text);
  double timeout = poll;
  if (deadline && clock) {
    const double left = *deadline - clock();
    if (left <= 0.0) {
      throw DecisionTimeout(
          "the decision call ran out of its deadline while the calls in flight held the rest of "
          "the daily cost cap");
    }
    timeout = std::min(timeout, left);  // the poll where `left` is not a number
  }
  changed.wait_for(timeout);
}

}  // namespace decision_bounds::internal
