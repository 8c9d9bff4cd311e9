#include "held.hpp"

#include <algorithm>
#include <cmath>

#include "numbers.hpp"

namespace decision_bounds::internal {

bool Held::admits(double share, double used, double limit) const noexcept {
  if (unbounded != 0) return false;
  if (std::isinf(share) && holders != 0) return false;
  return used + amount < limit;
}

void Held::take(double share) noexcept {
  holders = saturating_add(holders, 1);
  if (std::isinf(share)) {
    unbounded = saturating_add(unbounded, 1);
  } else {
    amount += share;
  }
}

void Held::give_back(double share) noexcept {
  holders = count_down(holders);
  if (std::isinf(share)) {
    unbounded = count_down(unbounded);
  } else {
    amount = std::max(0.0, amount - share);  // 0.0 also where the difference is not a number
  }
  if (holders == 0) amount = 0.0;  // the subtractions may leave a rounding error
}

std::string to_string(const Held& held, std::string_view name) {
  return std::string(name) + "(holders=" + std::to_string(held.holders) +
         ", amount=" + shortest(held.amount) + ", unbounded=" + std::to_string(held.unbounded) +
         ")";
}

}  // namespace decision_bounds::internal
