#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "fakes.hpp"

namespace decision_bounds::test {

bool always() { return true; }

/// A cap of 10 dollars, of which 9 are spent when a day begins. The clock shows 100.
struct DailySpendTest : testing::Test {
  static constexpr double past = 0.0;

  Share admit(double bound, std::optional<double> deadline = {}, const StopSignal& stop = never) {
    return spend.admit([=] { return bound; }, deadline, clock, stop);
  }

  std::string day = one_day();  // empty: asking for it fails
  Ledger ledger = [](const std::string&) { return 9.0; };
  Clock clock = [] { return 100.0; };
  FakeCondition* changed = new FakeCondition;  // the account's
  DailySpend spend{10.0, [this] { return day.empty() ? throw Interrupt() : day; },
                   [this](const std::string& since) { return ledger(since); }, nullptr,
                   std::unique_ptr<Condition>(changed)};
};

TEST_F(DailySpendTest, AsksTheLedgerOnceForEachDay) {
  std::string asked;
  ledger = [&](const std::string& since) {
    asked += since + " ";
    return 9.0;
  };
  for (const char* date : {"2024-05-01", "2024-05-01", "2024-05-02", "2024-04-30"}) {
    day = date;
    EXPECT_EQ(spend.spent(), 9.0);
  }
  EXPECT_EQ(asked, "2024-05-01 2024-05-02 2024-04-30 ");
}

TEST_F(DailySpendTest, DoesNotBeginADayWhoseLedgerIsInterrupted) {
  spend.charge(Reply({.cost = 0.5, .cached = true}));
  EXPECT_EQ(changed->wakes, 1);
  day = "2024-05-02";
  ledger = [](const std::string&) -> double { throw Interrupt(); };
  EXPECT_THROW(spend.charge(Reply()), Interrupt);
  day = "2024-05-01";
  EXPECT_EQ(spend.spent(), 9.5);
}

TEST_F(DailySpendTest, BeginsADayAt0WithAWarningWhenItsLedgerFails) {
  ledger = [](const std::string&) -> double { throw std::out_of_range("no\nfile"); };
  testing::internal::CaptureStderr();
  EXPECT_EQ(spend.spent(), 0.0);
  EXPECT_EQ(spend.spent(), 0.0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "warning: Could not read what the decision calls of 2024-05-01 cost; the daily cap "
            "counts from 0: no file\n");
}

TEST_F(DailySpendTest, RefusesOnceTheSettledCallsCostTheCapAndWarnsOnceADay) {
  ledger = [](const std::string&) { return 10.00421; };
  testing::internal::CaptureStderr();
  for (const char* date : {"2024-05-01", "2024-05-01", "2024-05-02"}) {
    day = date;
    EXPECT_EQ(message_of<DecisionBudgetExceeded>([&] { return admit(0.0, past, always); }),
              "the daily decision cost cap is reached: $10.0042 of $10.00 spent today (UTC)");
  }
  const std::string warning =
      "warning: The daily decision cost cap is reached: $10.0042 of $10.00 spent today (UTC); "
      "paid calls resume tomorrow, cached answers are still used\n";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), warning + warning);
}

TEST_F(DailySpendTest, RefusesASpendThatIsNoNumberOnceTheLockIsFree) {
  spend.charge(Reply({.cost = nan}));
  changed->failing = "unlock";
  EXPECT_THROW(admit(0.0).settle(nullptr), Interrupt);  // before it would warn
}

TEST_F(DailySpendTest, AWaitingCallAsksForItsBoundAgain) {
  double bound = not_known;
  Share first = admit(1.0);
  changed->at_wait = [&] {
    first.settle(nullptr);
    bound = 0.5;
  };
  const Share second = spend.admit([&] { return bound; }, {}, nullptr, never);
  EXPECT_EQ(changed->waits, std::vector<double>{0.1});
  EXPECT_NO_THROW(admit(0.25, past).settle(nullptr));  // the second is not unbounded
}

TEST_F(DailySpendTest, AShareReturnsWhatItHeldAndNoMore) {
  Share first = admit(0.5);
  const Share second = admit(0.25);
  day.clear();
  first.settle(nullptr);  // asks for no date
  day = one_day();
  const Share third = admit(0.5);
  const Share fourth = admit(0.25);  // the last that finds room
  EXPECT_THROW(admit(0.0, past).settle(nullptr), DecisionTimeout);
}

