#pragma once

#include <atomic>
#include <functional>

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
/// destructor may throw, which standard containers, smart pointers and std::optional do not allow:
/// settle a share that is kept in one before it goes, or is replaced by emplace.
class [[nodiscard]] Share {
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

  /// Settles with none. Lets the action's error out, unless an error that came up since the share
  /// was made is already ending the scope: then that one goes on. (A share made while one error was
  /// passing, and left by a second, cannot be told from one left normally: settle it.)
  ~Share() noexcept(false);

  /// Runs the action with `reply`, unless it has run already; then does nothing. The share counts
  /// as given back even when the action throws; the error passes out.
  void settle(const PaidReply* reply);

 private:
  GiveBack give_back_;
  std::atomic<bool> held_;
  int errors_under_way_;  // when the scope began
};

}  // namespace decision_bounds
