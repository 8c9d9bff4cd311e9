#include <cstddef>
#include <numeric>
#include <set>

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

struct Call {
  double holds;
  const Reply* reply;  // that ends it
};

/// Runs calls on a bound of that limit. Whenever one waits, or takes the lock to be admitted,
/// others go on first as the choices say. Each must be admitted or refused when the rules say so,
/// none may wait for ever, and all that was held must return.
template <class Bound>
struct Interleaving {
  void run(const std::vector<Call>& calls) {
    for (const Call& call : calls) ready.emplace_back([this, call] { begin(call); });
    ready.emplace_back([this] { ++bound.changed->wakes; });  // as when a wait has lasted its time
    bound.changed->at_lock = [this] { let_others_go_first(); };
    bound.changed->at_wait = [this] { wait(); };
    while (!ready.empty()) go_on(choices.choose(ready.size()));
    if (settled < limit) bound.admit(not_known).settle(nullptr);  // finds room at once
  }

  void begin(const Call& call) {
    try {
      const auto share = std::make_shared<Share>(bound.admit(call.holds));
      EXPECT_LT(std::accumulate(held.begin(), held.end(), settled), limit);
      EXPECT_TRUE(call.holds != not_known || held.empty()) << "it must run alone";
      held.insert(call.holds);
      ready.emplace_back([=, this] { end(call, *share); });
    } catch (const DecisionBudgetExceeded&) {
      EXPECT_GE(settled, limit);
    }
  }

  void end(const Call& call, Share& share) {
    const int locks = bound.changed->locks;
    settling = true;
    share.settle(call.reply);
    settling = false;
    EXPECT_EQ(bound.changed->locks, locks + 1) << "others would see it half settled";
    if (call.reply != nullptr) settled += call.reply->fields.cost;
    held.erase(held.find(call.holds));
  }

  void let_others_go_first() {
    if (settling) return;
    while (const auto choice = choices.choose(ready.size() + 1)) go_on(choice - 1);
  }

  void wait() {
    const int before = bound.changed->wakes;
    while (bound.changed->wakes == before) go_on(choices.choose(ready.size()));
    let_others_go_first();
  }

  void go_on(std::size_t index) {
    const auto step = std::exchange(ready.at(index), ready.back());  // throws when none is left
    ready.pop_back();
    step();
  }

  Choices& choices;
  Bound& bound;
  bool settling = false;
  double settled = 0.0;
  std::multiset<double> held = {};
  std::vector<std::function<void()>> ready = {};  // calls to begin, and admitted ones to end
};

TYPED_TEST(BoundTest, NeverAdmitsTooMuchNorLosesAWakeUp) {
  const std::vector<Call> scenarios[] = {{{6, &paid}, {6, nullptr}, {6, &paid}},
                                         {{10, nullptr}, {not_known, &paid}, {3, &paid}},
                                         {{not_known, nullptr}, {10, &paid}, {10, nullptr}}};
  Choices choices;
  do {
    TypeParam bound;
    Interleaving<TypeParam>{choices, bound}.run(scenarios[choices.choose(3)]);
    ASSERT_FALSE(this->HasFailure()) << "on the path " << testing::PrintToString(choices.path);
  } while (choices.next_path());
}

}  // namespace decision_bounds::test
