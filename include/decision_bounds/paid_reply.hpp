#pragma once

#include <cstdint>

#include "decision_bounds/export.hpp"

namespace decision_bounds {

/// How a bound reads a reply of the decision endpoint. The client's own reply type implements it;
/// the library only reads it, with a lock held; whatever a property throws propagates. A
/// property may use the bound that reads it, but not the RequestRates that does: that lock is a
/// plain one. Costs and counts are added up as they are, negative ones and NaN too. Where the
/// library takes a `const PaidReply*`, nullptr means that the call was not paid: it ended in an
/// error, a stop or an interrupt.
class DECISION_BOUNDS_TYPE PaidReply {
 public:
  virtual ~PaidReply() = default;

  /// Whether the answer came from the client's cache. Cache hits are free.
  [[nodiscard]] virtual bool cached() const = 0;
  /// The input tokens that the request used.
  [[nodiscard]] virtual std::int64_t input_tokens() const = 0;
  /// What the reply cost, in US dollars.
  [[nodiscard]] virtual double cost() const = 0;
};

}  // namespace decision_bounds
