// Calls that wait for room: one give-back among them, what they burn, how fast one starts.

#include <algorithm>
#include <atomic>
#include <ctime>
#include <memory>
#include <semaphore>
#include <thread>
#include <vector>

#include "gates.hpp"
#include "turns.hpp"

namespace decision_bounds::bench {
namespace {

/// Counts how often the waiting calls have tested for room in vain: they ask it, as their stop
/// signal, before each wait. All but a call's first question come with the gate's lock held.
class Tests {
 public:
  bool test() {
    if (++count_ >= target_ && expected_.exchange(false)) {
      reached_ = SteadyClock::now();
      done_.release();
    }
    return stop_;
  }
  void expect(std::int64_t more) {
    target_ = count_ + more;
    expected_ = true;
  }
  SteadyClock::time_point await() {
    done_.acquire();
    return reached_;
  }
  void stop() { stop_ = true; }
  void await_count(std::int64_t count) const {
    while (count_ < count) std::this_thread::sleep_for(std::chrono::microseconds(50));
  }

 private:
  std::atomic<std::int64_t> count_{0}, target_{0};
  std::atomic<bool> expected_{false}, stop_{false};
  SteadyClock::time_point reached_;
  std::binary_semaphore done_{0};
};

struct Signal {
  Tests* tests;
  bool operator()() const { return tests->test(); }
};

const Reply reply;

constexpr int first_tests = 2;  // of a new call: before it takes the lock, and before it waits

/// A gate that is full, and threads that wait at it.
template <class Gate>
class Crowd {
 public:
  /// Takes `small` shares that make no room, and spreads the calls' starts over `spread`.
  Crowd(std::int64_t size, std::int64_t small, std::chrono::microseconds spread = {}) {
    for (std::int64_t i = 0; i <= small; ++i) small_.push_back(gate_.hold(0.0));
    rest_.push_back(gate_.hold(limit));
    for (std::int64_t i = 0; i < size; ++i) {
      if (spread.count() != 0) std::this_thread::sleep_for(spread / size);
      threads_.emplace_back([this] {
        try {
          gate_.hold(1.0).settle(&reply);
        } catch (const DecisionStopped&) {  // NOLINT(bugprone-empty-catch): the end
        }
      });
    }
    tests.await_count(size * first_tests);
  }
  Crowd(const Crowd&) = delete;
  Crowd& operator=(const Crowd&) = delete;
  ~Crowd() {
    tests.stop();
    give_back_one();
    for (auto& thread : threads_) thread.join();
  }

  /// Gives back a share that makes no room.
  void give_back_one() {
    small_.back().settle(&reply);
    small_.pop_back();
  }

  /// What its threads have used so far.
  [[nodiscard]] double processor_seconds() {
    double sum = 0.0;
    for (auto& thread : threads_) {
      clockid_t clock{};
      std::timespec time{};
      pthread_getcpuclockid(thread.native_handle(), &clock);
      clock_gettime(clock, &time);
      sum += static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
    }
    return sum;
  }

  Tests tests;

 private:
  static constexpr int limit = 10;
  // The kernel finds a sleeping thread in one of a few lists, by an address. Gates that stay let no
  // unlucky address decide a row: the next one has another.
  static inline std::vector<std::unique_ptr<Gate>> gates_;
  Gate& gate_ = *gates_.emplace_back(std::make_unique<Gate>(limit, Signal{&tests}));
  std::vector<decltype(std::declval<Gate&>().hold(0.0))> small_, rest_;
  std::vector<std::thread> threads_;
};

/// One give-back alone, and until every waiting call has tested again.
template <class Gate>
Samples give_back(std::int64_t size) {
  constexpr int rounds = 11;
  Crowd<Gate> crowd(size, rounds);
  Samples samples;
  for (int i = 0; i < rounds; ++i) {
    std::this_thread::sleep_for(std::chrono::microseconds(200));  // until the last one waits again
    crowd.tests.expect(size);
    const auto begin = SteadyClock::now();
    crowd.give_back_one();
    const double alone = seconds_between(begin, SteadyClock::now());
    const double all = seconds_between(begin, crowd.tests.await());
    if (i == 0) continue;  // of threads that have just started: several times as long
    samples["alone"].push_back(alone);
    samples["all"].push_back(all);
  }
  return samples;
}

/// Crowds of one kind, enough of the small ones to have something to measure.
template <class Gate>
class Crowds {
 public:
  void add(std::int64_t size, std::chrono::microseconds spread) {
    crowds_.push_back(std::make_unique<Crowd<Gate>>(size, 0, spread));
  }
  /// What one of them has used so far.
  [[nodiscard]] double processor_seconds() const {
    double sum = 0.0;
    for (const auto& crowd : crowds_) sum += crowd->processor_seconds();
    return sum / static_cast<double>(crowds_.size());
  }

