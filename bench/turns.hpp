#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <numeric>
#include <string>
#include <vector>

namespace decision_bounds::bench {

using SteadyClock = std::chrono::steady_clock;

inline double seconds_between(SteadyClock::time_point begin, SteadyClock::time_point end) {
  return std::chrono::duration<double>(end - begin).count();
}

/// What visits sampled, in seconds, by the figure's name.
using Samples = std::map<std::string, std::vector<double>>;

/// The mean without the tenth at each end: where a sleeping processor makes two clusters of the
/// samples, it does not jump from one to the other as the median does.
inline double trimmed_mean(const std::vector<double>& sorted) {
  const auto cut = static_cast<std::ptrdiff_t>(sorted.size() / 10);
  const double sum = std::accumulate(sorted.begin() + cut, sorted.end() - cut, 0.0);
  return sum / static_cast<double>(sorted.end() - sorted.begin() - 2 * cut);
}

/// Reports each figure's samples as counters KIND/FIGURE/STATISTIC.
inline void report(benchmark::State& state, Samples& samples) {
  for (auto& [name, values] : samples) {
    std::sort(values.begin(), values.end());
    state.counters[name + "/min"] = values.front();
    state.counters[name + "/mean"] = trimmed_mean(values);
    state.counters[name + "/median"] = values[values.size() / 2];
    state.counters[name + "/p99"] = values[values.size() * 99 / 100];
  }
}

/// Lets the library and its peer take turns, so that whatever else the machine does meets both
/// alike, and reports what the visits sampled.
template <class Visit>
void take_turns(benchmark::State& state, int visits, Visit ours, Visit peer) {
  Samples samples;
  for ([[maybe_unused]] auto _ : state) {
    for (int i = 0; i < visits; ++i) {
      for (const auto& [kind, visit] : {std::pair("ours/", ours), std::pair("peer/", peer)}) {
        for (auto& [figure, values] : visit(state.range(0))) {
          auto& all = samples[kind + figure];
          all.insert(all.end(), values.begin(), values.end());
        }
      }
    }
  }
  report(state, samples);
}

}  // namespace decision_bounds::bench
