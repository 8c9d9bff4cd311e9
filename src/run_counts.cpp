// The counters of a pass as text and as a summary. Each counter is a row of the tables below.

#include <algorithm>
#include <iterator>
#include <tuple>

#include "decision_bounds/run_budget.hpp"
#include "numbers.hpp"

namespace decision_bounds {
namespace {

using Value = std::variant<std::int64_t, double>;

struct Counter {
  std::string_view name;
  std::variant<std::int64_t RunCounts::*, double RunCounts::*> member;

  [[nodiscard]] Value in(const RunCounts& counts) const {
    return std::visit([&](auto of) { return Value(counts.*of); }, member);
  }
};

// clang-format off
// In the order of the printed form.
constexpr Counter printed[] = {
    {"max_calls", &RunCounts::max_calls},
    {"max_tokens", &RunCounts::max_tokens},
    {"calls", &RunCounts::calls},
    {"input_tokens", &RunCounts::input_tokens},
    {"cost", &RunCounts::cost},
    {"cache_hits", &RunCounts::cache_hits},
    {"in_flight", &RunCounts::in_flight}};

// In the order of the summary.
constexpr Counter summarised[] = {
    {"calls", &RunCounts::calls},
    {"cache_hits", &RunCounts::cache_hits},
    {"input_tokens", &RunCounts::input_tokens},
    {"cost_usd", &RunCounts::cost},
    {"max_calls", &RunCounts::max_calls},
    {"max_tokens", &RunCounts::max_tokens}};
// clang-format on
static_assert(std::size(summarised) == std::tuple_size_v<RunSummary>);

SummaryEntry entry_of(const Counter& counter, const RunCounts& counts) {
  Value value = counter.in(counts);
  if (double* dollars = std::get_if<double>(&value)) *dollars = internal::micro_rounded(*dollars);
  return {counter.name, value};
}

std::string text_of(const Value& value) {
  const auto* count = std::get_if<std::int64_t>(&value);
  return count != nullptr ? std::to_string(*count) : internal::shortest(std::get<double>(value));
}

}  // namespace

std::string to_string(const RunCounts& counts, std::string_view name) {
  std::string text(name);
  for (const Counter& counter : printed) {
    text += &counter == printed ? "(" : ", ";
    text.append(counter.name).append("=").append(text_of(counter.in(counts)));
  }
  return text + ")";
}

RunSummary summary_of(const RunCounts& counts) {
  RunSummary summary;
  std::transform(std::begin(summarised), std::end(summarised), summary.begin(),
                 [&](const Counter& counter) { return entry_of(counter, counts); });
  return summary;
}

std::string to_string(const RunSummary& summary) {
  std::string text = "{";
  for (const auto& [key, value] : summary) {
    if (text.size() > 1) text += ", ";
    text.append("'").append(key).append("': ").append(text_of(value));
  }
  return text + "}";
}

}  // namespace decision_bounds
