#include "request_rates_steps.hpp"

#include <limits>

#include "guard.hpp"

namespace decision_bounds::internal {
namespace {

constexpr double not_known = std::numeric_limits<double>::infinity();

}  // namespace

double RequestRatesSteps::cost(std::int64_t size, Features& features) {
  Guard guard(lock_);
  const double most = features.known() ? cost_.bound(size) : not_known;
  guard.unlock();
  return most;
}

double RequestRatesSteps::tokens(std::int64_t size, Features& features) {
  Guard guard(lock_);
  const double most = features.empty() ? not_known : tokens_.bound(size);
  guard.unlock();
  return most;
}

void RequestRatesSteps::learn(std::int64_t size, Features& features, const PaidReply& reply) {
  Guard guard(lock_);
  features.add();
  cost_.learn(size, reply.cost());
  tokens_.learn(size, static_cast<double>(reply.input_tokens()));
  guard.unlock();
}

}  // namespace decision_bounds::internal
