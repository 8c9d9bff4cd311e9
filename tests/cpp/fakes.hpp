#pragma once

// Stand-ins for what the library takes from its host. They let one thread play all the others.

#include <gtest/gtest.h>

#include "decision_bounds/decision_bounds.hpp"

namespace decision_bounds::test {

inline constexpr double not_known = std::numeric_limits<double>::infinity();
inline constexpr double nan = std::numeric_limits<double>::quiet_NaN();

inline std::string one_day() { return "2024-05-01"; }

/// What a host's function throws in these tests: no std::exception, so nothing may absorb it.
struct Interrupt {
  static const char* what() { return "interrupted"; }
};

struct Reply final : PaidReply {
  /// `used` below 0: from the cache. `fails`: the property that throws.
  explicit Reply(double usd = 0, std::int64_t used = 0, std::string_view fails = {})
      : usd_(usd), used_(used), fails_(fails) {}
  bool cached() const override { return read("cached"), used_ < 0; }
  std::int64_t input_tokens() const override { return read("input_tokens"), used_; }
  double cost() const override { return read("cost"), usd_; }
  void read(auto name) const { name == fails_ || fails_ == "any" ? throw Interrupt() : void(); }

  double usd_;
  std::int64_t used_;
  std::string_view fails_;
};

/// Records what it is used for. Scripts play what other threads do meanwhile.
struct FakeCondition final : Condition {
  void lock() override { step("lock"), ++depth; }
  void unlock() override { --depth, step("unlock"); }
  void notify_all() override { wakes += depth > 0 ? 1 : 100, step("notify_all"); }
  void wait_for(double seconds) override {
    waits.push_back(depth > 0 ? seconds : nan), step("wait_for");
    const int held = std::exchange(depth, 0);
    at_wait(), depth = held;
  }
  void step(std::string_view operation) {
    if (operation == std::exchange(fails, operation == fails ? "" : fails)) throw Interrupt();
    if (operation == "lock" && depth == 0) ++locks, at_lock();
  }

  int depth = 0, locks = 0, wakes = 0;
  std::vector<double> waits;
  std::string_view fails;  ///< the operation that throws when it is called next
  std::function<void()> at_lock = [] {};
  std::function<void()> at_wait = [] { throw std::logic_error("nothing ends this wait"); };
};

struct QuietLogger final : Logger {
  void warning(std::string_view, std::span<const LogArgument>, std::exception_ptr) override {}
};

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
