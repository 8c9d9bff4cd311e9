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

/// Seconds that one of `calls` look-ups takes.
template <class Features>
double look_up(Features& features, const std::vector<std::string>& names, std::size_t calls) {
  const std::size_t stride = 7919 % names.size();  // a prime, so that every name has its turn
  std::size_t i = 0;
  const auto begin = SteadyClock::now();
  for (std::size_t call = 0; call < calls; ++call) {
    benchmark::DoNotOptimize(features.cost(names[i]));
    i += stride;
    if (i >= names.size()) i -= names.size();
  }
  return seconds_between(begin, SteadyClock::now()) / static_cast<double>(calls);
}

void cost(benchmark::State& state) {
  constexpr int builds = 8;  // where memory comes to lie is luck, so more than once
  constexpr int rounds = 12;
  const auto count = static_cast<std::size_t>(state.range(0));
  // Every name more than once, since the caches are the other's when a turn begins.
  const std::size_t calls = std::max<std::size_t>(20'000, 2 * count);
  Samples samples;
  for ([[maybe_unused]] auto _ : state) {
    for (int build = 0; build < builds; ++build) {
      std::vector<std::string> names;
      OurFeatures ours;
      PlainFeatures peer;
      for (std::size_t i = 0; i < count; ++i) {
        const auto& name = names.emplace_back("feature-" + std::to_string(i));
        ours.add(name);
        peer.add(name);
      }
      for (int round = 0; round < rounds; ++round) {
        samples["ours/time"].push_back(look_up(ours, names, calls));
        samples["peer/time"].push_back(look_up(peer, names, calls));
      }
    }
  }
  report(state, samples);
}

/// Seconds that one of a thousand calls takes.
double thousand_calls(RunBudget& budget, const Reply& reply) {
  constexpr int calls = 1000;
  const auto begin = SteadyClock::now();
  for (int call = 0; call < calls; ++call) budget.hold(10.0).settle(&reply);
  return seconds_between(begin, SteadyClock::now()) / calls;
}

void ten_millionth(benchmark::State& state) {
  constexpr int rounds = 50;
  const Reply reply;
  Samples samples;
  for ([[maybe_unused]] auto _ : state) {
    RunBudget old(plenty, plenty), fresh(plenty, plenty);
    for (int i = 0; i < 10'000; ++i) thousand_calls(old, reply);
    for (int round = 0; round < rounds; ++round) {
      samples["ours/time"].push_back(thousand_calls(old, reply));
      samples["peer/time"].push_back(thousand_calls(fresh, reply));
    }
  }
  report(state, samples);
}

BENCHMARK(cost)->RangeMultiplier(10)->Range(1, 100'000)->Iterations(1)->Repetitions(1);
BENCHMARK(ten_millionth)->Iterations(1)->Repetitions(1);

}  // namespace
}  // namespace decision_bounds::bench
