#include "held.hpp"

#include "fakes.hpp"

namespace decision_bounds::test {

using internal::Held;

TEST(HeldTest, AdmitsWhileAnyRoomIsLeft) {
  EXPECT_TRUE(Held().admits(5, 9, 10));
  EXPECT_FALSE(Held().admits(5, 10, 10));
  EXPECT_TRUE((Held{.holders = 1, .amount = 3}.admits(1, 6, 10)));
  EXPECT_FALSE((Held{.holders = 1, .amount = 3}.admits(1, 7, 10)));
}

TEST(HeldTest, AnUnboundedShareRunsAlone) {
  for (const double unbounded : {not_known, -not_known}) {
    Held held;
    EXPECT_TRUE(held.admits(unbounded, 9, 10));
    held.take(unbounded);
    EXPECT_FALSE(held.admits(0.5, 0, 10));
    held.give_back(unbounded);
    held.take(0.0);
    EXPECT_TRUE(held.admits(0.5, 0, 10));
    EXPECT_FALSE(held.admits(unbounded, 0, 10));
  }
}

TEST(HeldTest, NothingStaysOfSharesThatAreGivenBack) {
  for (const double share : {0.1, 0.0, -1.0, 1e308, nan, not_known, -not_known}) {
    Held held;
    held.take(share);
    held.take(0.2);
    held.give_back(share);
    EXPECT_EQ(held.holders, 1);
    held.give_back(0.2);
    EXPECT_EQ(held, Held()) << to_string(held) << " after " << share;
  }
}

TEST(HeldTest, StaysInRange) {
  Held held;
  held.give_back(not_known);
  EXPECT_EQ(held, Held());
  for (const double amount : {2.0, nan}) {
    held = {.holders = 2, .amount = amount};
    held.give_back(5);
    EXPECT_EQ(to_string(held), "_Held(holders=1, amount=0.0, unbounded=0)");
  }
}

}  // namespace decision_bounds::test
