// What must stay flat: a look-up among many features, and a budget's ten-millionth call.

#include <algorithm>
#include <functional>
#include <limits>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "gates.hpp"
#include "turns.hpp"

namespace decision_bounds::bench {
namespace {

constexpr std::int64_t size = 1000;  // bytes, of a request

struct OurFeatures {
  void add(std::string_view feature) { rates.learn(size, feature, Reply()); }
  double cost(std::string_view feature) { return rates.cost(size, feature); }

  RequestRates rates;
};

/// The same written plainly: a set of names, to be looked up by their text, and two maxima under a
/// mutex.
struct PlainFeatures {
  struct Hash {  // not noexcept, so that the set keeps the hashes, as the library's does
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const {
      return std::hash<std::string_view>()(text);
    }
  };

  void add(std::string_view feature) { all.emplace(feature); }
  double cost(std::string_view feature) {
    const std::lock_guard lock(mutex);
    if (!all.contains(feature)) return std::numeric_limits<double>::infinity();
    return std::max(per_call, per_byte * static_cast<double>(size));
  }

  std::mutex mutex;
  std::unordered_set<std::string, Hash, std::equal_to<>> all;
  double per_call = 0.000001, per_byte = 0.000000001;
};

template <class Features>
void cost(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(std::max<std::int64_t>(1, state.range(0)));
  std::vector<std::string> names;
  Features features;
  for (std::size_t i = 0; i < count; ++i) {
    features.add(names.emplace_back("feature-" + std::to_string(i)));
  }
  constexpr std::size_t stride = 7919;  // a prime, so that every name has its turn
  std::size_t i = 0;
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(features.cost(names[i]));
    i = (i + stride) % count;
  }
}

/// Seconds that one call takes: the best of 9 blocks of 1,000.
double best_of_blocks(RunBudget& budget) {
  constexpr int block = 1000;
  double best = 1.0;
  for (int i = 0; i < 9; ++i) {
    const auto begin = SteadyClock::now();
    for (int call = 0; call < block; ++call) budget.hold(10.0).settle(nullptr);
    best = std::min(best, seconds_between(begin, SteadyClock::now()) / block);
  }
  return best;
}

void ten_millionth(benchmark::State& state) {
  const Reply reply;
  for ([[maybe_unused]] auto _ : state) {
    RunBudget budget(plenty, plenty);
    for (int i = 0; i < 1000; ++i) budget.hold(10.0).settle(&reply);
    state.counters["peer/time/min"] = best_of_blocks(budget);
    for (int i = 0; i < 10'000'000; ++i) budget.hold(10.0).settle(&reply);
    state.counters["ours/time/min"] = best_of_blocks(budget);
  }
}

BENCHMARK(cost<OurFeatures>)->Name("cost/ours")->RangeMultiplier(10)->Range(1, 100'000);
BENCHMARK(cost<PlainFeatures>)->Name("cost/peer")->RangeMultiplier(10)->Range(1, 100'000);
BENCHMARK(ten_millionth)->Iterations(1)->Repetitions(3);

}  // namespace
}  // namespace decision_bounds::bench
