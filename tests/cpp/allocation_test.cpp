#include <cstddef>
#include <cstdlib>
#include <new>

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

TYPED_TEST(BoundTest, AllocatesNothingForAnAdmittedCall) {
  TypeParam bound;
  const Reply reply({.cost = 0.01, .tokens = 1});
  const long before = allocations;
  bound.admit(1.0).settle(nullptr);
  bound.admit(1.0).settle(&reply);
  EXPECT_EQ(allocations, before);
}

TEST(AllocationTest, AFailureChangesAllOrNothingAndLeavesTheLocksFree) {
  bool failed = true;
  for (long nth = 1; failed; ++nth) {
    SCOPED_TRACE(nth);
    RequestRates rates;
    Pass pass(RunCounts{});
    Day day;
    day.date = std::string(40, 'x');
    day.ledger = [](const std::string&) { return 2.0; };
    fails_at = allocations + nth;
    EXPECT_ANY_THROW({
      rates.learn(1, day.date, Reply());
      day.spend.charge(Reply());
      pass.budget.reserve();  // is refused
    });
    failed = allocations >= fails_at;
    fails_at = 0;
    EXPECT_EQ(rates.cost(1, day.date), rates.tokens(1));
    EXPECT_EQ(pass.changed->depth + day.changed->depth, 0);
    EXPECT_EQ(day.spend.spent(), 2.0);
  }
}

}  // namespace decision_bounds::test
