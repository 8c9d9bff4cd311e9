#include "fakes.hpp"

namespace decision_bounds::test {

struct DailySpendTest : testing::Test, Logger {
  void warning(std::string_view format, std::span<const LogArgument> arguments,
               std::exception_ptr error) override {
    EXPECT_EQ(changed->depth, error ? 1 : 0);  // the cap's warning comes with the lock free
    EXPECT_NO_THROW(StdLogger::instance().warning(format, arguments, error));
  }
  Share admit(const double& bound, std::optional<double> deadline = {}) {
    return spend.admit([&] { return bound; }, deadline, clock, stop);
  }
  std::string day = one_day(), asked;
  StopSignal stop = never;
  Clock clock = [] { return 100.0; };
  Ledger ledger = [](auto) { return 9.0; };
  FakeCondition* changed = new FakeCondition;
  DailySpend spend{10.0, [this] { return day.empty() ? throw Interrupt() : day; },
                   [this](auto of) { return asked += of.substr(5) + " ", ledger(of); }, this,
                   std::unique_ptr<Condition>(changed)};
};

TEST_F(DailySpendTest, StartsEachDayFromTheLedgerOnce) {
  for (const char* today : {"2024-05-01", "2024-05-01", "2024-05-02", "2024-04-30"})
    EXPECT_EQ((day = today, spend.spent()), 9.0);
  spend.charge(Reply(0.5, -1));
  EXPECT_EQ(std::pair(spend.spent(), changed->wakes), std::pair(9.5, 1));
  ledger = [](auto) -> double { throw Interrupt(); }, day = "2024-05-03";
  EXPECT_THROW(spend.charge(Reply()), Interrupt);
  EXPECT_EQ((day = "2024-04-30", spend.spent()), 9.5);
  ledger = [](auto) -> double { throw std::out_of_range("no file"); }, day = "2024-05-03";
  testing::internal::CaptureStderr();
  EXPECT_EQ(spend.spent() + spend.spent(), 0.0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "warning: Could not read what the decision calls of 2024-05-03 cost; the daily cap "
            "counts from 0: no file\n");
  EXPECT_EQ(asked, "05-01 05-02 04-30 05-03 05-03 ");
}

TEST_F(DailySpendTest, RefusesOnceTheCapIsSettledAndWarnsOnceADay) {
  ledger = [](auto) { return 10.00421; }, stop = [] { return true; };
  testing::internal::CaptureStderr();
  for (const char* today : {"2024-05-01", "2024-05-01", "2024-05-02"}) {
    day = today;
    EXPECT_EQ(message_of<DecisionBudgetExceeded>([&] { return admit(0.0, 0.0); }),
              "the daily decision cost cap is reached: $10.0042 of $10.00 spent today (UTC)");
  }
  const std::string warning =
      "warning: The daily decision cost cap is reached: $10.0042 of $10.00 spent today (UTC); "
      "paid calls resume tomorrow, cached answers are still used\n";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), warning + warning);
}

TEST_F(DailySpendTest, AWaitingCallIsAdmittedStoppedOrTimedOut) {
  double bound = not_known;  // asked again after each wait
  Share first = admit(1.0);
  changed->at_wait = [&] { first.settle(nullptr), bound = 0.5; };
  Share second = admit(bound), third = admit(1.0);
  day.clear(), second.settle(nullptr), third.settle(nullptr), day = one_day();  // asks for no date
  stop = [] { return true; }, changed->waits.clear();
  const Share alone = admit(not_known, 0.0);  // with room, nothing looks at a stop or the deadline
  for (const double left : {0.0625, 5.0, not_known, nan}) {
    stop = [asked = 0]() mutable { return asked++ == 1; }, clock = [] { return 100.0; };
    changed->at_wait = [this] { clock = []() -> double { throw Interrupt(); }; };
    EXPECT_THROW(admit(0.0, 100.0 + left).settle(nullptr),
                 DecisionStopped);  // without reading the clock again
  }
  EXPECT_EQ(changed->waits, (std::vector<double>{0.0625, 0.1, 0.1, 0.1}));
  for (const double left : {0.0, -1.0, -not_known}) {
    stop = never, clock = [] { return 100.0; };
    EXPECT_EQ(message_of<DecisionTimeout>([&] { return admit(0.0, 100.0 + left); }),
              "the decision call ran out of its deadline while the calls in flight held the rest "
              "of the daily cost cap");
  }
}

TEST_F(DailySpendTest, ACallAdmittedBeforeMidnightHoldsAndCountsOnTheNewDay) {
  Share old = admit(1.0);
  changed->at_wait = [this] { day = "2024-05-02", ledger = [](auto) { return 2.0; }; };
  admit(0.5).settle(nullptr);
  EXPECT_THROW(admit(not_known, 0.0).settle(nullptr), DecisionTimeout);
  const Reply reply(0.25);
  day = "2024-05-03", old.settle(&reply);
  EXPECT_EQ(spend.spent(), 2.25);
}

TEST_F(DailySpendTest, LosesNothingThatWasHeldToAnError) {
  for (const std::string_view step : {"today", "cost", "notify_all", "unlock"}) {
    Share share = admit(not_known);
    changed->fails = "wait_for";
    EXPECT_THROW(admit(0.0).settle(nullptr), Interrupt);
    const Reply reply(0.0, 0, step);
    changed->fails = step, changed->wakes = 0, day = step == "today" ? "" : day;
    EXPECT_THROW(share.settle(&reply), Interrupt);
    EXPECT_EQ(std::pair(changed->depth, changed->wakes), std::pair(0, 1)) << step;
    changed->fails = "unlock", day = one_day();
    EXPECT_THROW(admit(not_known).settle(nullptr), Interrupt);
  }
  admit(not_known).settle(nullptr);
}

}  // namespace decision_bounds::test
