#pragma once

// Sums that stay in range, and numbers as text. No text depends on the process's locale.

#include <cstdint>
#include <string>

namespace decision_bounds::internal {

/// a + b, or the nearest value that fits.
constexpr std::int64_t saturating_add(std::int64_t a, std::int64_t b) noexcept {
  std::int64_t sum = 0;
  if (!__builtin_add_overflow(a, b, &sum)) return sum;
  return b < 0 ? INT64_MIN : INT64_MAX;
}

/// One less, never below 0.
constexpr std::int64_t count_down(std::int64_t count) noexcept { return count > 1 ? count - 1 : 0; }

/// The shortest decimal text that reads back as `value`: positional with a point and a digit behind
/// it, or, below 1e-4 and from 1e16 on, in exponent form. "inf", "-inf", "nan".
std::string shortest(double value);

/// `value` with exactly `decimals` (0 to 20) digits behind the point, exact ties to the even digit.
std::string fixed(double value, int decimals);

/// `value` rounded to 6 decimals, exact ties to the even digit.
double micro_rounded(double value);

}  // namespace decision_bounds::internal
