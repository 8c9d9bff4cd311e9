#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "decision_bounds/export.hpp"
#include "decision_bounds/host.hpp"
#include "decision_bounds/paid_reply.hpp"
#include "decision_bounds/share.hpp"
#include "decision_bounds/stop_signal.hpp"

namespace decision_bounds {

/// Today's UTC date as "YYYY-MM-DD". Called with the account's lock held at each reading of the
/// day's spend; what it throws propagates.
using Today = std::function<std::string()>;
/// What the paid calls since the UTC date that it is given cost, in US dollars. Called with the
/// account's lock held, once for each change of day. A std::exception is logged, and the day begins
/// at 0; whatever else it throws propagates, and the day does not begin. Its answer is used as it
/// is. Empty: there is no ledger, each day begins at 0.
using Ledger = std::function<double(const std::string& day)>;
/// The most that a call may cost, in US dollars; infinity when that is not known. Such a call runs
/// alone, and while others keep coming it may wait for good: the lesser of that and a ceiling of
/// your own bounds it. Used as it is: a negative bound makes room for other calls. Called with the
/// account's lock held, before each test for room.
using CostBound = std::function<double()>;
/// A monotonic clock, in seconds.
using Clock = std::function<double()>;

/// The daily cost cap: what the paid calls of one UTC day cost, and what the calls in flight hold
/// of the cap. A call counts on the day on which it settles. Any thread may call any operation;
/// each blocks for the account's lock, and for the ledger when it begins a new day. The functions
/// that it is given must not wait for another thread that uses the same account. They may use the
/// account themselves; but the day begins when the ledger has answered, so a ledger that asks for
/// the day's spend is asked again, and must see to it that this ends. A settlement happens before
/// the admission that it makes room for, so the admitted call sees what the settling one wrote.
class DECISION_BOUNDS_API DailySpend {
 public:
  /// `cap`: US dollars that the paid calls of one day may cost; every call is refused where it is
  /// not above what the day has cost, NaN included. Throws std::invalid_argument when
  /// `today` is empty. Uses StdLogger::instance() when `logger` is null and a StdCondition when
  /// `changed` is null. `logger` must outlive the account.
  DailySpend(double cap, Today today, Ledger ledger, Logger* logger = nullptr,
             std::unique_ptr<Condition> changed = nullptr);
  DailySpend(const DailySpend&) = delete;  // its shares know it by its address
  DailySpend& operator=(const DailySpend&) = delete;
  ~DailySpend();

  /// Admits one paid call and returns its share of the cap. Blocks while the calls in flight hold
  /// the rest, at most until `deadline` (on the scale of `clock`; none: no limit); sees a stop
  /// within 0.1 s. Throws DecisionBudgetExceeded when the settled calls of today cost the cap (and
  /// logs the day's first refusal), DecisionTimeout, DecisionStopped, and whatever a function that
  /// it is given throws; then nothing is held. A call that is admitted or refused at once looks at
  /// neither the deadline nor `stopping`. Throws std::invalid_argument for an empty `bound` or
  /// `stopping`, and for an empty `clock` with a deadline.
  Share admit(const CostBound& bound, std::optional<double> deadline, const Clock& clock,
              const StopSignal& stopping);
  /// What the paid calls of today cost so far, in US dollars. Like every reading of the day's spend
  /// it may begin a new day: it asks the ledger then, and what `today` throws propagates.
  [[nodiscard]] double spent();
  /// Counts what an attempt cost that no share stands for: sent, and billed perhaps, but its reply
  /// was never read; wakes every waiting call. What `today` and the reply's cost throw propagates,
  /// and nothing is counted then. Only the cost is read, of a cached reply too, here and where a
  /// share is settled.
  void charge(const PaidReply& reply);

 private:
  struct DECISION_BOUNDS_HIDDEN State;
  std::unique_ptr<State> state_;
};

}  // namespace decision_bounds
