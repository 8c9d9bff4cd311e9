#include "fakes.hpp"

namespace decision_bounds::test {

struct RunBudgetTest : testing::Test {
  void start(const RunCounts& counts) {
    std::unique_ptr<Condition> owned(changed = new FakeCondition);
    budget.emplace(counts, std::ref(stop), std::move(owned));
  }
  StopSignal stop = never;
  FakeCondition* changed = nullptr;
  std::optional<RunBudget> budget;
};

TEST_F(RunBudgetTest, RefusesWhatItsSlotsOrSettledTokensLeaveNoRoomFor) {
  start({.max_calls = 3, .max_tokens = 2000, .calls = 1});
  Share first = budget->hold(9), second = budget->hold(9);
  EXPECT_THROW(budget->reserve(), DecisionBudgetExceeded);
  const Reply reply(0.0021, 1000);
  first.settle(&reply), second.settle(nullptr);
  budget->hold(9).settle(&reply);
  EXPECT_EQ(message_of<DecisionBudgetExceeded>([&] { budget->reserve(); }),
            "decision budget exhausted: {'calls': 3, 'cache_hits': 0, 'input_tokens': 2000, "
            "'cost_usd': 0.0042, 'max_calls': 3, 'max_tokens': 2000}");
  stop = [] { return true; };
  EXPECT_EQ(message_of<DecisionStopped>([&] { budget->reserve(); }), "the pass was asked to stop");
}

TEST_F(RunBudgetTest, AWaitingCallPollsForAStop) {
  start({.max_calls = 9, .max_tokens = 100});
  budget->reserve(not_known);
  stop = [this] { return changed->waits.size() == 2; }, changed->at_wait = [] {};
  EXPECT_THROW(budget->reserve(), DecisionStopped);
  EXPECT_EQ(changed->waits, (std::vector<double>{0.1, 0.1}));
}

TEST_F(RunBudgetTest, CountsWhatEndsEachCallAndStaysInRange) {
  start({.max_calls = 9, .max_tokens = INT64_MAX, .cost = 0.1});
  budget->release();
  Share held = budget->hold(1);
  budget->charge(Reply(9, -9), 1);  // from the cache: the slot and the token stay held
  EXPECT_THROW(budget->charge(Reply(0, 0, "cached")), Interrupt);  // no call's reply ends none
  EXPECT_EQ(std::pair(changed->wakes, budget->counts().in_flight), std::pair(1, std::int64_t{1}));
  const Reply reply(0.2, INT64_MAX - 1);
  held.settle(&reply);
  budget->hold(1).settle(&reply);  // a token is left, though doubles do not tell
  EXPECT_EQ(to_string(budget->counts()),
            "RunBudget(max_calls=9, max_tokens=9223372036854775807, calls=2, "
            "input_tokens=9223372036854775807, cost=0.5, cache_hits=1, in_flight=0)");
  EXPECT_TRUE(budget->exhausted());
}

TEST_F(RunBudgetTest, LosesNothingThatWasHeldToAnError) {
  for (const char* step : {"cached", "input_tokens", "cost", "notify_all", "unlock"}) {
    start({.max_calls = 9, .max_tokens = 100});
    budget->reserve(not_known);
    changed->fails = "wait_for";
    EXPECT_THROW(budget->reserve(), Interrupt);
    changed->fails = step;
    EXPECT_THROW(budget->charge(Reply(0, 1, step), not_known), Interrupt);
    EXPECT_EQ(std::pair(changed->depth, changed->wakes), std::pair(0, 1)) << step;
    changed->fails = "unlock";
    EXPECT_THROW(budget->reserve(not_known), Interrupt);
    budget->reserve(not_known);
    EXPECT_EQ(budget->counts().in_flight, 1) << step;
  }
}

}  // namespace decision_bounds::test
