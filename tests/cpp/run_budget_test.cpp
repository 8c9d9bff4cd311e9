#include "fakes.hpp"

namespace decision_bounds::test {

struct RunBudgetTest : testing::Test, Pass {};

TEST_F(RunBudgetTest, RefusesACallThatFindsNoSlot) {
  Pass pass({.max_calls = 3, .max_tokens = 100, .calls = 1});
  pass.changed->failing = "unlock";
  EXPECT_THROW(pass.budget.reserve(9), Interrupt);  // leaves its slot
  Share first = pass.budget.hold(9);
  pass.budget.reserve(9);
  pass.changed->failing = "unlock";  // an error that the refusal passes by
  EXPECT_THROW(pass.budget.reserve(), DecisionBudgetExceeded);
  first.settle(nullptr);
  EXPECT_NO_THROW(pass.budget.reserve());
}

TEST_F(RunBudgetTest, RefusesACallOnceTheSettledOnesUsedUpTheTokens) {
  const Reply reply({.cost = 0.1, .tokens = 5});
  budget.hold(9).settle(&reply);
  EXPECT_FALSE(budget.exhausted());
  budget.charge(Reply({.cost = 0.2, .tokens = 5}));
  EXPECT_THAT([&] { return budget.hold(0); },
              ThrowsMessage<DecisionBudgetExceeded>(
                  "decision budget exhausted: {'calls': 2, 'cache_hits': 0, 'input_tokens': 10, "
                  "'cost_usd': 0.3, 'max_calls': 9, 'max_tokens': 10}"));
  stop = [] { return true; };
  EXPECT_THAT([&] { return budget.hold(0); },
              ThrowsMessage<DecisionStopped>("the pass was asked to stop"));
}

TEST_F(RunBudgetTest, ACallEndsWithItsReleaseOrItsPaidReply) {
  const Reply unreadable({.unreadable = "cached"});
  budget.reserve(not_known);
  budget.release(not_known);
  budget.reserve(not_known);
  EXPECT_THROW(budget.charge(unreadable, not_known), Interrupt);
  EXPECT_THROW(budget.hold(0.0).settle(&unreadable), Interrupt);
  budget.reserve(not_known);
  const Reply cached({.cost = 9.0, .tokens = 9, .cached = true});
  for (int hits = 0; hits < 2; ++hits) budget.charge(cached, not_known);
  EXPECT_THROW(budget.charge(unreadable, 0.0), Interrupt);
  EXPECT_EQ(to_string(budget.counts()),
            "RunBudget(max_calls=9, max_tokens=10, calls=0, input_tokens=0, cost=0.0, "
            "cache_hits=2, in_flight=1)");
  EXPECT_EQ(changed->wakes, 3);
}

TEST_F(RunBudgetTest, KeepsWhatAReplyCountsWhileItIsReadAndBeforeItFails) {
  const auto charge = [this] { budget.charge(Reply({.cost = 0.25, .tokens = 2})); };
  budget.charge(Reply({.cost = 1.0, .tokens = 1, .while_read = charge}));
  for (const char* property : {"input_tokens", "cost"}) {
    const Reply reply({.cost = 8.0, .tokens = 9, .unreadable = property});
    changed->failing = "notify_all";  // nor is that error seen
    EXPECT_THROW(budget.charge(reply), Interrupt);
  }
  EXPECT_EQ(budget.counts(), (RunCounts{9, 10, 6, 16, 1.75}));
}

TEST_F(RunBudgetTest, CountsStayInRangeAndTellTheLastTokenWhereDoublesDoNot) {
  constexpr std::int64_t most = INT64_MAX;
  Pass last({.max_calls = 9, .max_tokens = most, .input_tokens = most - 1});
  EXPECT_NO_THROW(last.budget.reserve());
  Pass pass({most, most, most, most - 1, 0.0, most, 1});
  EXPECT_TRUE(pass.budget.exhausted());
  pass.budget.charge(Reply({.cached = true}));
  for (int replies = 0; replies < 2; ++replies) pass.budget.charge(Reply({.tokens = 2}));
  EXPECT_EQ(pass.budget.counts(), (RunCounts{most, most, most, most, 0.0, most, 0}));
}

TEST_F(RunBudgetTest, NeedsAStopSignal) {
  EXPECT_THROW(RunBudget(9, 100, nullptr), std::invalid_argument);
}

}  // namespace decision_bounds::test
