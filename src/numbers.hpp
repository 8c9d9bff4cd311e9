#pragma once

// Sums that stay in range, and numbers as text. No text depends on the process's locale.

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>

namespace decision_bounds::internal {

/// a + b, or the nearest value that fits.
constexpr std::int64_t saturating_add(std::int64_t a, std::int64_t b) noexcept {
  std::int64_t sum = 0;
  if (!__builtin_add_overflow(a, b, &sum)) return sum;
  return b < 0 ? INT64_MIN : INT64_MAX;
}

/// One less, never below 0.
constexpr std::int64_t count_down(std::int64_t count) noexcept { return count > 1 ? count - 1 : 0; }

/// Two counts as doubles that stand in the same order as the counts: from 2^53 on, different counts
/// may be the same double.
inline std::pair<double, double> in_order(std::int64_t used, std::int64_t limit) noexcept {
  const auto low = static_cast<double>(used);
  const auto high = static_cast<double>(limit);
  const bool merged = used < limit && !(low < high);
  return {low, merged ? std::nextafter(high, std::numeric_limits<double>::infinity()) : high};
}

/// The shortest decimal text that reads back as `value`: positional with a point and a digit behind
/// it, or, below 1e-4 and from 1e16 on, in exponent form. "inf", "-inf", "nan".
std::string shortest(double value);

/// `value` with exactly `decimals` (0 to 20) digits behind the point, exact ties to the even digit.
std::string fixed(double value, int decimals);

/// `value` rounded to 6 decimals, exact ties to the even digit.
double micro_rounded(double value);

}  // namespace decision_bounds::internal
