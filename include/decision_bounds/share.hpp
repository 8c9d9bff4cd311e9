#pragma once

#include <atomic>
#include <functional>

#include "decision_bounds/export.hpp"
#include "decision_bounds/paid_reply.hpp"

namespace decision_bounds {

/// What one admitted call holds of a bound. Given back exactly once: settled with the paid reply
/// that ends the call, or, when its scope ends without one, released with none.
///
///     Share share = budget.hold(rates.tokens(size));
///     Reply reply = client.send(request);   // an error here releases the share
///     share.settle(&reply);
///
/// The bound must outlive the shares that it handed out. Several threads may settle one share: its
/// action runs once, and settle blocks for the bound as its action does. Moving or destroying a
/// share is not safe while another thread uses it; the share that was moved from holds nothing. The
/// destructor may throw, which standard containers, smart pointers, std::optional and a destructor
/// that has a share as a local variable do not allow: settle such a share before it goes.
class [[nodiscard]] DECISION_BOUNDS_API Share {
 public:
  /// Gives the held amount back to the bound, counting the reply if there is one.
  using GiveBack = std::function<void(const PaidReply*)>;

  /// A share of nothing: settling it does nothing.
  Share();
  /// Throws std::invalid_argument when `give_back` is empty.
  explicit Share(GiveBack give_back);
  Share(Share&& other) noexcept;
  Share(const Share&) = delete;             // one call, one share
  Share& operator=(const Share&) = delete;  // would have to end the call that the target holds
  Share& operator=(Share&&) = delete;

  /// Settles with none. The action's error propagates, unless an error is already under way on this
  /// thread: then that one goes on and the action's is dropped, since an error out of a destructor
  /// that runs while the stack is unwound would end the process.
  ~Share() noexcept(false);

  /// Runs the action with `reply`, unless it has run already; then does nothing. The share counts
  /// as given back even when the action throws; the error propagates.
  void settle(const PaidReply* reply);

 private:
  /// Empties the share and hands out its action; an empty one where it was given back already.
  GiveBack take() noexcept;

  GiveBack give_back_;
  std::atomic<bool> held_;
};

}  // namespace decision_bounds
