// Many threads on one budget that has room for all of them.

#include <barrier>
#include <thread>
#include <vector>

#include "gates.hpp"
#include "turns.hpp"

namespace decision_bounds::bench {
namespace {

struct Never {
  bool operator()() const noexcept { return false; }
};

/// What one call of a crowd of threads takes: the time that passes, by the number of calls.
template <class Gate>
Samples contended(std::int64_t thread_count) {
  constexpr int calls = 200'000;
  Gate gate(plenty, {});
  SteadyClock::time_point begin;
  std::barrier together(thread_count, [&]() noexcept { begin = SteadyClock::now(); });
  std::vector<std::jthread> threads;
  for (std::int64_t i = 0; i < thread_count; ++i) {
    threads.emplace_back([&] {
      together.arrive_and_wait();
      const Reply reply;
      for (std::int64_t call = 0; call < calls / thread_count; ++call) {
        gate.hold(10.0).settle(&reply);
      }
    });
  }
  threads.clear();  // joins them
  return {{"time", {seconds_between(begin, SteadyClock::now()) / calls}}};
}

void contended_calls(benchmark::State& state) {
  take_turns(state, 31, contended<Ours<Never>>, contended<Plain<Never>>);
}

BENCHMARK(contended_calls)->Arg(2)->Arg(8)->Arg(32)->Iterations(1)->Repetitions(1);

}  // namespace
}  // namespace decision_bounds::bench
