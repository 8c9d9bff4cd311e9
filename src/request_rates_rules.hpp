#pragma once

#include <cstdint>
#include <limits>

#include "decision_bounds/host.hpp"
#include "decision_bounds/paid_reply.hpp"
#include "guard.hpp"

namespace decision_bounds::internal {

/// The operations of RequestRates, written once for every host. A template, since each is three
/// lines, and virtual calls would cost as much as the rest. `Maxima` is a Charges or has its
/// operations. `Features` knows the features that have had a paid reply, and the one that an
/// operation is about: empty(), known(), add().
template <class Maxima, class Features>
class RequestRatesRules {
 public:
  RequestRatesRules(Lock& lock, Maxima& cost, Maxima& tokens)
      : lock_(lock), cost_(cost), tokens_(tokens) {}

  double cost(std::int64_t size, Features& features) {
    Guard guard(lock_);
    const double most = features.known() ? cost_.bound(size) : not_known;
    guard.unlock();
    return most;
  }

  double tokens(std::int64_t size, Features& features) {
    Guard guard(lock_);
    const double most = features.empty() ? not_known : tokens_.bound(size);
    guard.unlock();
    return most;
  }

  void learn(std::int64_t size, Features& features, const PaidReply& reply) {
    Guard guard(lock_);
    features.add();
    cost_.learn(size, reply.cost());
    tokens_.learn(size, static_cast<double>(reply.input_tokens()));
    guard.unlock();
  }

 private:
  static constexpr double not_known = std::numeric_limits<double>::infinity();

  Lock& lock_;
  Maxima& cost_ DECISION_BOUNDS_GUARDED_BY(lock_);
  Maxima& tokens_ DECISION_BOUNDS_GUARDED_BY(lock_);
};

}  // namespace decision_bounds::internal
