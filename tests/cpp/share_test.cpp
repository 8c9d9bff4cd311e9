#include "fakes.hpp"

namespace decision_bounds::test {

struct ShareTest : testing::Test {
  std::vector<const PaidReply*> runs;  // what each run of the action was given
  Share::GiveBack record = [this](const PaidReply* reply) { runs.push_back(reply); };
  Share::GiveBack fail = [this](const PaidReply* reply) { record(reply), throw Interrupt(); };
  Reply first, second;
};

TEST_F(ShareTest, IsGivenBackOnceWhateverEndsTheCall) {
  Share().settle(&first);
  Share from(record), to(std::move(from)), failing(fail);
  from.settle(&first), to.settle(&second), to.settle(&first);
  { const Share settled(std::move(to)), left(record); }
  EXPECT_THROW(failing.settle(&first), Interrupt);
  failing.settle(&second);
  EXPECT_THROW({ const Share left(fail); }, Interrupt);
  EXPECT_EQ(runs, (std::vector<const PaidReply*>{&second, nullptr, &first, nullptr}));
}

TEST_F(ShareTest, AnErrorUnderWayGoesOnPastAFailingAction) {
  const auto call = [this] {
    const Share outer(fail), inner(fail);
    const std::shared_ptr<void> cleanup(nullptr, [this](void*) {
      EXPECT_THROW({ const Share share(fail); }, Interrupt);  // no error ends this inner scope
    });
    throw std::out_of_range("first");
  };
  EXPECT_THROW(call(), std::out_of_range);
  EXPECT_EQ(runs, std::vector<const PaidReply*>(3, nullptr));
}

TEST_F(ShareTest, IsSettledOnceByTwoThreadsAndItsOwnAction) {
  for (int round = 0; round < 100; ++round) {
    std::atomic<int> given_back = 0, ready = 0;
    Share share([&](const PaidReply*) { ++given_back, share.settle(nullptr); });
    const auto settle = [&] {
      for (++ready; ready != 2;) std::this_thread::yield();
      share.settle(nullptr);
    };
    std::jthread other(settle);
    settle(), other.join();
    ASSERT_EQ(given_back, 1);
  }
}

}  // namespace decision_bounds::test
