#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <variant>

#include "decision_bounds/export.hpp"
#include "decision_bounds/host.hpp"
#include "decision_bounds/paid_reply.hpp"
#include "decision_bounds/share.hpp"
#include "decision_bounds/stop_signal.hpp"

namespace decision_bounds {

/// The limits and counters of one batch pass. A count that would overflow stays at the largest
/// value.
struct RunCounts {
  std::int64_t max_calls = 0;     ///< paid calls at most, settled and in flight together
  std::int64_t max_tokens = 0;    ///< input tokens that the settled calls may use at most
  std::int64_t calls = 0;         ///< paid calls settled with their reply
  std::int64_t input_tokens = 0;  ///< input tokens of the settled calls
  double cost = 0.0;              ///< US dollars that the settled calls cost
  std::int64_t cache_hits = 0;    ///< answers from the cache, which are free
  std::int64_t in_flight = 0;     ///< calls admitted and not yet given back

  bool operator==(const RunCounts&) const = default;
};

/// "RunBudget(max_calls=2, ...)": every field as name=value, whatever the locale.
DECISION_BOUNDS_API std::string to_string(const RunCounts& counts,
                                          std::string_view name = "RunBudget");

/// One entry of a pass's summary; US dollars are rounded to 6 decimals.
struct SummaryEntry {
  std::string_view key;
  std::variant<std::int64_t, double> value;
  bool operator==(const SummaryEntry&) const = default;
};

/// The counts of a pass: calls, cache_hits, input_tokens, cost_usd, max_calls, max_tokens.
using RunSummary = std::array<SummaryEntry, 6>;

/// The summary of a pass with these counts.
DECISION_BOUNDS_API RunSummary summary_of(const RunCounts& counts);

/// "{'calls': 2, ...}", as it stands in the message of a refusal.
DECISION_BOUNDS_API std::string to_string(const RunSummary& summary);

/// The bound of one batch pass: so many paid calls, so many input tokens, and a stop signal. Any
/// thread may call any operation; all but stopping block for the budget's lock. Callers that wait
/// for room are admitted in no set order. A settlement happens before the admission that it makes
/// room for, so the admitted call sees what the settling one wrote.
class DECISION_BOUNDS_API RunBudget {
 public:
  /// A new pass. Throws std::invalid_argument when `should_stop` is empty. Uses a StdCondition when
  /// `changed` is null.
  RunBudget(std::int64_t max_calls, std::int64_t max_tokens, StopSignal should_stop = never,
            std::unique_ptr<Condition> changed = nullptr);
  /// Goes on from `counts`, for a pass that was begun elsewhere. Calls that they count as in flight
  /// use a slot but hold no tokens; they are ended with release or charge.
  explicit RunBudget(const RunCounts& counts, StopSignal should_stop = never,
                     std::unique_ptr<Condition> changed = nullptr);
  RunBudget(const RunBudget&) = delete;  // its shares know it by its address
  RunBudget& operator=(const RunBudget&) = delete;
  ~RunBudget();

  /// Admits one paid call that may use `tokens` input tokens at most (infinity: not known; such a
  /// call runs alone; a negative number makes room for others) and returns its share. Blocks while
  /// the calls in flight hold the rest of the tokens; sees a stop within 0.1 s. Throws
  /// DecisionStopped when the pass is stopping and DecisionBudgetExceeded when no call slot is free
  /// or the settled calls used up the tokens; what the stop signal throws propagates; then
  /// nothing is held. Settle the share with paid replies only: a cached one counts as a cache hit
  /// and leaves the slot and the tokens held.
  Share hold(double tokens);
  /// Like hold, without a share: the caller ends the call with exactly one release or charge.
  void reserve(double tokens = 0.0);
  /// Gives back the slot and the `tokens` of a call that ended without a paid reply, and wakes
  /// every waiting call.
  void release(double tokens = 0.0);
  /// Counts the reply of a call that reserved `tokens`, gives back what it held, and wakes every
  /// waiting call. A cached reply only counts as a cache hit, and needs no tokens. What reading the
  /// reply throws propagates after what the call held has been given back; but where cached() of a
  /// reply throws, `tokens` of 0 may stand for no call, and nothing changes.
  void charge(const PaidReply& reply, double tokens = 0.0);

  /// What the stop signal says now; what it throws propagates. Takes no lock.
  [[nodiscard]] bool stopping();
  /// Whether a new call would be refused for want of a slot or of tokens.
  [[nodiscard]] bool exhausted();
  [[nodiscard]] RunSummary summary();
  /// All counters, read in one step.
  [[nodiscard]] RunCounts counts();

 private:
  struct DECISION_BOUNDS_HIDDEN State;
  std::unique_ptr<State> state_;
};

}  // namespace decision_bounds
