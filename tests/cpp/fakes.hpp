#pragma once

// Stand-ins for what the library takes from its host. They let one thread play all the others.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <limits>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
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

struct ReplyFields {
  double cost = 0.0;
  std::int64_t tokens = 0;
  bool cached = false;
  std::string_view unreadable = {};  ///< the property that throws
};

struct Reply final : PaidReply {
  explicit Reply(const ReplyFields& of = {}) : fields(of) {}
  auto read(std::string_view property, auto value) const {
    return property == fields.unreadable ? throw Interrupt() : value;
  }
  bool cached() const override { return read("cached", fields.cached); }
  std::int64_t input_tokens() const override { return read("input_tokens", fields.tokens); }
  double cost() const override { return read("cost", fields.cost); }

  ReplyFields fields;
};

/// One token and one dollar; uses its bound whenever a sum is read.
struct UsingReply final : PaidReply {
  explicit UsingReply(std::function<void()> what) : use(std::move(what)) {}
  bool cached() const override { return false; }
  std::int64_t input_tokens() const override { return use(), 1; }
  double cost() const override { return use(), 1.0; }

  std::function<void()> use;
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

/// Runs `work` on so many threads at once.
inline void on_threads(int count, const std::function<void()>& work) {
  std::vector<std::jthread> threads;
  for (int i = 0; i < count; ++i) threads.emplace_back(work);
}

/// The message of the `Error` that `act` throws; empty when it throws none.
template <class Error, class Act>
std::string message_of(Act act) {
  try {
    static_cast<void>(act());
  } catch (const Error& error) {
    return error.what();
  }
  return {};
}

}  // namespace decision_bounds::test
