// One thread, and what it costs at least.

#include <benchmark/benchmark.h>

#include <atomic>
#include <mutex>

#include "gates.hpp"

namespace decision_bounds::bench {
namespace {

/// Times `call`, and counts what it allocates once it has run before.
template <class Call>
void repeat(benchmark::State& state, Call call) {
  call();
  const std::size_t before = allocated();
  for ([[maybe_unused]] auto _ : state) call();
  state.counters["ours/bytes/max"] =
      static_cast<double>(allocated() - before) / static_cast<double>(state.iterations());
}

void hold(benchmark::State& state) {
  RunBudget budget(plenty, plenty);
  const Reply reply;
  repeat(state, [&] { budget.hold(10.0).settle(&reply); });
}

void admit(benchmark::State& state) {
  DailySpend spend(
      1e9, [] { return "2024-05-01"; }, nullptr);
  const CostBound bound = [] { return 0.01; };
  const Clock clock = [] { return 0.0; };
  const StopSignal stopping = never;
  const Reply reply;
  repeat(state, [&] { spend.admit(bound, std::nullopt, clock, stopping).settle(&reply); });
}

void two_mutex_pairs(benchmark::State& state) {
  std::mutex mutex;
  for ([[maybe_unused]] auto _ : state) {
    for (int i = 0; i < 2; ++i) {
      mutex.lock();
      benchmark::ClobberMemory();
      mutex.unlock();
    }
  }
}

void atomic_exchange(benchmark::State& state) {
  std::atomic<bool> held{true};
  for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(held.exchange(true));
}

void function_call(benchmark::State& state) {
  StopSignal signal = never;
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(signal);
    benchmark::DoNotOptimize(signal());
  }
}

BENCHMARK(hold)->Name("hold/ours");
BENCHMARK(two_mutex_pairs)->Name("hold/peer");
BENCHMARK(admit)->Name("admit/ours");
BENCHMARK(two_mutex_pairs)->Name("admit/peer");
BENCHMARK(atomic_exchange)->Name("floor_exchange/ours");
BENCHMARK(function_call)->Name("floor_function/ours");

}  // namespace
}  // namespace decision_bounds::bench
