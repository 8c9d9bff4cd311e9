#include "charges.hpp"
#include "fakes.hpp"

namespace decision_bounds::test {

using internal::Charges;

TEST(ChargesTest, BoundARequestByTheDearestCallAndTheDearestByte) {
  Charges charges;
  charges.learn(10, 0.01);
  charges.learn(100000, 0.05);
  for (const double no_dearer : {-9.0, 0.0, 0.05, nan}) charges.learn(1000, no_dearer);
  EXPECT_EQ(to_string(charges), "_Charges(per_byte=0.001, per_call=0.05)");
  EXPECT_EQ(charges.bound(0), 0.05);
  EXPECT_EQ(charges.bound(100000), 100.0);
  charges.learn(INT64_MIN, 0.5);  // as from a size of 1
  EXPECT_EQ(charges, (Charges{.per_byte = 0.5, .per_call = 0.5}));
}

TEST(RequestRatesTest, KnowAFeatureByItsFirstReplyAndKeepWhatTheyLearnedBeforeOneFails) {
  RequestRates rates;
  EXPECT_EQ(rates.cost(1000, "audit-1"), not_known);
  EXPECT_EQ(rates.tokens(1000), not_known);
  const Reply reply({.cost = 0.002, .tokens = 999, .cached = true, .unreadable = "input_tokens"});
  EXPECT_THROW(rates.learn(1000, "audit-1", reply), Interrupt);
  EXPECT_EQ(rates.cost(1000, "audit-1"), 0.002);
  EXPECT_EQ(rates.cost(1000, "audit-2"), not_known);
  EXPECT_EQ(rates.tokens(1000), 0.0);
  rates.learn(1000, "audit-1", Reply({.tokens = 500}));
  EXPECT_EQ(rates.tokens(4000), 2000.0);
}

}  // namespace decision_bounds::test
