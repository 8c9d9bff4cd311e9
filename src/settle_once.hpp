#pragma once

namespace decision_bounds::internal {

/// Gives a share back exactly once. `take()` empties the share in one step and hands out what was
/// in it: an action, or something false where the share had been given back. The share is empty
/// before its action runs, so a second thread, the action itself, and the end of the scope after an
/// action that failed find nothing left to do.
template <class Take, class Reply>
void settle_once(Take take, Reply reply) {
  if (auto give_back = take()) give_back(reply);
}

}  // namespace decision_bounds::internal
