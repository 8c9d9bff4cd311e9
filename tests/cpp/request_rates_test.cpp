#include "charges.hpp"
#include "fakes.hpp"

namespace decision_bounds::test {

TEST(ChargesTest, BoundARequestByTheDearestCallAndTheDearestByte) {
  internal::Charges charges;
  charges.learn(10, 0.01), charges.learn(100000, 0.05);
  for (const double charge : {-9.0, 0.0, 0.001, nan}) charges.learn(1000, charge);
  EXPECT_EQ(to_string(charges), "_Charges(per_byte=0.001, per_call=0.05)");
  EXPECT_EQ(charges.bound(0), 0.05);
  EXPECT_EQ(charges.bound(100000), 100.0);
  charges.learn(INT64_MIN, 0.5);
  EXPECT_EQ(charges, (internal::Charges{.per_byte = 0.5, .per_call = 0.5}));
}

TEST(RequestRatesTest, DoNotKnowAFeatureBeforeItsFirstReply) {
  RequestRates rates;
  EXPECT_EQ(rates.cost(1000, "a"), not_known);
  EXPECT_EQ(rates.tokens(1000), not_known);
  rates.learn(1000, "a", Reply(0.002, 500));
  EXPECT_EQ(rates.cost(1000, "b"), not_known);
  EXPECT_EQ(rates.tokens(4000), 2000.0);
  EXPECT_THROW(rates.learn(1000, "b", Reply(0.01, 999, "input_tokens")), Interrupt);
  EXPECT_EQ(rates.cost(1000, "b"), 0.01);
  EXPECT_EQ(rates.tokens(1000), 500.0);
}

}  // namespace decision_bounds::test
