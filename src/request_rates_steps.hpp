#pragma once

#include <cstdint>

#include "charges.hpp"
#include "decision_bounds/host.hpp"
#include "decision_bounds/paid_reply.hpp"

namespace decision_bounds::internal {

/// The features that have had a paid reply, as seen by one operation.
class Features {
 public:
  Features() = default;
  Features(const Features&) = delete;
  Features& operator=(const Features&) = delete;

  virtual bool empty() = 0;
  /// Whether the feature that the operation is about is among them.
  virtual bool known() = 0;
  virtual void add() = 0;

 protected:
  ~Features() = default;
};

/// The operations of RequestRates, written once for every host.
class RequestRatesSteps {
 public:
  RequestRatesSteps(Lock& lock, Charges& cost, Charges& tokens)
      : lock_(lock), cost_(cost), tokens_(tokens) {}

  double cost(std::int64_t size, Features& features);
  double tokens(std::int64_t size, Features& features);
  void learn(std::int64_t size, Features& features, const PaidReply& reply);

 private:
  Lock& lock_;
  Charges& cost_ DECISION_BOUNDS_GUARDED_BY(lock_);
  Charges& tokens_ DECISION_BOUNDS_GUARDED_BY(lock_);
};

}  // namespace decision_bounds::internal
