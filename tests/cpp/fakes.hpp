#pragma once

// The headers that most tests need, and stand-ins for the host that let one thread play all others.

#include <gmock/gmock.h>

#include <atomic>
#include <limits>
#include <thread>
#include <utility>
#include <vector>

#include "decision_bounds/decision_bounds.hpp"

namespace decision_bounds::test {

inline constexpr double not_known = std::numeric_limits<double>::infinity();
inline constexpr double nan = std::numeric_limits<double>::quiet_NaN();

inline std::string one_day() { return "2024-05-01"; }

/// What the host's functions throw: no std::exception, so nothing may absorb it.
struct Interrupt {};

using testing::ThrowsMessage;

struct ReplyFields {
  double cost = 0.0;
  std::int64_t tokens = 0;
  bool cached = false;
  std::string_view unreadable = {};          ///< the property that throws
  std::function<void()> while_read = [] {};  ///< what each property does meanwhile
};

struct Reply final : PaidReply {
  explicit Reply(ReplyFields of = {}) : fields(std::move(of)) {}
  auto read(std::string_view property, auto value) const {
    fields.while_read();
    return property == fields.unreadable ? throw Interrupt() : value;
  }
  bool cached() const override { return read("cached", fields.cached); }
  std::int64_t input_tokens() const override { return read("input_tokens", fields.tokens); }
  double cost() const override { return read("cost", fields.cost); }

  ReplyFields fields;
};

/// Records what it is used for. Scripts play what other threads do meanwhile.
struct FakeCondition final : Condition {
  void lock() override {
    at_lock();
    ++locks;
    ++depth;
  }
  void unlock() override {
    --depth;
    fail_if_due("unlock");
  }
  void notify_all() override {
    EXPECT_GT(depth, 0) << "requires the lock";
    ++wakes;
    fail_if_due("notify_all");
  }
  void wait_for(double seconds) override {
    EXPECT_GT(depth, 0) << "requires the lock";
    waits.push_back(seconds);
    fail_if_due("wait_for");
    const int held = std::exchange(depth, 0);
    at_wait();
    depth = held;
  }
  void fail_if_due(std::string_view operation) {
    if (operation != failing) return;
    failing = {};
    throw Interrupt();
  }

  int depth = 0;  ///< how often the lock is held
  int locks = 0;
  int wakes = 0;
  std::vector<double> waits;  ///< the seconds of each
  std::string_view failing;   ///< the operation that throws when it is called next
  std::function<void()> at_lock = [] {};
  std::function<void()> at_wait = [] { throw std::logic_error("nothing ends this wait"); };
};

struct CountingLogger final : Logger {
  void warning(std::string_view, std::span<const LogArgument>, std::exception_ptr) override {
    ++warnings;
  }

  std::atomic<int> warnings = 0;
};

/// A pass of 9 calls and 10 tokens, or with other counts.
struct Pass {
  static constexpr const char* may_fail[] = {"cached", "input_tokens", "cost", "notify_all",
                                             "unlock"};

  explicit Pass(const RunCounts& counts = {.max_calls = 9, .max_tokens = 10})
      : budget(counts, StopSignal(std::ref(stop)), std::unique_ptr<Condition>(changed)) {}
  Share admit(double tokens) { return budget.hold(tokens); }

  StopSignal stop = never;
  FakeCondition* changed = new FakeCondition;  // the budget's
  RunBudget budget;
};

/// A day with a cap of 10 dollars. The clock shows 100.
struct Day {
  static constexpr const char* may_fail[] = {"today", "cost", "notify_all", "unlock"};
  static inline CountingLogger silent;

  explicit Day(Logger* logger = &silent)
      : spend(
            10.0, [this] { return changed->fail_if_due("today"), date; },
            [this](const std::string& since) { return ledger(since); }, logger,
            std::unique_ptr<Condition>(changed)) {}
  Share admit(double bound, std::optional<double> deadline = {}) {
    return spend.admit([=] { return bound; }, deadline, clock, stop);
  }

  std::string date = one_day();
  Ledger ledger = [](const std::string&) { return 0.0; };
  Clock clock = [] { return 100.0; };
  StopSignal stop = never;
  FakeCondition* changed = new FakeCondition;  // the account's
  DailySpend spend;
};

/// For what both bounds promise.
template <class>
struct BoundTest : testing::Test {};
using Bounds = testing::Types<Pass, Day>;
TYPED_TEST_SUITE(BoundTest, Bounds);

/// Runs `work` on so many threads at once.
inline void on_threads(int count, const std::function<void()>& work) {
  std::vector<std::jthread> threads;
  for (int i = 0; i < count; ++i) threads.emplace_back(work);
}

}  // namespace decision_bounds::test
