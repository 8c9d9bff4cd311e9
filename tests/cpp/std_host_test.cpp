#include <chrono>
#include <exception>

#include "fakes.hpp"

namespace decision_bounds::test {

TEST(StdConditionTest, WakesAllItsWaitersHoweverOftenTheyHoldTheLock) {
  for (const int threads : {2, 5}) {
    StdCondition changed;
    int here = 0;
    on_threads(threads, [&] {
      for (int depth = 0; depth < 2; ++depth) changed.lock();
      if (++here == threads) changed.notify_all();
      while (here != threads) changed.wait_for(not_known);
      changed.lock();  // at once, as it is this thread's
      for (int depth = 0; depth < 3; ++depth) changed.unlock();
    });
  }
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

}  // namespace decision_bounds::test
