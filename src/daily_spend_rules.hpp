#pragma once

#include <optional>
#include <string>

#include "decision_bounds/daily_spend.hpp"
#include "decision_bounds/host.hpp"
#include "decision_bounds/paid_reply.hpp"
#include "held.hpp"
#include "waiting.hpp"

namespace decision_bounds::internal {

/// What a daily account knows of its day; all US dollars.
struct DailyAccount {
  double cap = 0.0;     ///< what the paid calls of one day may cost
  std::string day;      ///< the UTC date that `cost` counts; empty: no day yet
  double cost = 0.0;    ///< the ledger's figure at the start of the day and all counted since
  bool capped = false;  ///< whether the day's first refusal has been logged
};

/// The message of a call whose deadline passes while it waits for room in the day's cap.
inline constexpr const char* deadline_text =
    "the decision call ran out of its deadline while the calls in flight held the rest of the "
    "daily cost cap";

/// The operations of DailySpend, written once for every host. Owns no state: it refers to the
/// account, the held dollars and the condition that guards both. A host derives from it, says what
/// today's date and its ledger are, and may override the other virtual functions. Any thread may
/// call an operation as far as the host's parts allow it.
class DailySpendRules {
 public:
  DailySpendRules(DailyAccount& account, HeldAmounts& held, Condition& changed)
      : changed_(changed), account_(account), held_(held) {}
  DailySpendRules(const DailySpendRules&) = delete;
  DailySpendRules& operator=(const DailySpendRules&) = delete;

  /// Admits a call and returns what it holds now; ended by one give_back of the same amount.
  double admit(const CostBound& bound, std::optional<double> deadline, const Clock& clock,
               const StopSignal& stopping);
  double spent();
  void charge(const PaidReply& reply);
  /// Ends a call that was admitted with `held`. Whatever fails, `held` returns and the waiters
  /// wake.
  void give_back(double held, const PaidReply* reply);

  virtual std::string today() DECISION_BOUNDS_REQUIRES(changed_) = 0;
  virtual bool has_ledger() const = 0;
  virtual double ask_ledger(const std::string& day) DECISION_BOUNDS_REQUIRES(changed_) = 0;
  virtual Logger& logger() = 0;
  virtual double today_locked() DECISION_BOUNDS_REQUIRES(changed_);
  virtual double spent_since(const std::string& day) DECISION_BOUNDS_REQUIRES(changed_);
  /// Waits for room once; throws DecisionStopped or DecisionTimeout.
  virtual void wait(std::optional<double> deadline, const Clock& clock, const StopSignal& stopping)
      DECISION_BOUNDS_REQUIRES(changed_);
  /// The longest that one wait may last.
  virtual double poll_seconds() { return poll_s; }

 protected:
  ~DailySpendRules() = default;

  /// Called when a call that will hold `held` is about to be admitted. What the host needs for the
  /// share is made here, where a failure still leaves nothing to give back.
  virtual void prepare_share(double /*held*/) DECISION_BOUNDS_REQUIRES(changed_) {}

  Condition& changed_;

 private:
  DailyAccount& account_ DECISION_BOUNDS_GUARDED_BY(changed_);
  HeldAmounts& held_ DECISION_BOUNDS_GUARDED_BY(changed_);
};

}  // namespace decision_bounds::internal
