#pragma once

// What the benchmarks measure, and its peer, behind one interface.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <utility>

#include "decision_bounds/decision_bounds.hpp"

namespace decision_bounds::bench {

/// Bytes that this thread has taken from operator new so far.
std::size_t allocated() noexcept;

class Reply final : public PaidReply {
 public:
  [[nodiscard]] bool cached() const override { return false; }
  [[nodiscard]] std::int64_t input_tokens() const override { return 0; }
  [[nodiscard]] double cost() const override { return 0.000001; }
};

inline constexpr std::int64_t plenty = std::int64_t{1} << 60;

/// The library's budget.
template <class Stop>
class Ours : public RunBudget {
 public:
  Ours(std::int64_t max_tokens, Stop stop) : RunBudget(plenty, max_tokens, std::move(stop)) {}
};

/// What one would write by hand for a pass: the same tests and counters under one mutex, and a
/// condition variable that wakes all.
template <class Stop>
class Plain {
 public:
  /// Gives back what it holds when its scope ends; one thread uses it.
  class Held {
   public:
    Held(Plain* gate, double tokens) : gate_(gate), tokens_(tokens) {}
    Held(Held&& other) noexcept
        : gate_(std::exchange(other.gate_, nullptr)), tokens_(other.tokens_) {}
    ~Held() { settle(nullptr); }
    void settle(const PaidReply* reply) {
      if (gate_ != nullptr) std::exchange(gate_, nullptr)->give_back(tokens_, reply);
    }

   private:
    Plain* gate_;
    double tokens_;
  };

  Plain(std::int64_t max_tokens, Stop stop) : max_tokens_(max_tokens), stop_(std::move(stop)) {}

  [[nodiscard]] Held hold(double tokens) {
    if (stop_()) throw DecisionStopped("stopped");
    std::unique_lock lock(mutex_);
    while (!room()) {
      if (stop_()) throw DecisionStopped("stopped");
      changed_.wait_for(lock, std::chrono::milliseconds(100));
    }
    ++in_flight_;
    held_ += tokens;
    return {this, tokens};
  }

 private:
  [[nodiscard]] bool room() const {
    if (calls_ + in_flight_ >= max_calls_ || input_tokens_ >= max_tokens_) {
      throw DecisionBudgetExceeded("exhausted");
    }
    return static_cast<double>(input_tokens_) + held_ < static_cast<double>(max_tokens_);
  }

  void give_back(double tokens, const PaidReply* reply) {
    const std::lock_guard lock(mutex_);
    --in_flight_;
    held_ = in_flight_ == 0 ? 0.0 : std::max(0.0, held_ - tokens);
    if (reply != nullptr && reply->cached()) {
      ++cache_hits_;
    } else if (reply != nullptr) {
      ++calls_;
      input_tokens_ += reply->input_tokens();
      cost_ += reply->cost();
    }
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::int64_t max_calls_ = plenty, max_tokens_;
  std::int64_t calls_ = 0, cache_hits_ = 0, input_tokens_ = 0, in_flight_ = 0;
  double held_ = 0.0, cost_ = 0.0;
  Stop stop_;
};

}  // namespace decision_bounds::bench
