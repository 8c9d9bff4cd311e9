#include "run_budget_steps.hpp"

#include "decision_bounds/errors.hpp"
#include "numbers.hpp"
#include "waiting.hpp"

namespace decision_bounds::internal {

// The lock analysis is off in the closures, which it does not see through: each runs while the
// guard above it holds the lock.

void RunBudgetSteps::reserve(double tokens) {
  if (stopping()) throw DecisionStopped(stopped_text);
  Guard guard(changed_);
  for (;;) {
    if (exhausted_locked()) {
      throw DecisionBudgetExceeded("decision budget exhausted: " + printed_summary_locked());
    }
    const auto [used, limit] = in_order(counts_.input_tokens, counts_.max_tokens);
    if (held_.admits(tokens, used, limit)) break;
    wait();
  }
  counts_.in_flight = saturating_add(counts_.in_flight, 1);
  OnError slot(
      [&]() DECISION_BOUNDS_NO_ANALYSIS { counts_.in_flight = count_down(counts_.in_flight); });
  held_.take(tokens);
  slot.dismiss();
  OnError taken([&]() DECISION_BOUNDS_NO_ANALYSIS { leave_locked(tokens); });
  guard.unlock();
  taken.dismiss();
}

void RunBudgetSteps::release(double tokens) {
  Guard guard(changed_);
  release_locked(tokens);
  guard.unlock();
}

void RunBudgetSteps::charge(const PaidReply& reply, std::optional<double> reserved) {
  Guard guard(changed_);
  OnError unread([&]() DECISION_BOUNDS_NO_ANALYSIS {
    if (reserved) release_locked(*reserved);  // else there is no call to end, only others' calls
  });
  const bool cached = reply.cached();
  unread.dismiss();
  if (cached) {
    counts_.cache_hits = saturating_add(counts_.cache_hits, 1);
    guard.unlock();
    return;
  }
  OnError wake([&]() DECISION_BOUNDS_NO_ANALYSIS { changed_.notify_all(); });
  leave_locked(reserved.value_or(0.0));
  counts_.calls = saturating_add(counts_.calls, 1);
  const std::int64_t input_tokens = reply.input_tokens();  // may itself use the budget
  counts_.input_tokens = saturating_add(counts_.input_tokens, input_tokens);
  const double cost = reply.cost();
  counts_.cost += cost;
  wake.dismiss();
  changed_.notify_all();
  guard.unlock();
}

void RunBudgetSteps::give_back(double tokens, const PaidReply* reply) {
  if (reply == nullptr) {
    release(tokens);
  } else {
    charge(*reply, tokens);
  }
}

bool RunBudgetSteps::exhausted() {
  return locked([this]() DECISION_BOUNDS_NO_ANALYSIS { return exhausted_locked(); });
}

bool RunBudgetSteps::exhausted_locked() {
  return saturating_add(counts_.calls, counts_.in_flight) >= counts_.max_calls ||
         counts_.input_tokens >= counts_.max_tokens;
}

std::string RunBudgetSteps::printed_summary_locked() { return to_string(summary_of(counts_)); }

void RunBudgetSteps::wait() {
  wait_for_room(changed_, [this] { return stopping(); });
}

void RunBudgetSteps::release_locked(double tokens) {
  OnError wake([&]() DECISION_BOUNDS_NO_ANALYSIS { changed_.notify_all(); });
  leave_locked(tokens);
  wake.dismiss();
  changed_.notify_all();
}

void RunBudgetSteps::leave_locked(double tokens) {
  counts_.in_flight = count_down(counts_.in_flight);
  held_.give_back(tokens);
}

}  // namespace decision_bounds::internal
