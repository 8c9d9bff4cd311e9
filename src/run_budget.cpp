#include "decision_bounds/run_budget.hpp"

#include <stdexcept>
#include <utility>

#include "decision_bounds/std_host.hpp"
#include "numbers.hpp"
#include "run_budget_steps.hpp"

namespace decision_bounds {

std::string to_string(const RunCounts& counts, std::string_view name) {
  return std::string(name) + "(max_calls=" + std::to_string(counts.max_calls) +
         ", max_tokens=" + std::to_string(counts.max_tokens) +
         ", calls=" + std::to_string(counts.calls) +
         ", input_tokens=" + std::to_string(counts.input_tokens) +
         ", cost=" + internal::shortest(counts.cost) +
         ", cache_hits=" + std::to_string(counts.cache_hits) +
         ", in_flight=" + std::to_string(counts.in_flight) + ")";
}

RunSummary summary_of(const RunCounts& counts) {
  return {{{"calls", counts.calls},
           {"cache_hits", counts.cache_hits},
           {"input_tokens", counts.input_tokens},
           {"cost_usd", internal::micro_rounded(counts.cost)},
           {"max_calls", counts.max_calls},
           {"max_tokens", counts.max_tokens}}};
}

std::string to_string(const RunSummary& summary) {
  std::string text = "{";
  for (const auto& [key, value] : summary) {
    if (text.size() > 1) text += ", ";
    text.append("'").append(key).append("': ");
    const auto* count = std::get_if<std::int64_t>(&value);
    text += count != nullptr ? std::to_string(*count) : internal::shortest(std::get<double>(value));
  }
  return text + "}";
}

class RunBudget::Steps final : public internal::RunBudgetSteps {
 public:
  Steps(const RunCounts& counts, StopSignal should_stop, std::unique_ptr<Condition> changed)
      : RunBudgetSteps(counts_of_pass_, held_of_pass_, *changed),
        counts_of_pass_(counts),
        should_stop_(std::move(should_stop)),
        owned_(std::move(changed)) {
    if (!should_stop_) throw std::invalid_argument("should_stop must not be empty");
  }

  bool stopping() override { return should_stop_(); }

  RunCounts counts() {
    return locked([this]() DECISION_BOUNDS_NO_ANALYSIS { return counts_of_pass_; });
  }

 private:
  RunCounts counts_of_pass_ DECISION_BOUNDS_GUARDED_BY(changed_);
  internal::OwnHeld held_of_pass_ DECISION_BOUNDS_GUARDED_BY(changed_);
  StopSignal should_stop_;
  std::unique_ptr<Condition> owned_;
};

RunBudget::RunBudget(std::int64_t max_calls, std::int64_t max_tokens, StopSignal should_stop,
                     std::unique_ptr<Condition> changed)
    : RunBudget(RunCounts{.max_calls = max_calls, .max_tokens = max_tokens}, std::move(should_stop),
                std::move(changed)) {}

RunBudget::RunBudget(const RunCounts& counts, StopSignal should_stop,
                     std::unique_ptr<Condition> changed)
    : steps_(std::make_unique<Steps>(
          counts, std::move(should_stop),
          changed ? std::move(changed) : std::make_unique<StdCondition>())) {}

RunBudget::~RunBudget() = default;

Share RunBudget::hold(double tokens) {
  reserve(tokens);
  return Share(
      [steps = steps_.get(), tokens](const PaidReply* reply) { steps->give_back(tokens, reply); });
}

void RunBudget::reserve(double tokens) { steps_->reserve(tokens); }
void RunBudget::release(double tokens) { steps_->release(tokens); }
void RunBudget::charge(const PaidReply& reply, double tokens) { steps_->charge(reply, tokens); }
void RunBudget::charge(const PaidReply& reply) { steps_->charge(reply, std::nullopt); }
bool RunBudget::stopping() { return steps_->stopping(); }
bool RunBudget::exhausted() { return steps_->exhausted(); }
RunSummary RunBudget::summary() { return summary_of(counts()); }
RunCounts RunBudget::counts() { return steps_->counts(); }

}  // namespace decision_bounds
