#include <numeric>
#include <set>

#include "fakes.hpp"

namespace decision_bounds::test {

using Calls = std::vector<std::pair<double, double>>;  // what each would hold, and what it pays

/// Runs calls on a bound of 10. Whenever one waits, or takes the lock to be admitted, others go on
/// first as `choose` says. Each must be admitted or refused when the rules say so, none may wait
/// for ever, and all that was held must return.
struct Interleaving {
  void run(const Calls& calls) {
    for (const auto& each : calls)
      ready.emplace_back([=, this] { begin(each.first, each.second); });
    changed->at_lock = [this] {
      while (const std::size_t choice = settling ? 0 : choose(ready.size() + 1)) go_on(choice - 1);
    };
    changed->at_wait = [this] {
      for (const int before = changed->wakes; changed->wakes == before;) {
        const std::size_t choice = choose(ready.size() + (timeouts > 0 ? 1 : 0));
        if (choice == ready.size() && timeouts-- > 0) break;
        go_on(choice);
      }
      changed->at_lock();
    };
    while (!ready.empty()) go_on(choose(ready.size()));
    if (settled < 10.0) admit(not_known).settle(nullptr);  // finds room at once
  }

  void go_on(std::size_t index) {
    const auto step = std::exchange(ready.at(index), ready.back());
    ready.pop_back(), step();
  }

  void begin(double amount, double pays) {
    const auto refused = message_of<DecisionBudgetExceeded>([&] {
      const auto share = std::make_shared<Share>(admit(amount));
      EXPECT_LT(std::accumulate(held.begin(), held.end(), settled), 10.0);
      EXPECT_TRUE(amount != not_known || held.empty());
      held.insert(amount);
      ready.emplace_back([=, this] { end(*share, amount, pays); });
    });
    EXPECT_TRUE(refused.empty() || settled >= 10.0);
  }

  void end(Share& share, double amount, double pays) {  // pays below 0: the reply cannot be read
    const Reply reply(pays, static_cast<std::int64_t>(pays), pays < 0.0 ? "any" : "");
    const int locks = changed->locks;
    settling = true;
    message_of<Interrupt>([&] { share.settle(pays == 0.0 ? nullptr : &reply); });
    EXPECT_EQ(changed->locks, locks + 1) << "others would see it half settled";
    settling = false, settled += std::max(pays, 0.0), held.erase(held.find(amount));
  }

  std::function<std::size_t(std::size_t options)> choose;
  FakeCondition* changed;
  std::function<Share(double)> admit;
  bool settling = false;
  int timeouts = 2;  // so many waits may end without a wake-up
  double settled = 0.0;
  std::multiset<double> held = {};
  std::vector<std::function<void()>> ready = {};  // calls to begin, and admitted ones to end
};

TEST(InterleavingsTest, NoneAdmitsTooMuchOrLosesAWakeUp) {
  std::vector<std::pair<std::size_t, std::size_t>> path;  // each choice, and out of how many
  do {
    std::size_t depth = 0;
    const auto choose = [&](std::size_t options) {
      if (depth == path.size()) path.emplace_back(0, options);
      return path[depth++].first;
    };
    QuietLogger quiet;
    auto *of_pass = new FakeCondition, *of_day = new FakeCondition;
    RunBudget budget(9, 10, never, std::unique_ptr<Condition>(of_pass));
    DailySpend spend(10, one_day, {}, &quiet, std::unique_ptr<Condition>(of_day));
    const bool day = choose(2) == 1;
    const auto admit = [&](double amount) {
      return day ? spend.admit([&] { return amount; }, {}, {}, never) : budget.hold(amount);
    };
    const Calls calls[] = {{{6, 7}, {6, -1}, {6, 7}},
                           {{10, 0}, {not_known, 7}, {3, 7}},
                           {{not_known, -1}, {10, 7}, {10, -1}}};
    Interleaving{choose, day ? of_day : of_pass, admit}.run(calls[choose(3)]);
    if (HasFailure()) {
      std::string choices = "the choices that led there:";
      for (const auto& [choice, options] : path) choices.append(" ").append(std::to_string(choice));
      FAIL() << choices;
    }
    while (!path.empty() && ++path.back().first == path.back().second) path.pop_back();
  } while (!path.empty());
}

}  // namespace decision_bounds::test
