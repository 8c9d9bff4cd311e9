#include "decision_bounds/daily_spend.hpp"

#include <stdexcept>
#include <utility>

#include "daily_spend_rules.hpp"
#include "decision_bounds/std_host.hpp"

namespace decision_bounds {

struct DailySpend::State {
  /// The account's own part in its rules: the functions that it was given.
  class Rules final : public internal::DailySpendRules {
   public:
    explicit Rules(State& state)
        : DailySpendRules(state.account, state.held, *state.changed), state_(state) {}

    std::string today() override { return state_.today(); }
    bool has_ledger() const override { return static_cast<bool>(state_.ledger); }
    double ask_ledger(const std::string& day) override { return state_.ledger(day); }
    Logger& logger() override { return state_.logger; }

   private:
    State& state_;
  };

  State(double cap, Today today_of_host, Ledger ledger_of_host, Logger& logger_of_host,
        std::unique_ptr<Condition> condition)
      : account{.cap = cap, .day = {}},
        today(std::move(today_of_host)),
        ledger(std::move(ledger_of_host)),
        logger(logger_of_host),
        changed(std::move(condition)) {}

  internal::DailyAccount account;  // like `held` guarded by the lock of `changed`
  internal::OwnHeld held;
  Today today;
  Ledger ledger;
  Logger& logger;
  std::unique_ptr<Condition> changed;
  Rules rules{*this};
};

DailySpend::DailySpend(double cap, Today today, Ledger ledger, Logger* logger,
                       std::unique_ptr<Condition> changed) {
  if (!today) throw std::invalid_argument("today must not be empty");
  if (!changed) changed = std::make_unique<StdCondition>();
  state_ = std::make_unique<State>(cap, std::move(today), std::move(ledger),
                                   logger != nullptr ? *logger : StdLogger::instance(),
                                   std::move(changed));
}

DailySpend::~DailySpend() = default;

Share DailySpend::admit(const CostBound& bound, std::optional<double> deadline, const Clock& clock,
                        const StopSignal& stopping) {
  if (!bound) throw std::invalid_argument("bound must not be empty");
  if (!stopping) throw std::invalid_argument("stopping must not be empty");
  if (deadline && !clock) throw std::invalid_argument("clock must not be empty with a deadline");
  const double held = state_->rules.admit(bound, deadline, clock, stopping);
  return Share(
      [rules = &state_->rules, held](const PaidReply* reply) { rules->give_back(held, reply); });
}

double DailySpend::spent() { return state_->rules.spent(); }
void DailySpend::charge(const PaidReply& reply) { state_->rules.charge(reply); }

}  // namespace decision_bounds
