#include <atomic>
#include <cstddef>
#include <deque>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include "fakes.hpp"

namespace decision_bounds::test {

struct ShareTest : testing::Test {
  using Replies = std::vector<const PaidReply*>;

  Replies given;  // what each run of an action was given
  Share::GiveBack record = [this](const PaidReply* with) { given.push_back(with); };
  Share::GiveBack fail = [this](const PaidReply* with) {
    record(with);
    throw Interrupt();
  };
  Reply reply;
  Reply late;
};

TEST_F(ShareTest, IsGivenBackOnceWithTheFirstReplyOrWithoutOne) {
  {
    Share settled(record);
    settled.settle(&reply);
    settled.settle(&late);
    const Share left(record);
  }
  EXPECT_EQ(given, (Replies{&reply, nullptr}));
}

TEST_F(ShareTest, HoldsNothingOnceMovedFrom) {
  Share from(record);
  Share to(std::move(from));
  from.settle(&reply);  // NOLINT(bugprone-use-after-move): it may be used
  to.settle(&late);
  const Share settled(std::move(to));
  EXPECT_EQ(given, Replies{&late});
}

TEST_F(ShareTest, OfNothingDoesNothing) {
  Share().settle(&reply);
  EXPECT_THROW(Share(nullptr).settle(&reply), std::invalid_argument);
}

TEST_F(ShareTest, CountsAsGivenBackWhenItsActionFails) {
  Share share(fail);
  EXPECT_THROW(share.settle(&reply), Interrupt);
  share.settle(&late);
  EXPECT_EQ(given, Replies{&reply});
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

TEST_F(ShareTest, IsGivenBackOnceByTwoThreadsAndItsOwnAction) {
  constexpr std::size_t count = 200000;
  std::atomic<std::size_t> runs = 0;
  std::deque<Share> shares;
  for (std::size_t i = 0; i < count; ++i) {
    shares.emplace_back([&, i](const PaidReply*) {
      ++runs;
      shares[i].settle(nullptr);
    });
  }
  on_threads(2, [&] {
    // The one behind passes what is settled faster, so the two keep meeting.
    for (Share& share : shares) share.settle(nullptr);
  });
  EXPECT_EQ(runs, count);
}

}  // namespace decision_bounds::test
