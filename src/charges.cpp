#include "charges.hpp"

#include <algorithm>

#include "numbers.hpp"

namespace decision_bounds::internal {

double Charges::bound(std::int64_t size) const noexcept {
  return std::max(per_byte * static_cast<double>(size), per_call);
}

void Charges::learn(std::int64_t size, double charge) noexcept {
  const double rate = charge / static_cast<double>(std::max<std::int64_t>(size, 1));
  per_byte = std::max(per_byte, rate);
  per_call = std::max(per_call, charge);
}

std::string to_string(const Charges& charges, std::string_view name) {
  return std::string(name) + "(per_byte=" + shortest(charges.per_byte) +
         ", per_call=" + shortest(charges.per_call) + ")";
}

}  // namespace decision_bounds::internal
