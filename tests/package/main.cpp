#include <memory>
#include <string>

#include "decision_bounds/decision_bounds.hpp"

namespace {

#define AS_TEXT(major, minor, patch) #major "." #minor "." #patch
#define TEXT_OF(major, minor, patch) AS_TEXT(major, minor, patch)
static_assert(std::string_view(DECISION_BOUNDS_VERSION) == TEXT_OF(DECISION_BOUNDS_VERSION_MAJOR,
                                                                   DECISION_BOUNDS_VERSION_MINOR,
                                                                   DECISION_BOUNDS_VERSION_PATCH));

class Reply final : public decision_bounds::PaidReply {
 public:
  bool cached() const override { return false; }
  std::int64_t input_tokens() const override { return 5; }
  double cost() const override { return 0.25; }
};

// Both are types that the library knows as well, and throws or makes: they must be the same.
bool refuses_another(decision_bounds::RunBudget& budget) {
  try {
    budget.reserve();
  } catch (const decision_bounds::DecisionError& error) {
    return dynamic_cast<const decision_bounds::DecisionBudgetExceeded*>(&error) != nullptr;
  }
  return false;
}

bool logs_to_the_standard_logger() {
  decision_bounds::Logger& logger = decision_bounds::StdLogger::instance();
  return dynamic_cast<decision_bounds::StdLogger*>(&logger) != nullptr;
}

}  // namespace

int main() {
  decision_bounds::RunBudget budget(1, 10, decision_bounds::never,
                                    std::make_unique<decision_bounds::StdCondition>());
  const Reply reply;
  budget.hold(5.0).settle(&reply);
  return budget.counts().input_tokens == 5 && refuses_another(budget) &&
                 logs_to_the_standard_logger()
             ? 0
             : 1;
}
