#include <memory>
#include <string>

#include "decision_bounds/decision_bounds.hpp"

using namespace decision_bounds;

#define AS_TEXT(major, minor, patch) #major "." #minor "." #patch
#define TEXT_OF(major, minor, patch) AS_TEXT(major, minor, patch)
static_assert(std::string_view(DECISION_BOUNDS_VERSION) == TEXT_OF(DECISION_BOUNDS_VERSION_MAJOR,
                                                                   DECISION_BOUNDS_VERSION_MINOR,
                                                                   DECISION_BOUNDS_VERSION_PATCH));

struct Reply final : PaidReply {
  bool cached() const override { return false; }
  std::int64_t input_tokens() const override { return 5; }
  double cost() const override { return 0.25; }
};

int main() {
  RunBudget budget(1, 10, never, std::make_unique<StdCondition>());
  const Reply reply;
  budget.hold(5.0).settle(&reply);
  if (budget.counts().input_tokens != 5) return 1;
  // Both are types that the library knows as well, and makes or throws: they must be the same.
  Logger& logger = StdLogger::instance();
  if (dynamic_cast<StdLogger*>(&logger) == nullptr) return 1;
  try {
    budget.reserve();
  } catch (const DecisionBudgetExceeded&) {
    return 0;
  }
  return 1;
}
