#include <cstddef>
#include <deque>

#include "fakes.hpp"

namespace decision_bounds::test {

struct ShareTest : testing::Test {
  using Replies = std::vector<const PaidReply*>;

  Replies given;  // what each run of an action was given
  Share::GiveBack fail = [this](const PaidReply* with) {
    given.push_back(with);
    throw Interrupt();
  };
};

TEST_F(ShareTest, IsGivenBackOnceHoweverItMovesAndWhateverItsActionDoes) {
  const Reply reply, late;
  {
    Share from(fail);
    Share to(std::move(from));
    from.settle(&late);  // NOLINT(bugprone-use-after-move): it may be used
    EXPECT_THROW(to.settle(&reply), Interrupt);
    to.settle(&late);
    const Share settled(std::move(to));
  }
  EXPECT_EQ(given, Replies{&reply});
  Share own([&](const PaidReply*) { own.settle(&late); });
  own.settle(&reply);
  Share().settle(&reply);
  EXPECT_THROW(Share(nullptr).settle(&reply), std::invalid_argument);
}

TEST_F(ShareTest, LetsTheErrorOfItsActionOutUnlessAnotherEndsItsScope) {
  EXPECT_THROW({ const Share share(fail); }, Interrupt);
  const auto clean_up = [this](void*) { const Share left(fail); };
  const auto call = [&] {
    const Share outer(fail);
    const Share inner(fail);
    const std::shared_ptr<void> cleaned_up(nullptr, clean_up);  // an error out of it is fatal
    throw std::out_of_range("ends this scope");
  };
  EXPECT_THROW(call(), std::out_of_range);
  EXPECT_EQ(given, Replies(4, nullptr));
}

TEST_F(ShareTest, IsGivenBackOnceByManyThreads) {
  std::atomic<std::size_t> runs = 0;
  std::deque<Share> shares;
  while (shares.size() < 1000000) shares.emplace_back([&](const PaidReply*) { ++runs; });
  on_threads(4, [&] {
    // The one behind passes what is settled faster, so they keep meeting.
    for (Share& share : shares) share.settle(nullptr);
  });
  EXPECT_EQ(runs, shares.size());
}

}  // namespace decision_bounds::test