 private:
  std::vector<std::unique_ptr<Crowd<Gate>>> crowds_;
};

/// From giving back to the one waiting call's start.
template <class Gate>
Samples wake_up(std::int64_t count) {
  constexpr int limit = 10;
  Tests tests;
  Gate gate(limit, Signal{&tests});
  std::binary_semaphore go{0}, started{0};
  SteadyClock::time_point start;
  std::thread waiter([&] {
    for (std::int64_t i = 0; i < count; ++i) {
      go.acquire();
      auto held = gate.hold(1.0);
      start = SteadyClock::now();
      held.settle(&reply);
      started.release();
    }
  });
  Samples samples;
  for (std::int64_t i = 0; i < count; ++i) {
    auto rest = gate.hold(limit);
    tests.expect(first_tests);
    go.release();
    tests.await();
    std::this_thread::sleep_for(std::chrono::microseconds(100));  // until it sleeps
    const auto begin = SteadyClock::now();
    rest.settle(&reply);
    started.acquire();
    samples["latency"].push_back(seconds_between(begin, start));
  }
  waiter.join();
  return samples;
}

using OurGate = Ours<Signal>;
using PlainGate = Plain<Signal>;

void give_backs(benchmark::State& state) {
  const auto visits = static_cast<int>(std::clamp<std::int64_t>(50'000 / state.range(0), 80, 400));
  take_turns(state, visits, give_back<OurGate>, give_back<PlainGate>);
}

/// The processor time that a crowd takes in a second. Ours and its peer's wait at the same time, so
/// that whatever else the machine does meets both alike.
void idles(benchmark::State& state) {
  constexpr int visits = 40;
  constexpr std::chrono::microseconds poll(100'000);
  constexpr std::chrono::milliseconds window(200);
  const std::int64_t size = state.range(0);
  const std::int64_t count = std::max<std::int64_t>(1, 64 / size);
  Samples samples;
  for ([[maybe_unused]] auto _ : state) {
    for (int visit = 0; visit < visits; ++visit) {
      Crowds<OurGate> ours;
      Crowds<PlainGate> peer;
      for (std::int64_t i = 0; i < 2 * count; ++i) {
        const auto spread = poll / (2 * count);  // calls that poll all at once would cost more
        if ((i + visit) % 2 == 0) {
          ours.add(size, spread);
        } else {
          peer.add(size, spread);
        }
      }
      const auto begin = SteadyClock::now();
      const double ours_before = ours.processor_seconds();
      const double peer_before = peer.processor_seconds();
      std::this_thread::sleep_for(window);
      const double ours_used = ours.processor_seconds() - ours_before;
      const double peer_used = peer.processor_seconds() - peer_before;
      const double passed = seconds_between(begin, SteadyClock::now());
      samples["ours/share"].push_back(ours_used / passed);
      samples["peer/share"].push_back(peer_used / passed);
    }
  }
  report(state, samples);
}

// Short visits: the processors' sleep changes the times by the second, for both alike.
void wake_ups(benchmark::State& state) {
  take_turns(state, 2000, wake_up<OurGate>, wake_up<PlainGate>);
}

BENCHMARK(give_backs)->RangeMultiplier(4)->Range(1, 1024)->Iterations(1)->Repetitions(1);
BENCHMARK(idles)->RangeMultiplier(4)->Range(1, 1024)->Iterations(1)->Repetitions(1);
BENCHMARK(wake_ups)->Arg(20)->Iterations(1)->Repetitions(1);

}  // namespace
}  // namespace decision_bounds::bench
