#include <cstdlib>

#include "fakes.hpp"

static thread_local long allocations = 0, fails_at = 0;

void* operator new(std::size_t size) {
  void* const memory = ++allocations == fails_at ? nullptr : std::malloc(size);
  return memory != nullptr ? memory : throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace decision_bounds::test {

TEST(AllocationTest, AnAdmittedCallAllocatesNothing) {
  RunBudget budget(9, 9);
  DailySpend spend(10.0, one_day, nullptr);
  const Reply reply(0.01, 1);
  const long before = allocations;
  budget.hold(1.0).settle(nullptr);
  budget.hold(1.0).settle(&reply);
  spend.admit([] { return 0.01; }, {}, nullptr, never).settle(nullptr);
  spend.admit([] { return 0.01; }, {}, nullptr, never).settle(&reply);
  EXPECT_EQ(allocations, before);
}

TEST(AllocationTest, AFailureChangesAllOrNothingAndLeavesTheLocksFree) {
  for (long nth = 1, failed = 1; failed != 0; ++nth) {
    SCOPED_TRACE("the allocation that fails is number " + std::to_string(nth));
    RequestRates rates;
    RunBudget budget(0, 0);
    std::string name(40, 'x');
    DailySpend spend(
        9.0, [&] { return name; }, [](const auto&) { return 2.0; });
    fails_at = allocations + nth;
    EXPECT_ANY_THROW((rates.learn(1, name, Reply()), spend.charge(Reply()), budget.reserve()));
    failed = allocations >= fails_at ? 1 : 0;
    fails_at = 0;
    EXPECT_EQ(rates.cost(1, name), rates.tokens(1));  // infinity, or learned
    std::jthread([&] { EXPECT_THROW(budget.reserve(), DecisionBudgetExceeded); }).join();
    std::jthread([&] { EXPECT_EQ(spend.spent(), 2.0); }).join();
  }
}

}  // namespace decision_bounds::test
