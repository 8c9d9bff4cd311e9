#include "held.hpp"

#include "fakes.hpp"

namespace decision_bounds::test {

using internal::Held;

TEST(HeldTest, AnUnboundedShareRunsAlone) {
  for (const double unbounded : {not_known, -not_known}) {
    Held held;
    EXPECT_TRUE(held.admits(unbounded, 9, 10));
    for (int shares = 0; shares < 2; ++shares) held.take(unbounded);
    held.give_back(unbounded);
    EXPECT_FALSE(held.admits(0.5, 0, 10));
    held.give_back(unbounded);
    held.take(0.0);
    EXPECT_TRUE(held.admits(0.5, 0, 10));
    EXPECT_FALSE(held.admits(unbounded, 0, 10));
  }
}

TEST(HeldTest, NothingStaysOfSharesThatAreGivenBackAndNothingGoesBelow0) {
  for (const double share : {0.1, 0.0, -1.0, 1e308, nan, not_known, -not_known}) {
    SCOPED_TRACE(share);
    Held held;
    held.take(share);
    held.take(0.2);
    held.give_back(share);
    EXPECT_EQ(held.holders, 1);
    EXPECT_GE(held.amount, 0.0);
    held.give_back(0.2);
    EXPECT_EQ(held, Held()) << to_string(held);
    held.give_back(share);  // which nobody holds
    EXPECT_EQ(held, Held()) << to_string(held);
  }
  Held held{.holders = 2, .amount = 2.0};
  held.give_back(5.0);
  EXPECT_EQ(to_string(held), "_Held(holders=1, amount=0.0, unbounded=0)");
}

}  // namespace decision_bounds::test
