#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "decision_bounds/export.hpp"
#include "decision_bounds/host.hpp"
#include "decision_bounds/paid_reply.hpp"

namespace decision_bounds {

/// The most that a request may cost, or use of input tokens, before its reply says: learned from
/// the paid replies so far. Any thread may call any operation; each holds the object's lock for its
/// whole body. Sizes are in bytes; a size below 1 learns like a size of 1.
class DECISION_BOUNDS_API RequestRates {
 public:
  /// Uses a StdLock when `lock` is null.
  explicit RequestRates(std::unique_ptr<Lock> lock = nullptr);
  RequestRates(const RequestRates&) = delete;  // shared by address between the client's threads
  RequestRates& operator=(const RequestRates&) = delete;
  ~RequestRates();

  /// US dollars: the most that one paid call of any feature cost or, if more, the highest price per
  /// byte times `size`. Infinity until a reply of `feature` has been learned, so that the cheap
  /// replies of one feature never bound the first call of a dear one.
  [[nodiscard]] double cost(std::int64_t size, std::string_view feature);
  /// Input tokens, bounded in the same way. Infinity until any reply has been learned.
  [[nodiscard]] double tokens(std::int64_t size);
  /// Takes in the paid reply to a request of `size` bytes: from now on `feature` is known, and the
  /// reply's cost and input tokens raise the most per call and the most per byte where they are
  /// above them (NaN never is). Does not look at `cached`. What reading the reply throws
  /// propagates; what was taken in before stays.
  void learn(std::int64_t size, std::string_view feature, const PaidReply& reply);

 private:
  struct DECISION_BOUNDS_HIDDEN State;
  std::unique_ptr<State> state_;
};

}  // namespace decision_bounds
