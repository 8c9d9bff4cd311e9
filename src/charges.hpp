#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace decision_bounds::internal {

/// The most that one measure of the paid replies came to (US dollars, or input tokens): for one
/// call, and per byte of its request. Both only grow. Takes no lock; its owner's guards it.
struct Charges {
  double per_byte = 0.0;
  double per_call = 0.0;

  /// The most that a request of `size` bytes may come to.
  [[nodiscard]] double bound(std::int64_t size) const noexcept;
  /// Takes in a reply that came to `charge` for a request of `size` bytes (below 1: taken as 1).
  void learn(std::int64_t size, double charge) noexcept;

  bool operator==(const Charges&) const = default;
};

std::string to_string(const Charges& charges, std::string_view name = "_Charges");

}  // namespace decision_bounds::internal
