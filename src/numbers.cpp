#include "numbers.hpp"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <string_view>

namespace decision_bounds::internal {
namespace {

// The longest fixed form: a sign, 309 digits of the largest double, a point and 20 decimals.
using Buffer = std::array<char, 352>;

std::string_view not_finite(double value) {
  if (std::isnan(value)) return "nan";  // to_chars would show the sign of a NaN
  return value < 0 ? "-inf" : "inf";
}

std::string_view fixed_form(Buffer& buffer, double value, int decimals) {
  const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value,
                                 std::chars_format::fixed, decimals);
  return {buffer.data(), end.ptr};
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
  return std::string(fixed_form(buffer, value, decimals));
}

double micro_rounded(double value) {
  if (std::abs(value) < 1e6) {
    // The product is off by less than 1e-4, so away from a tie the nearest integer is the right
    // one, and the quotient of two exact numbers is the nearest double.
    const double micros = value * 1e6;
    const double nearest = std::nearbyint(micros);
    if (std::abs(micros - nearest) < 0.499) return nearest / 1e6;
  }
  constexpr double all_integers_from = 4503599627370496.0;  // 2^52: no fraction left to round
  if (!(std::abs(value) < all_integers_from)) return value;
  Buffer buffer;
  const std::string_view text = fixed_form(buffer, value, 6);
  double rounded = 0.0;
  std::from_chars(text.data(), text.data() + text.size(), rounded);
  return rounded;
}

}  // namespace decision_bounds::internal
