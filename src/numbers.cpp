#include "numbers.hpp"

#include <array>
#include <charconv>
#include <cmath>
#include <string_view>

namespace decision_bounds::internal {
namespace {

// The longest fixed form: a sign, 309 digits of the largest double, a point and 20 decimals.
using Buffer = std::array<char, 352>;

std::string_view not_finite(double value) {
  if (std::isnan(value)) return "nan";  // to_chars would show the sign of a NaN
  return value < 0 ? "-inf" : "inf";
}

}  // namespace

std::string shortest(double value) {
  if (!std::isfinite(value)) return std::string(not_finite(value));
  const double magnitude = std::abs(value);
  const bool exponent = magnitude != 0.0 && (magnitude < 1e-4 || magnitude >= 1e16);
  Buffer buffer;
  const auto end =
      std::to_chars(buffer.data(), buffer.data() + buffer.size(), value,
                    exponent ? std::chars_format::scientific : std::chars_format::fixed);
  std::string text(buffer.data(), end.ptr);
  if (!exponent && text.find('.') == std::string::npos) text += ".0";
  return text;
}

std::string fixed(double value, int decimals) {
  if (!std::isfinite(value)) return std::string(not_finite(value));
  Buffer buffer;
  const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value,
                                 std::chars_format::fixed, decimals);
  return {buffer.data(), end.ptr};
}

double micro_rounded(double value) {
  // From 2^33 on doubles lie at least 1.9e-6 apart, so the nearest decimal reads back as `value`
  // itself. Below, the product stays under 2^53: its nearest integer is exact, and the quotient of
  // two exact integers is the double nearest to the decimal.
  constexpr double all_decimals_from = 8589934592.0;
  if (!(std::abs(value) < all_decimals_from)) return value;
  const double micros = value * 1e6;
  const double missed = std::fma(value, 1e6, -micros);  // what rounding the product took away
  double nearest = std::nearbyint(micros);
  const double above = micros - nearest;  // exact; nearbyint takes a tie to the even integer
  if (above == 0.5 && missed > 0.0) nearest += 1.0;
  if (above == -0.5 && missed < 0.0) nearest -= 1.0;
  return nearest / 1e6;
}

}  // namespace decision_bounds::internal