TEST_F(DailySpendTest, AWaitLastsUntilThePollOrTheDeadline) {
  const Share alone = admit(not_known);
  const auto stop_after_a_wait = [this] { return !changed->waits.empty(); };
  changed->at_wait = [] {};
  for (const auto& [left, wait] : {std::pair(0.0625, 0.0625), {5.0, 0.1}, {nan, 0.1}}) {
    changed->waits.clear();
    EXPECT_THROW(admit(0.0, 100.0 + left, stop_after_a_wait).settle(nullptr), DecisionStopped);
    EXPECT_EQ(changed->waits, std::vector<double>{wait});
  }
}

TEST_F(DailySpendTest, OnlyAWaitingCallLooksAtItsStopAndThenAtItsDeadline) {
  clock = []() -> double { throw Interrupt(); };
  const Share alone = admit(not_known, past, always);
  EXPECT_THROW(admit(0.0, past, always).settle(nullptr), DecisionStopped);
  EXPECT_THROW(admit(0.0, past).settle(nullptr), Interrupt);
}

TEST_F(DailySpendTest, AWaitingCallTimesOutOnceNoTimeIsLeft) {
  const Share alone = admit(not_known);
  for (const double left : {0.0, -1.0, -not_known}) {
    EXPECT_EQ(message_of<DecisionTimeout>([&] { return admit(0.0, 100.0 + left); }),
              "the decision call ran out of its deadline while the calls in flight held the rest "
              "of the daily cost cap");
  }
}

TEST_F(DailySpendTest, ACallAdmittedBeforeMidnightHoldsAndCountsOnTheNewDay) {
  Share old = admit(1.0);
  changed->at_wait = [this] {
    day = "2024-05-02";
    ledger = [](const std::string&) { return 2.0; };
  };
  admit(0.5).settle(nullptr);
  EXPECT_THROW(admit(not_known, past).settle(nullptr), DecisionTimeout);  // it is not alone
  day = "2024-05-03";
  const Reply reply({.cost = 0.25});
  old.settle(&reply);
  EXPECT_EQ(spend.spent(), 2.25);
}

TEST_F(DailySpendTest, KeepsWhatAReplyCountsWhileItIsRead) {
  spend.charge(UsingReply([this] { spend.charge(Reply({.cost = 0.25})); }));
  EXPECT_EQ(spend.spent(), 10.25);
  day = "2024-05-02";
  Share share = admit(1.0);
  const UsingReply reply([this] { spend.charge(Reply({.cost = 0.25})); });
  share.settle(&reply);
  EXPECT_EQ(spend.spent(), 10.25);
}

TEST_F(DailySpendTest, LetsTheErrorOfItsLockOut) {
  changed->failing = "unlock";
  EXPECT_THROW(static_cast<void>(spend.spent()), Interrupt);
  changed->failing = "unlock";
  EXPECT_THROW(spend.charge(Reply()), Interrupt);
}

TEST_F(DailySpendTest, NeedsItsFunctionsAndHoldsNothingWithoutThem) {
  EXPECT_THROW(DailySpend(10.0, nullptr, nullptr), std::invalid_argument);
  const auto bound = [] { return not_known; };
  EXPECT_THROW(spend.admit(nullptr, {}, clock, never).settle(nullptr), std::invalid_argument);
  EXPECT_THROW(spend.admit(bound, {}, clock, nullptr).settle(nullptr), std::invalid_argument);
  EXPECT_THROW(spend.admit(bound, 200.0, nullptr, never).settle(nullptr), std::invalid_argument);
  EXPECT_EQ(changed->locks, 0);
}

TEST_F(DailySpendTest, LosesNothingThatWasHeldToAnError) {
  // Each fails once: a function of the host, a property of the reply, or the condition.
  for (const char* step : {"today", "cost", "notify_all", "unlock"}) {
    SCOPED_TRACE(step);
    Share share = admit(not_known);
    changed->failing = "wait_for";
    EXPECT_THROW(admit(0.0).settle(nullptr), Interrupt);
    changed->failing = step;
    changed->wakes = 0;
    if (step == std::string("today")) day.clear();
    const Reply reply({.unreadable = step});
    EXPECT_THROW(share.settle(&reply), Interrupt);
    EXPECT_EQ(changed->depth, 0);
    EXPECT_EQ(changed->wakes, 1);
    day = one_day();
    changed->failing = "unlock";
    EXPECT_THROW(admit(not_known).settle(nullptr), Interrupt);
    EXPECT_NO_THROW(admit(not_known, past).settle(nullptr));
  }
}

}  // namespace decision_bounds::test
