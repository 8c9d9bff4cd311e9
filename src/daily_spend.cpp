#include "decision_bounds/daily_spend.hpp"

#include <stdexcept>
#include <utility>

#include "daily_spend_steps.hpp"
#include "decision_bounds/std_host.hpp"

namespace decision_bounds {

class DailySpend::Steps final : public internal::DailySpendSteps {
 public:
  Steps(double cap, Today today, Ledger ledger, Logger& logger, std::unique_ptr<Condition> changed)
      : DailySpendSteps(account_of_cap_, held_of_cap_, *changed),
        account_of_cap_{.cap = cap, .day = {}},
        today_(std::move(today)),
        ledger_(std::move(ledger)),
        logger_(logger),
        owned_(std::move(changed)) {
    if (!today_) throw std::invalid_argument("today must not be empty");
  }

  std::string today() override { return today_(); }
  bool has_ledger() const override { return static_cast<bool>(ledger_); }
  double ask_ledger(const std::string& day) override { return ledger_(day); }
  Logger& logger() override { return logger_; }

 private:
  internal::DailyAccount account_of_cap_ DECISION_BOUNDS_GUARDED_BY(changed_);
  internal::OwnHeld held_of_cap_ DECISION_BOUNDS_GUARDED_BY(changed_);
  Today today_;
  Ledger ledger_;
  Logger& logger_;
  std::unique_ptr<Condition> owned_;
};

DailySpend::DailySpend(double cap, Today today, Ledger ledger, Logger* logger,
                       std::unique_ptr<Condition> changed)
    : steps_(std::make_unique<Steps>(
          cap, std::move(today), std::move(ledger),
          logger != nullptr ? *logger : StdLogger::instance(),
          changed ? std::move(changed) : std::make_unique<StdCondition>())) {}

DailySpend::~DailySpend() = default;

Share DailySpend::admit(const CostBound& bound, std::optional<double> deadline, const Clock& clock,
                        const StopSignal& stopping) {
  if (!bound) throw std::invalid_argument("bound must not be empty");
  if (!stopping) throw std::invalid_argument("stopping must not be empty");
  if (deadline && !clock) throw std::invalid_argument("clock must not be empty with a deadline");
  const double held = steps_->admit(bound, deadline, clock, stopping);
  return Share(
      [steps = steps_.get(), held](const PaidReply* reply) { steps->give_back(held, reply); });
}

double DailySpend::spent() { return steps_->spent(); }
void DailySpend::charge(const PaidReply& reply) { steps_->charge(reply); }

}  // namespace decision_bounds
