#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

#include "fakes.hpp"

namespace decision_bounds::test {

struct RunBudgetTest : testing::Test {
  void SetUp() override { start({.max_calls = 9, .max_tokens = 100}); }
  void start(const RunCounts& counts) {
    changed = new FakeCondition;
    budget.emplace(counts, std::ref(stop), std::unique_ptr<Condition>(changed));
  }

  StopSignal stop = never;
  FakeCondition* changed = nullptr;  // the budget's
  std::optional<RunBudget> budget;
};

TEST_F(RunBudgetTest, RefusesACallThatFindsNoSlot) {
  start({.max_calls = 3, .max_tokens = 100, .calls = 1});
  Share first = budget->hold(9);
  budget->reserve(9);
  EXPECT_THROW(budget->reserve(), DecisionBudgetExceeded);
  first.settle(nullptr);
  EXPECT_NO_THROW(budget->reserve());
}

TEST_F(RunBudgetTest, RefusesACallOnceTheSettledOnesUsedUpTheTokens) {
  const Reply reply({.cost = 0.1, .tokens = 50});
  budget->hold(9).settle(&reply);
  EXPECT_FALSE(budget->exhausted());
  budget->charge(Reply({.cost = 0.2, .tokens = 50}));
  EXPECT_TRUE(budget->exhausted());
  EXPECT_EQ(message_of<DecisionBudgetExceeded>([&] { budget->reserve(); }),
            "decision budget exhausted: {'calls': 2, 'cache_hits': 0, 'input_tokens': 100, "
            "'cost_usd': 0.3, 'max_calls': 9, 'max_tokens': 100}");
}

TEST_F(RunBudgetTest, AStoppedPassReportsTheStopEvenWhenItIsSpent) {
  start({});
  stop = [] { return true; };
  EXPECT_EQ(message_of<DecisionStopped>([&] { budget->reserve(); }), "the pass was asked to stop");
}

TEST_F(RunBudgetTest, AWaitingCallPollsForAStop) {
  budget->reserve(not_known);
  changed->at_wait = [] {};
  stop = [this] { return changed->waits.size() == 2; };
  EXPECT_THROW(budget->reserve(), DecisionStopped);
  EXPECT_EQ(changed->waits, (std::vector<double>{0.1, 0.1}));
}

TEST_F(RunBudgetTest, ALastTokenIsRoomThoughDoublesDoNotTell) {
  start({.max_calls = 9, .max_tokens = INT64_MAX, .input_tokens = INT64_MAX - 1});
  EXPECT_NO_THROW(budget->reserve());
}

TEST_F(RunBudgetTest, ACacheHitEndsNoCall) {
  budget->reserve(not_known);
  budget->charge(Reply({.cost = 9.0, .tokens = 9, .cached = true}), not_known);
  EXPECT_THROW(budget->charge(Reply({.unreadable = "cached"}), 0.0), Interrupt);
  EXPECT_EQ(to_string(budget->counts()),
            "RunBudget(max_calls=9, max_tokens=100, calls=0, input_tokens=0, cost=0.0, "
            "cache_hits=1, in_flight=1)");
  EXPECT_EQ(changed->wakes, 0);
}

TEST_F(RunBudgetTest, KeepsWhatAReplyCountsWhileItIsRead) {
  budget->charge(UsingReply([this] { budget->charge(Reply({.cost = 0.25, .tokens = 2})); }));
  EXPECT_EQ(
      budget->counts(),
      (RunCounts{.max_calls = 9, .max_tokens = 100, .calls = 3, .input_tokens = 5, .cost = 1.5}));
}

TEST_F(RunBudgetTest, KeepsWhatItCountedBeforeAReplyFails) {
  for (const char* property : {"input_tokens", "cost"}) {
    const Reply reply({.cost = 0.5, .tokens = 7, .unreadable = property});
    EXPECT_THROW(budget->charge(reply), Interrupt);
  }
  EXPECT_EQ(budget->counts(),
            (RunCounts{.max_calls = 9, .max_tokens = 100, .calls = 2, .input_tokens = 7}));
}

TEST_F(RunBudgetTest, LetsTheErrorOfItsLockOut) {
  const std::function<void()> operations[] = {
      [this] { budget->release(); },
      [this] { budget->charge(Reply({.cached = true})); },
      [this] { return budget->exhausted(); },
      [this] { return budget->counts(); },
  };
  for (const auto& operation : operations) {
    changed->failing = "unlock";
    EXPECT_THROW(operation(), Interrupt);
  }
}

TEST_F(RunBudgetTest, CountsStayInRange) {
  constexpr std::int64_t most = INT64_MAX;
  start({most, most, most, most - 1, 0.0, most, 1});
  EXPECT_TRUE(budget->exhausted());
  budget->charge(Reply({.cached = true}));
  for (int replies = 0; replies < 2; ++replies) budget->charge(Reply({.tokens = 2}));
  EXPECT_EQ(budget->counts(), (RunCounts{most, most, most, most, 0.0, most, 0}));
}

TEST_F(RunBudgetTest, NeedsAStopSignal) {
  EXPECT_THROW(RunBudget(9, 100, nullptr), std::invalid_argument);
}

TEST_F(RunBudgetTest, LosesNothingThatWasHeldToAnError) {
  // Each fails once: a property of the reply, or an operation of the condition.
  for (const char* step : {"cached", "input_tokens", "cost", "notify_all", "unlock"}) {
    SCOPED_TRACE(step);
    SetUp();
    budget->reserve(not_known);
    changed->failing = "wait_for";
    EXPECT_THROW(budget->reserve(), Interrupt);
    changed->failing = step;
    EXPECT_THROW(budget->charge(Reply({.unreadable = step}), not_known), Interrupt);
    EXPECT_EQ(changed->depth, 0);
    EXPECT_EQ(changed->wakes, 1);
    changed->failing = "unlock";
    EXPECT_THROW(budget->reserve(not_known), Interrupt);
    budget->reserve(not_known);  // finds room
    EXPECT_EQ(budget->counts().in_flight, 1);
  }
}

}  // namespace decision_bounds::test
