#include "decision_bounds/share.hpp"

#include <exception>
#include <stdexcept>
#include <utility>

#include "settle_once.hpp"

namespace decision_bounds {
namespace {

void nothing(const PaidReply*) noexcept {}

}  // namespace

Share::Share() : Share(GiveBack(nothing)) {}

Share::Share(GiveBack give_back) : give_back_(std::move(give_back)), held_(true) {
  if (!give_back_) throw std::invalid_argument("give_back must not be empty");
}

Share::Share(Share&& other) noexcept
    : give_back_(std::move(other.give_back_)),
      held_(other.held_.exchange(false, std::memory_order_acq_rel)) {}

Share::~Share() noexcept(false) {
  if (!held_.load(std::memory_order_acquire)) return;
  if (std::uncaught_exceptions() == 0) {
    settle(nullptr);
    return;
  }
  try {
    settle(nullptr);
  } catch (...) {  // NOLINT(bugprone-empty-catch): the error that is under way goes on
  }
}

void Share::settle(const PaidReply* reply) {
  internal::settle_once([this] { return take(); }, reply);
}

Share::GiveBack Share::take() noexcept {
  // acq_rel: of two threads that settle, one takes the action, with all that its maker wrote.
  if (!held_.exchange(false, std::memory_order_acq_rel)) return nullptr;
  return std::move(give_back_);
}

}  // namespace decision_bounds
