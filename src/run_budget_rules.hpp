#pragma once

#include <string>

#include "decision_bounds/host.hpp"
#include "decision_bounds/paid_reply.hpp"
#include "decision_bounds/run_budget.hpp"
#include "guard.hpp"
#include "held.hpp"
#include "waiting.hpp"

namespace decision_bounds::internal {

/// The operations of RunBudget, written once for every host. Owns no state: it refers to the
/// counters, the held tokens and the condition that guards both. A host derives from it, answers
/// stopping(), and may override the other virtual functions. Any thread may call an operation as
/// far as the host's parts allow it.
class RunBudgetRules {
 public:
  RunBudgetRules(RunCounts& counts, HeldAmounts& held, Condition& changed)
      : changed_(changed), counts_(counts), held_(held) {}
  RunBudgetRules(const RunBudgetRules&) = delete;
  RunBudgetRules& operator=(const RunBudgetRules&) = delete;

  void reserve(double tokens);
  void release(double tokens);
  /// Counts `reply` and gives back what a call that reserved `tokens` holds. Where `reply.cached()`
  /// throws, nothing says whether there is such a call. Other than 0 `tokens` stand for one, which
  /// ends; with 0 nothing changes, lest the slot of another call be given back.
  void charge(const PaidReply& reply, double tokens);
  [[nodiscard]] static bool stands_for_a_call(double tokens) noexcept { return tokens != 0.0; }
  /// Ends the call of a share: charges `reply`, or releases when there is none.
  void give_back(double tokens, const PaidReply* reply);
  bool exhausted();
  /// What `read` says with the lock held.
  template <class Read>
  auto locked(Read read) {
    Guard guard(changed_);
    auto answer = read();
    guard.unlock();
    return answer;
  }

  virtual bool stopping() = 0;
  virtual bool exhausted_locked() DECISION_BOUNDS_REQUIRES(changed_);
  virtual std::string printed_summary_locked() DECISION_BOUNDS_REQUIRES(changed_);
  /// Waits for room once; throws DecisionStopped.
  virtual void wait() DECISION_BOUNDS_REQUIRES(changed_);
  /// The longest that one wait may last.
  virtual double poll_seconds() { return poll_s; }

 protected:
  ~RunBudgetRules() = default;

  /// How a share ends its call; here whatever the reply does, the call ends.
  virtual void end_unpaid(double tokens) { release(tokens); }
  virtual void end_paid(const PaidReply& reply, double tokens) { charge(reply, tokens, true); }

  Condition& changed_;
  RunCounts& counts_ DECISION_BOUNDS_GUARDED_BY(changed_);

 private:
  void charge(const PaidReply& reply, double tokens, bool ends_call);
  /// Ends a call without a reply, and wakes the waiters.
  void release_locked(double tokens) DECISION_BOUNDS_REQUIRES(changed_);
  /// Takes a call out of those in flight: at each of its ends, and where its admission is undone.
  void leave_locked(double tokens) DECISION_BOUNDS_REQUIRES(changed_);

  HeldAmounts& held_ DECISION_BOUNDS_GUARDED_BY(changed_);
};

}  // namespace decision_bounds::internal
