#include <atomic>
#include <thread>
#include <utility>

#include "fakes.hpp"

namespace decision_bounds::test {

TEST(StressTest, OneThreadAtATimeHoldsALockBeforeAndAfterAWait) {
  StdCondition changed;
  std::atomic<int> inside = 0;
  on_threads(4, [&] {
    for (int i = 0; i < 30; ++i) {
      changed.lock();
      changed.lock();
      for (int depth = 2; depth > 0; --depth) {
        EXPECT_EQ(++inside, 1);
        std::this_thread::yield();  // lets in whoever can come in
        --inside;
        changed.wait_for(1e-6);
        changed.unlock();
      }
    }
  });
}

// Each call that is paid for uses 4 tokens and costs half a dollar.
TEST(StressTest, ManyThreadsFillAPassOrADayExactlyAndGiveAllBack) {
  constexpr long plenty = 1000000000;
  for (const auto& [max_tokens, cap] : {std::pair(4000L, 1e9), std::pair(plenty, 500.0)}) {
    CountingLogger logger;
    RunBudget budget(plenty, max_tokens);
    DailySpend spend(cap, one_day, nullptr, &logger);
    RequestRates rates;
    std::atomic<int> in_flight = 0;
    const auto call = [&](double tokens, bool paid) {
      const bool alone = tokens == not_known;
      const auto cost = [&] { return alone ? not_known : rates.cost(4, "audit"); };
      Share of_pass = budget.hold(tokens);
      Share of_day = spend.admit(cost, {}, nullptr, never);
      EXPECT_TRUE(++in_flight == 1 || !alone);
      if (alone) std::this_thread::yield();
      EXPECT_TRUE(--in_flight == 0 || !alone);
      if (!paid) return;
      const Reply reply({.cost = 0.5, .tokens = 4});
      of_pass.settle(&reply);
      of_day.settle(&reply);
      rates.learn(4, "audit", reply);
    };
    const auto calls = [&] {
      for (int i = 0;; ++i) call(i % 50 == 0 ? not_known : rates.tokens(4), i % 3 != 0);
    };
    on_threads(8, [&] { EXPECT_THROW(calls(), DecisionBudgetExceeded); });
    EXPECT_EQ(budget.counts().calls, 1000);
    EXPECT_EQ(logger.warnings, cap == 500.0 ? 1 : 0);
    EXPECT_EQ(spend.spent(), 500.0);
    if (max_tokens == plenty) budget.hold(not_known).settle(nullptr);  // finds room at once
    if (cap != 500.0) spend.admit([] { return not_known; }, {}, nullptr, never).settle(nullptr);
  }
}

}  // namespace decision_bounds::test
