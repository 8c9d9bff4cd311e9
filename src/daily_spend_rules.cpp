#include "daily_spend_rules.hpp"

#include <array>
#include <utility>

#include "decision_bounds/errors.hpp"
#include "guard.hpp"
#include "numbers.hpp"

namespace decision_bounds::internal {
namespace {

[[noreturn]] void refuse(Logger& logger, bool first, double cost, double cap) {
  if (first) {
    logger.warning(
        "The daily decision cost cap is reached: $%.4f of $%.2f spent today (UTC); paid calls "
        "resume tomorrow, cached answers are still used",
        std::array<LogArgument, 2>{cost, cap}, nullptr);
  }
  throw DecisionBudgetExceeded("the daily decision cost cap is reached: $" + fixed(cost, 4) +
                               " of $" + fixed(cap, 2) + " spent today (UTC)");
}

}  // namespace

// The lock analysis is off in the closures, which it does not see through: each runs while the
// guard above it holds the lock.

double DailySpendRules::admit(const CostBound& bound, std::optional<double> deadline,
                              const Clock& clock, const StopSignal& stopping) {
  Guard guard(changed_);
  for (;;) {
    const double cost = today_locked();
    const double cap = account_.cap;
    if (!(cost < cap)) {
      const bool first = !std::exchange(account_.capped, true);
      guard.unlock();
      refuse(logger(), first, cost, cap);
    }
    const double held = bound();
    if (held_.admits(held, cost, account_.cap)) {
      prepare_share(held);
      held_.take(held);
      OnError taken([&]() DECISION_BOUNDS_NO_ANALYSIS { held_.give_back(held); });
      guard.unlock();
      taken.dismiss();
      return held;
    }
    wait(deadline, clock, stopping);
  }
}

double DailySpendRules::spent() {
  Guard guard(changed_);
  const double cost = today_locked();
  guard.unlock();
  return cost;
}

void DailySpendRules::charge(const PaidReply& reply) {
  Guard guard(changed_);
  today_locked();
  const double cost = reply.cost();  // may itself use the account
  account_.cost += cost;
  changed_.notify_all();
  guard.unlock();
}

void DailySpendRules::give_back(double held, const PaidReply* reply) {
  Guard guard(changed_);
  OnError wake([&]() DECISION_BOUNDS_NO_ANALYSIS { changed_.notify_all(); });
  OnError unhold([&]() DECISION_BOUNDS_NO_ANALYSIS { held_.give_back(held); });
  if (reply != nullptr) {
    today_locked();
    const double cost = reply->cost();
    account_.cost += cost;
  }
  unhold.dismiss();
  held_.give_back(held);
  wake.dismiss();
  changed_.notify_all();
  guard.unlock();
}

double DailySpendRules::today_locked() {
  std::string day = today();
  if (day != account_.day) {
    const double cost = spent_since(day);
    account_.day = std::move(day);
    account_.cost = cost;
    account_.capped = false;
  }
  return account_.cost;
}

double DailySpendRules::spent_since(const std::string& day) {
  if (!has_ledger()) return 0.0;
  try {
    return ask_ledger(day);
  } catch (const std::exception&) {
    logger().warning(
        "Could not read what the decision calls of %s cost; the daily cap counts from 0",
        std::array<LogArgument, 1>{day}, std::current_exception());
    return 0.0;
  }
}

void DailySpendRules::wait(std::optional<double> deadline, const Clock& clock,
                           const StopSignal& stopping) {
  wait_for_room(changed_, stopping, Deadline{deadline, clock, deadline_text},
                [this] { return poll_seconds(); });
}

}  // namespace decision_bounds::internal
