#include "fakes.hpp"

namespace decision_bounds::test {

TEST(StdConditionTest, LetsGoEntirelyForAWaitAndWakesAll) {
  for (const int waiters : {1, 4}) {
    StdCondition changed;
    int waiting = 0, woken = 0;
    const auto wait = [&] {
      for (int depth = 0; depth < 3; ++depth) changed.lock();
      ++waiting;
      while (waiting != 0) changed.wait_for(not_known);
      changed.lock(), ++woken;
      for (int depth = 0; depth < 4; ++depth) changed.unlock();
    };
    std::vector<std::jthread> threads;
    for (int i = 0; i < waiters; ++i) threads.emplace_back(wait);
    for (bool all = false; !all; changed.unlock()) {
      changed.lock();
      if ((all = waiting == waiters)) waiting = 0, changed.notify_all();
    }
    threads.clear();
    for (int i = 0; i < 2; ++i) std::jthread([&] { changed.lock(), changed.unlock(); }).join();
    changed.lock();
    EXPECT_EQ(woken, waiters);
    for (const double seconds : {0.001, -1.0, nan}) changed.wait_for(seconds);
    changed.unlock();
  }
}

TEST(StressTest, AdmitsExactlyWhatFillsTheBoundsAndGetsAllBack) {
  QuietLogger quiet;
  for (const auto& [tokens, cap] : {std::pair(4000, 1e9), std::pair(1000000000, 500.0)}) {
    RunBudget budget(1000000000, tokens);
    DailySpend spend(cap, one_day, nullptr, &quiet);
    std::atomic<int> in_flight = 0;
    const auto call = [&](double amount, bool paid) {
      Share of_pass = budget.hold(amount);
      Share of_day = spend.admit([&] { return amount / 8; }, {}, nullptr, never);
      EXPECT_TRUE(in_flight++ == 0 || amount == 4.0);
      const Reply reply(0.5, 4);
      if (--in_flight, paid) of_pass.settle(&reply), of_day.settle(&reply);
    };
    const auto calls = [&] {
      for (int i = 0;; ++i) call(i % 50 == 0 ? not_known : 4.0, i % 3 != 0);
    };
    const auto work = [&] { message_of<DecisionBudgetExceeded>(calls); };
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i) threads.emplace_back(work);
    threads.clear();
    EXPECT_EQ(std::pair(spend.spent(), budget.counts().in_flight), std::pair(500.0, 0L));
    if (cap > 500.0) spend.admit([] { return not_known; }, {}, nullptr, never).settle(nullptr);
    if (cap == 500.0) budget.hold(not_known).settle(nullptr);
  }
}

}  // namespace decision_bounds::test
