#include "decision_bounds/share.hpp"

#include <exception>
#include <stdexcept>
#include <utility>

namespace decision_bounds {
namespace {

void nothing(const PaidReply*) noexcept {}

}  // namespace

Share::Share() : Share(GiveBack(nothing)) {}

Share::Share(GiveBack give_back)
    : give_back_(std::move(give_back)), held_(true), errors_under_way_(std::uncaught_exceptions()) {
  if (!give_back_) throw std::invalid_argument("give_back must not be empty");
}

Share::Share(Share&& other) noexcept
    : give_back_(std::move(other.give_back_)),
      held_(other.held_.exchange(false, std::memory_order_acq_rel)),
      errors_under_way_(std::uncaught_exceptions()) {}

Share::~Share() noexcept(false) {
  if (!held_.load(std::memory_order_acquire)) return;
  if (std::uncaught_exceptions() <= errors_under_way_) {
    settle(nullptr);
    return;
  }
  try {
    settle(nullptr);
  } catch (...) {  // NOLINT(bugprone-empty-catch): the error that ends the scope goes on
  }
}

void Share::settle(const PaidReply* reply) {
  if (!held_.exchange(false, std::memory_order_acq_rel)) return;
  const GiveBack give_back = std::move(give_back_);
  give_back(reply);
}

}  // namespace decision_bounds
