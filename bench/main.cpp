// native.py reads the output: benchmarks named OPERATION/KIND, or counters named
// KIND/FIGURE/STATISTIC; a kind is ours or peer.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <new>
#include <thread>

#include "gates.hpp"

namespace {
thread_local std::size_t bytes = 0;
}

std::size_t decision_bounds::bench::allocated() noexcept { return bytes; }

// NOLINTBEGIN(cppcoreguidelines-no-malloc): these are what others allocate with
void* operator new(std::size_t size) {
  bytes += size;
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
// NOLINTEND(cppcoreguidelines-no-malloc)

int main(int argc, char** argv) {
  // The C library takes cheaper paths until a process has started its first thread; a program that
  // needs these bounds has.
  std::thread([] {}).join();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
