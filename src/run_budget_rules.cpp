#include "run_budget_rules.hpp"

#include "decision_bounds/errors.hpp"
#include "numbers.hpp"

namespace decision_bounds::internal {

// The lock analysis is off in the closures, which it does not see through: each runs while the
// guard above it holds the lock.

void RunBudgetRules::reserve(double tokens) {
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

void RunBudgetRules::release(double tokens) {
  Guard guard(changed_);
  release_locked(tokens);
  guard.unlock();
}

void RunBudgetRules::charge(const PaidReply& reply, double tokens) {
  charge(reply, tokens, stands_for_a_call(tokens));
}

void RunBudgetRules::charge(const PaidReply& reply, double tokens, bool ends_call) {
  Guard guard(changed_);
  OnError unread([&]() DECISION_BOUNDS_NO_ANALYSIS {
    if (ends_call) release_locked(tokens);
  });
  const bool cached = reply.cached();
  unread.dismiss();
  if (cached) {
    counts_.cache_hits = saturating_add(counts_.cache_hits, 1);
    guard.unlock();
    return;
  }
  OnError wake([&]() DECISION_BOUNDS_NO_ANALYSIS { changed_.notify_all(); });
  leave_locked(tokens);
  counts_.calls = saturating_add(counts_.calls, 1);
  // Each value is read before it is added: its property may use this budget and change the sum.
  const std::int64_t input_tokens = reply.input_tokens();
  counts_.input_tokens = saturating_add(counts_.input_tokens, input_tokens);
  const double cost = reply.cost();
  counts_.cost += cost;
  wake.dismiss();
  changed_.notify_all();
  guard.unlock();
}

void RunBudgetRules::give_back(double tokens, const PaidReply* reply) {
  if (reply == nullptr) {
    end_unpaid(tokens);
  } else {
    end_paid(*reply, tokens);
  }
}

bool RunBudgetRules::exhausted() {
  return locked([this]() DECISION_BOUNDS_NO_ANALYSIS { return exhausted_locked(); });
}

bool RunBudgetRules::exhausted_locked() {
  return saturating_add(counts_.calls, counts_.in_flight) >= counts_.max_calls ||
         counts_.input_tokens >= counts_.max_tokens;
}

std::string RunBudgetRules::printed_summary_locked() { return to_string(summary_of(counts_)); }

void RunBudgetRules::wait() {
  wait_for_room(
      changed_, [this] { return stopping(); }, std::nullopt, [this] { return poll_seconds(); });
}

void RunBudgetRules::release_locked(double tokens) {
  OnError wake([&]() DECISION_BOUNDS_NO_ANALYSIS { changed_.notify_all(); });
  leave_locked(tokens);
  wake.dismiss();
  changed_.notify_all();
}

void RunBudgetRules::leave_locked(double tokens) {
  counts_.in_flight = count_down(counts_.in_flight);
  held_.give_back(tokens);
}

}  // namespace decision_bounds::internal
