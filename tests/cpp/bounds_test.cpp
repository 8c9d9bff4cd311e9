#include "fakes.hpp"

namespace decision_bounds::test {

TYPED_TEST(BoundTest, ACallWaitsForRoomThatSharesReturnAndPollsForAStop) {
  TypeParam bound;
  Share first = bound.admit(5.0);
  const Share second = bound.admit(2.5);
  bound.changed->failing = "today";
  first.settle(nullptr);  // asks for no date
  bound.changed->failing = {};
  const Share third = bound.admit(5.0);
  const Share fourth = bound.admit(2.5);  // the last that finds room
  bound.changed->at_wait = [] {};
  bound.stop = [&] { return bound.changed->waits.size() == 2; };
  EXPECT_THAT([&] { return bound.admit(0.0); },
              ThrowsMessage<DecisionStopped>("the pass was asked to stop"));
  EXPECT_EQ(bound.changed->waits, (std::vector<double>{0.1, 0.1}));
}

TYPED_TEST(BoundTest, LosesNothingThatWasHeldToAnError) {
  // Each fails once: a property of the reply, a function of the host, or the condition.
  for (const char* step : TypeParam::may_fail) {
    SCOPED_TRACE(step);
    TypeParam bound;
    Share share = bound.admit(not_known);
    bound.changed->failing = "wait_for";
    EXPECT_THROW(static_cast<void>(bound.admit(0.0)), Interrupt);
    bound.changed->failing = step;
    const Reply reply({.unreadable = step});
    EXPECT_THROW(share.settle(&reply), Interrupt);
    EXPECT_EQ(bound.changed->depth, 0);
    EXPECT_EQ(bound.changed->wakes, 1);
    bound.changed->failing = "unlock";
    EXPECT_THROW(static_cast<void>(bound.admit(not_known)), Interrupt);
    EXPECT_NO_THROW(static_cast<void>(bound.admit(not_known))) << "finds no room";
  }
}

struct LockThatFailsToOpen final : Lock {
  void lock() override {}
  void unlock() override { throw Interrupt(); }
};

TEST(LockErrorTest, ComesOutOfEachOperation) {
  Pass pass;
  Day day;
  RequestRates rates(std::make_unique<LockThatFailsToOpen>());
  const std::function<void()> operations[] = {
      [&] { pass.budget.release(); },
      [&] { pass.budget.charge(Reply({.cached = true})); },
      [&] { return pass.budget.counts(); },
      [&] { return day.spend.spent(); },
      [&] { day.spend.charge(Reply()); },
      [&] { rates.learn(1000, "audit", Reply()); },
      [&] { return rates.cost(1000, "audit"); },
      [&] { return rates.tokens(1000); },
  };
  for (const auto& operation : operations) {
    pass.changed->failing = day.changed->failing = "unlock";
    EXPECT_THROW(operation(), Interrupt) << "operation " << &operation - operations;
  }
}

}  // namespace decision_bounds::test
