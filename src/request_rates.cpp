#include "decision_bounds/request_rates.hpp"

#include <string>
#include <unordered_set>
#include <utility>

#include "charges.hpp"
#include "decision_bounds/std_host.hpp"
#include "request_rates_rules.hpp"

namespace decision_bounds {
namespace {

/// A feature to look up. Its hash is computed once, before the lock is taken.
struct Feature {
  Feature() = default;
  explicit Feature(std::string_view name) : text(name), hash(std::hash<std::string_view>()(name)) {}

  std::string_view text;
  std::size_t hash = 0;
};

bool operator==(const Feature& feature, const std::string& text) { return feature.text == text; }

// Not noexcept: the standard library's set then keeps the hashes of its texts, where it would
// compute those of a whole bucket anew at each look-up.
struct FeatureHash {
  using is_transparent = void;
  std::size_t operator()(const Feature& feature) const { return feature.hash; }
  std::size_t operator()(const std::string& text) const { return Feature(text).hash; }
};
using FeatureSet = std::unordered_set<std::string, FeatureHash, std::equal_to<>>;

class SetFeatures {
 public:
  explicit SetFeatures(FeatureSet& all, const Feature& one = {}) : all_(all), one_(one) {}

  [[nodiscard]] bool empty() const { return all_.empty(); }
  [[nodiscard]] bool known() const { return all_.contains(one_); }
  void add() {
    if (!known()) all_.emplace(one_.text);
  }

 private:
  FeatureSet& all_;
  Feature one_;
};

}  // namespace

struct RequestRates::State {
  explicit State(std::unique_ptr<Lock> own) : lock(std::move(own)) {}

  std::unique_ptr<Lock> lock;
  internal::Charges cost, tokens;
  FeatureSet features;
  internal::RequestRatesRules<internal::Charges, SetFeatures> rules{*lock, cost, tokens};
};

RequestRates::RequestRates(std::unique_ptr<Lock> lock)
    : state_(std::make_unique<State>(lock ? std::move(lock) : std::make_unique<StdLock>())) {}

RequestRates::~RequestRates() = default;

double RequestRates::cost(std::int64_t size, std::string_view feature) {
  SetFeatures features(state_->features, Feature(feature));
  return state_->rules.cost(size, features);
}

double RequestRates::tokens(std::int64_t size) {
  SetFeatures features(state_->features);
  return state_->rules.tokens(size, features);
}

void RequestRates::learn(std::int64_t size, std::string_view feature, const PaidReply& reply) {
  SetFeatures features(state_->features, Feature(feature));
  state_->rules.learn(size, features, reply);
}

}  // namespace decision_bounds
