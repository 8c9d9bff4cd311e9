#include <cstddef>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>

#include "fakes.hpp"

static thread_local long allocations = 0;  // of this thread until now
static thread_local long fails_at = 0;     // the number of the one that fails

void* operator new(std::size_t size) {
  ++allocations;
  void* const memory = allocations == fails_at ? nullptr : std::malloc(size);
  return memory != nullptr ? memory : throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace decision_bounds::test {

TEST(AllocationTest, AnAdmittedCallAllocatesNothing) {
  RunBudget budget(9, 9);
  DailySpend spend(10.0, one_day, nullptr);
  const Reply reply({.cost = 0.01, .tokens = 1});
  const CostBound bound = [] { return 0.01; };
  const long before = allocations;
  budget.hold(1.0).settle(nullptr);
  budget.hold(1.0).settle(&reply);
  spend.admit(bound, {}, nullptr, never).settle(nullptr);
  spend.admit(bound, {}, nullptr, never).settle(&reply);
  EXPECT_EQ(allocations, before);
}

TEST(AllocationTest, AFailureChangesAllOrNothingAndLeavesTheLocksFree) {
  bool failed = true;
  for (long nth = 1; failed; ++nth) {
    std::string name(40, 'x');
    RequestRates rates;
    DailySpend spend(
        9.0, [&] { return name; }, [](const auto&) { return 2.0; });
    RunBudget budget(0, 0);
    const auto use_all = [&] {
      rates.learn(1, name, Reply());
      spend.charge(Reply());
      budget.reserve();  // is refused
    };
    fails_at = allocations + nth;
    EXPECT_ANY_THROW(use_all());
    failed = allocations >= fails_at;
    fails_at = 0;
    EXPECT_EQ(rates.cost(1, name), rates.tokens(1)) << "without allocation " << nth;
    std::jthread([&] { EXPECT_THROW(budget.reserve(), DecisionBudgetExceeded); }).join();
    std::jthread([&] { EXPECT_EQ(spend.spent(), 2.0); }).join();
  }
}

}  // namespace decision_bounds::test
