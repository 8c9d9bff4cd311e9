#include <cstddef>
#include <functional>
#include <memory>
#include <numeric>
#include <set>
#include <utility>
#include <vector>

#include "fakes.hpp"

namespace decision_bounds::test {

/// Answers the choices of a run so that run after run takes every path, depth first.
struct Choices {
  std::size_t choose(std::size_t options) {
    if (made == path.size()) path.emplace_back(0, options);
    return path[made++].first;
  }
  bool next_path() {
    made = 0;
    while (!path.empty() && path.back().first + 1 == path.back().second) path.pop_back();
    if (!path.empty()) ++path.back().first;
    return !path.empty();
  }

  std::vector<std::pair<std::size_t, std::size_t>> path;  // each choice, and out of how many
  std::size_t made = 0;
};

constexpr int limit = 10;
const Reply paid({.cost = 7.0, .tokens = 7});
const Reply unread({.unreadable = "cost"});

struct Call {
  double holds;
  const Reply* reply;  // that ends it
};

/// Runs calls on a bound of that limit. Whenever one waits, or takes the lock to be admitted,
/// others go on first as the choices say. Each must be admitted or refused when the rules say so,
/// none may wait for ever, and all that was held must return.
struct Interleaving {
  void run(const std::vector<Call>& calls) {
    for (const Call& call : calls) ready.emplace_back([this, call] { begin(call); });
    changed->at_lock = [this] { let_others_go_first(); };
    changed->at_wait = [this] { wait(); };
    while (!ready.empty()) go_on(choices.choose(ready.size()));
    if (settled < limit) admit(not_known).settle(nullptr);  // finds room at once
  }

  void begin(const Call& call) {
    const auto refused = message_of<DecisionBudgetExceeded>([&] {
      const auto share = std::make_shared<Share>(admit(call.holds));
      EXPECT_LT(std::accumulate(held.begin(), held.end(), settled), limit);
      EXPECT_TRUE(call.holds != not_known || held.empty()) << "it must run alone";
      held.insert(call.holds);
      ready.emplace_back([=, this] { end(call, *share); });
    });
    EXPECT_TRUE(refused.empty() || settled >= limit);
  }

  void end(const Call& call, Share& share) {
    const int locks = changed->locks;
    settling = true;
    try {
      share.settle(call.reply);
    } catch (const Interrupt&) {
      EXPECT_EQ(call.reply, &unread);
    }
    settling = false;
    EXPECT_EQ(changed->locks, locks + 1) << "others would see it half settled";
    if (call.reply != nullptr) settled += call.reply->fields.cost;
    held.erase(held.find(call.holds));
  }

  void let_others_go_first() {
    if (settling) return;
    while (const auto choice = choices.choose(ready.size() + 1)) go_on(choice - 1);
  }

  void wait() {
    const int before = changed->wakes;
    while (changed->wakes == before) {
      const bool may_time_out = timeouts > 0;
      const std::size_t choice = choices.choose(ready.size() + (may_time_out ? 1 : 0));
      if (may_time_out && choice == ready.size()) {
        --timeouts;
        break;
      }
      go_on(choice);  // throws when none is left to end the wait
    }
    let_others_go_first();
  }

  void go_on(std::size_t index) {
    const auto step = std::exchange(ready.at(index), ready.back());
    ready.pop_back();
    step();
  }

  Choices& choices;
  FakeCondition* changed;
  std::function<Share(double)> admit;
  int timeouts = 2;  // so many waits may end without a wake-up
  bool settling = false;
  double settled = 0.0;
  std::multiset<double> held = {};
  std::vector<std::function<void()>> ready = {};  // calls to begin, and admitted ones to end
};

TEST(InterleavingsTest, NoneAdmitsTooMuchOrLosesAWakeUp) {
  const std::vector<Call> scenarios[] = {{{6, &paid}, {6, &unread}, {6, &paid}},
                                         {{10, nullptr}, {not_known, &paid}, {3, &paid}},
                                         {{not_known, &unread}, {10, &paid}, {10, &unread}}};
  CountingLogger logger;
  Choices choices;
  do {
    auto* const of_pass = new FakeCondition;
    auto* const of_day = new FakeCondition;
    RunBudget budget(9, limit, never, std::unique_ptr<Condition>(of_pass));
    DailySpend spend(limit, one_day, nullptr, &logger, std::unique_ptr<Condition>(of_day));
    const bool day = choices.choose(2) == 1;
    const auto admit = [&](double holds) {
      return day ? spend.admit([=] { return holds; }, {}, nullptr, never) : budget.hold(holds);
    };
    Interleaving{choices, day ? of_day : of_pass, admit}.run(scenarios[choices.choose(3)]);
    ASSERT_FALSE(HasFailure()) << "on the path " << testing::PrintToString(choices.path);
  } while (choices.next_path());
}

}  // namespace decision_bounds::test
