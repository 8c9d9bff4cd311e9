#include <chrono>

#include "fakes.hpp"

namespace decision_bounds::test {

TEST(StdConditionTest, OneThreadHoldsItHoweverOftenAndAWakeUpReachesAllThatWait) {
  constexpr int threads = 5;
  StdCondition changed;
  int arrived = 0;
  std::atomic<int> inside = 0;
  on_threads(threads, [&] {
    for (int all = threads; all <= 30 * threads; all += threads) {
      for (int depth = 0; depth < 2; ++depth) changed.lock();
      if (++arrived == all) changed.notify_all();
      while (arrived < all) changed.wait_for(not_known);
      changed.lock();  // at once, as it is this thread's
      for (int depth = 0; depth < 3; ++depth) {
        EXPECT_EQ(++inside, 1);
        std::this_thread::yield();  // lets in whoever can come in
        --inside;
        changed.unlock();
      }
    }
  });
}

TEST(StdConditionTest, AWaitThatNothingEndsLastsItsTime) {
  StdCondition changed;
  changed.lock();
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 5; ++i) changed.wait_for(0.002);  // a few may end early
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(2));
  for (const double no_time : {-1.0, nan}) changed.wait_for(no_time);
  changed.unlock();
}

TEST(StdLoggerTest, NamesEvenAnErrorOfUnknownType) {
  testing::internal::CaptureStderr();
  StdLogger::instance().warning("no ledger", {}, std::make_exception_ptr(Interrupt()));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "warning: no ledger: an error of unknown type\n");
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
    const Reply reply({.cost = 0.5, .tokens = 4});
    const auto call = [&](bool alone, bool paid) {
      const auto cost = [&] { return alone ? not_known : rates.cost(4, "audit"); };
      Share of_pass = budget.hold(alone ? not_known : rates.tokens(4));
      Share of_day = spend.admit(cost, {}, nullptr, never);
      EXPECT_TRUE(++in_flight == 1 || !alone);
      if (alone) std::this_thread::yield();
      EXPECT_TRUE(--in_flight == 0 || !alone);
      if (!paid) return;
      of_pass.settle(&reply);
      of_day.settle(&reply);
      rates.learn(4, "audit", reply);
    };
    on_threads(8, [&] {
      EXPECT_THROW(for (int i = 0;; ++i) call(i % 50 == 0, i % 3 != 0), DecisionBudgetExceeded);
    });
    EXPECT_EQ(budget.counts(), (RunCounts{plenty, max_tokens, 1000, 4000, 500.0}));
    EXPECT_EQ(spend.spent(), 500.0);
    EXPECT_EQ(logger.warnings, cap == 500.0 ? 1 : 0);
  }
}

}  // namespace decision_bounds::test
