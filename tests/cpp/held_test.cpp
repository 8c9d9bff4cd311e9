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

TEST(HeldTest, AnUnboundedShareRunsAloneAndEveryShareLeavesNothingBehind) {
  for (const double share : {0.1, 0.0, -1.0, 1e308, nan, not_known, -not_known}) {
    for (const double other : {not_known, -not_known, 0.2}) {
      Held held;
      EXPECT_TRUE(held.admits(share, 9, 10));
      held.take(share);
      EXPECT_EQ(held.admits(other, 0, 10), other == 0.2 && std::abs(share) < 10) << share << other;
      held.take(other), held.give_back(share);
      EXPECT_EQ(held.holders, 1);
      held.give_back(other), held.give_back(share);
      EXPECT_EQ(held, Held()) << to_string(held);
    }
  }
  Held held{.holders = 2, .amount = 2};
  held.give_back(5);
  EXPECT_EQ(to_string(held), "_Held(holders=1, amount=0.0, unbounded=0)");
}

}  // namespace decision_bounds::test
