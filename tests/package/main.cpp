#include "decision_bounds/decision_bounds.hpp"

namespace {

class Reply final : public decision_bounds::PaidReply {
 public:
  bool cached() const override { return false; }
  std::int64_t input_tokens() const override { return 5; }
  double cost() const override { return 0.25; }
};

}  // namespace

int main() {
  decision_bounds::RunBudget budget(1, 10);
  const Reply reply;
  budget.hold(5.0).settle(&reply);
  return budget.counts().input_tokens == 5 && budget.exhausted() ? 0 : 1;
}
