#include "fakes.hpp"

namespace decision_bounds::test {

constexpr double past = 0.0;
constexpr const char* next_day = "2024-05-02";

/// Of the cap 9 dollars are spent when a day begins.
struct DailySpendTest : testing::Test, Day {
  DailySpendTest() : Day(nullptr) {
    ledger = [](const std::string&) { return 9.0; };
  }
  void call(double bound, std::optional<double> deadline = {}) {
    admit(bound, deadline).settle(nullptr);
  }
};

TEST_F(DailySpendTest, BeginsNoDayWhoseLedgerIsInterruptedAndAt0OneWhoseLedgerFails) {
  spend.charge(Reply({.cost = 0.5, .cached = true}));
  EXPECT_EQ(changed->wakes, 1);
  ledger = [](const std::string&) -> double { throw Interrupt(); };
  date = next_day;
  EXPECT_THROW(spend.charge(Reply()), Interrupt);
  date = one_day();
  EXPECT_EQ(spend.spent(), 9.5);
  ledger = [](const std::string&) -> double { throw std::out_of_range("no\nfile"); };
  date = next_day;
  testing::internal::CaptureStderr();
  for (int readings = 0; readings < 2; ++readings) EXPECT_EQ(spend.spent(), 0.0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "warning: Could not read what the decision calls of 2024-05-02 cost; the daily cap "
            "counts from 0: no file\n");
}

TEST_F(DailySpendTest, RefusesOnceTheSettledCallsCostTheCapAndAsksItsLedgerAndWarnsOnceADay) {
  std::string asked;
  ledger = [&](const std::string& since) {
    asked += since + " ";
    return 10.00421;
  };
  stop = [] { return true; };
  const std::string reached =
      "he daily decision cost cap is reached: $10.0042 of $10.00 spent today (UTC)";
  testing::internal::CaptureStderr();
  for (const char* today : {"2024-05-01", "2024-05-01", "2024-05-02", "2024-04-30"}) {
    date = today;
    EXPECT_THAT([&] { call(0.0, past); }, ThrowsMessage<DecisionBudgetExceeded>("t" + reached));
  }
  const std::string warning =
      "warning: T" + reached + "; paid calls resume tomorrow, cached answers are still used\n";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), warning + warning + warning);
  EXPECT_EQ(asked, "2024-05-01 2024-05-02 2024-04-30 ");
}

TEST_F(DailySpendTest, RefusesASpendThatIsNoNumberAndWarnsOnceTheLockIsFree) {
  spend.charge(Reply({.cost = nan}));
  changed->failing = "unlock";
  testing::internal::CaptureStderr();
  EXPECT_THROW(call(0.0), Interrupt);  // before it would warn
  EXPECT_THROW(call(0.0), DecisionBudgetExceeded);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "was not the day's first refusal";
}

TEST_F(DailySpendTest, OnlyAWaitingCallLooksAtItsStopAndThenAtItsDeadlineWhichEndsItsWait) {
  clock = []() -> double { throw Interrupt(); };
  stop = [] { return true; };
  const Share alone = admit(not_known, past);
  EXPECT_THROW(call(0.0, past), DecisionStopped);
  stop = never;
  EXPECT_THROW(call(0.0, past), Interrupt);
  clock = [] { return 100.0; };
  for (const auto& [left, wait] : {std::pair(0.0625, 0.0625), {5.0, 0.1}, {nan, 0.1}}) {
    changed->failing = "wait_for";
    EXPECT_THROW(call(0.0, 100.0 + left), Interrupt);
    EXPECT_EQ(changed->waits.back(), wait) << "with " << left << " s left";
  }
  for (const double left : {0.0, -1.0, -not_known}) {
    EXPECT_THAT([&] { call(0.0, 100.0 + left); },
                ThrowsMessage<DecisionTimeout>(
                    "the decision call ran out of its deadline while the calls in flight held the "
                    "rest of the daily cost cap"));
  }
}

TEST_F(DailySpendTest, AWaitingCallIsTestedByItsBoundAndTheDayOfThatMoment) {
  const Share old = admit(1.0);
  double bound = not_known;
  changed->at_wait = [&] {
    bound = 0.5;
    date = next_day;
    ledger = [](const std::string&) { return 2.0; };
    changed->failing = "wait_for";  // the next one
  };
  Share second = spend.admit([&] { return bound; }, {}, nullptr, never);
  EXPECT_NO_THROW(call(0.25, past)) << "the second is unbounded";
  second.settle(nullptr);
  EXPECT_THROW(call(not_known, past), DecisionTimeout) << "the first has gone with its day";
}

TEST_F(DailySpendTest, CountsAReplyOnTheDayOnWhichItIsReadBesideWhatItCountsMeanwhile) {
  Share old = admit(1.0);
  const Reply reply({.cost = 0.25, .while_read = [this] {
                       spend.charge(Reply({.cost = 0.5}));
                       date = one_day();
                     }});
  date = next_day;
  old.settle(&reply);
  date = next_day;
  EXPECT_EQ(spend.spent(), 9.75);
  spend.charge(reply);
  date = next_day;
  EXPECT_EQ(spend.spent(), 10.5);
}

TEST_F(DailySpendTest, NeedsItsFunctionsAndHoldsNothingWithoutThem) {
  EXPECT_THROW(DailySpend(10.0, nullptr, nullptr), std::invalid_argument);
  const auto bound = [] { return not_known; };
  EXPECT_THROW(spend.admit(nullptr, {}, clock, never).settle(nullptr), std::invalid_argument);
  EXPECT_THROW(spend.admit(bound, {}, clock, nullptr).settle(nullptr), std::invalid_argument);
  EXPECT_THROW(spend.admit(bound, 200.0, nullptr, never).settle(nullptr), std::invalid_argument);
  EXPECT_EQ(changed->locks, 0);
}

}  // namespace decision_bounds::test
