#pragma once

#include <optional>
#include <string>

#include "decision_bounds/host.hpp"
#include "decision_bounds/paid_reply.hpp"
#include "decision_bounds/run_budget.hpp"
#include "guard.hpp"
#include "held.hpp"

namespace decision_bounds::internal {

/// The operations of RunBudget, written once for every host. A host derives from it, says what its
/// stop signal is, and may put steps of its own in place of the virtual ones.
class RunBudgetSteps {
 public:
  RunBudgetSteps(RunCounts& counts, HeldAmounts& held, Condition& changed)
      : changed_(changed), counts_(counts), held_(held) {}
  RunBudgetSteps(const RunBudgetSteps&) = delete;
  RunBudgetSteps& operator=(const RunBudgetSteps&) = delete;

  void reserve(double tokens);
  void release(double tokens);
  /// `reserved`: what the call that ends reserved; none when there was no call, as for a cache hit.
  void charge(const PaidReply& reply, std::optional<double> reserved);
  /// Ends a call that reserved `tokens`: charges `reply`, or releases when there is none.
  void give_back(double tokens, const PaidReply* reply);
  bool exhausted();

  virtual bool stopping() = 0;
  virtual bool exhausted_locked() DECISION_BOUNDS_REQUIRES(changed_);
  virtual std::string printed_summary_locked() DECISION_BOUNDS_REQUIRES(changed_);
  /// Waits for room once; throws DecisionStopped.
  virtual void wait() DECISION_BOUNDS_REQUIRES(changed_);

  /// What `body` says with the lock held.
  template <class Body>
  auto locked(Body body) {
    Guard guard(changed_);
    auto answer = body();
    guard.unlock();
    return answer;
  }

 protected:
  ~RunBudgetSteps() = default;

  Condition& changed_;
  RunCounts& counts_ DECISION_BOUNDS_GUARDED_BY(changed_);

 private:
  void release_locked(double tokens) DECISION_BOUNDS_REQUIRES(changed_);
  void leave_locked(double tokens) DECISION_BOUNDS_REQUIRES(changed_);

  HeldAmounts& held_ DECISION_BOUNDS_GUARDED_BY(changed_);
};

}  // namespace decision_bounds::internal
