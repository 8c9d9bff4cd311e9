#include "decision_bounds/run_budget.hpp"

#include <stdexcept>
#include <utility>

#include "decision_bounds/std_host.hpp"
#include "run_budget_rules.hpp"

namespace decision_bounds {

struct RunBudget::State {
  /// The budget's own part in its rules: the stop signal.
  class Rules final : public internal::RunBudgetRules {
   public:
    explicit Rules(State& state)
        : RunBudgetRules(state.counts, state.held, *state.changed), state_(state) {}

    bool stopping() override { return state_.should_stop(); }

   private:
    State& state_;
  };

  State(const RunCounts& counts_so_far, StopSignal signal, std::unique_ptr<Condition> condition)
      : counts(counts_so_far), should_stop(std::move(signal)), changed(std::move(condition)) {}

  RunCounts counts;  // like `held` guarded by the lock of `changed`
  internal::OwnHeld held;
  StopSignal should_stop;
  std::unique_ptr<Condition> changed;
  Rules rules{*this};
};

RunBudget::RunBudget(std::int64_t max_calls, std::int64_t max_tokens, StopSignal should_stop,
                     std::unique_ptr<Condition> changed)
    : RunBudget(RunCounts{.max_calls = max_calls, .max_tokens = max_tokens}, std::move(should_stop),
                std::move(changed)) {}

RunBudget::RunBudget(const RunCounts& counts, StopSignal should_stop,
                     std::unique_ptr<Condition> changed) {
  if (!should_stop) throw std::invalid_argument("should_stop must not be empty");
  if (!changed) changed = std::make_unique<StdCondition>();
  state_ = std::make_unique<State>(counts, std::move(should_stop), std::move(changed));
}

RunBudget::~RunBudget() = default;

Share RunBudget::hold(double tokens) {
  reserve(tokens);
  return Share([rules = &state_->rules, tokens](const PaidReply* reply) {
    rules->give_back(tokens, reply);
  });
}

void RunBudget::reserve(double tokens) { state_->rules.reserve(tokens); }
void RunBudget::release(double tokens) { state_->rules.release(tokens); }
void RunBudget::charge(const PaidReply& reply, double tokens) {
  state_->rules.charge(reply, tokens);
}
bool RunBudget::stopping() { return state_->rules.stopping(); }
bool RunBudget::exhausted() { return state_->rules.exhausted(); }
RunSummary RunBudget::summary() { return summary_of(counts()); }
RunCounts RunBudget::counts() {
  return state_->rules.locked([this] { return state_->counts; });
}

}  // namespace decision_bounds
