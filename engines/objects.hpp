#pragma once

// The module's objects, as the interpreter allocates them: zeroed, not constructed. Each says what
// the garbage collector must see, and lets go of it. The interpreter reads the header of what was
// destroyed, so no destructor may touch that.

#include "charges.hpp"
#include "daily_spend_steps.hpp"
#include "decision_bounds/run_budget.hpp"
#include "held.hpp"
#include "lock_fields.hpp"

namespace decision_bounds::python {

struct HeldObject {
  PyObject_HEAD
  std::uint32_t deleted;
  internal::Held record;
  PyObject *dict, *weakrefs;

  int traverse(visitproc visit, void* arg) const;
  void clear() noexcept;
};

struct ChargesObject {
  PyObject_HEAD
  std::uint32_t deleted;
  internal::Charges record;
  PyObject *dict, *weakrefs;

  int traverse(visitproc visit, void* arg) const;
  void clear() noexcept;
};

/// What settling a share does.
enum class Action : int {
  unset,        // __init__ has not run
  done,         // given back
  callable,     // call `target`
  run_budget,   // give `amount` back to the RunBudget `target`
  daily_spend,  // give `amount` back to the DailySpend `target`
};

/// A share handed out by a bound makes its action a Python object only when somebody asks for it.
struct ShareObject {
  PyObject_HEAD
  Action action;
  PyObject *target, *amount;
  PyObject *dict, *weakrefs;

  /// Whether freeing it frees nothing else: it holds nothing, and no weak reference calls anybody.
  [[nodiscard]] bool is_leaf() const noexcept {
    return target == nullptr && dict == nullptr && weakrefs == nullptr;
  }
  int traverse(visitproc visit, void* arg) const;
  void clear() noexcept;
};

struct RequestRatesObject {
  PyObject_HEAD
  LockField lock;
  PyObject *cost, *tokens, *features;
  PyObject *dict, *weakrefs;

  int traverse(visitproc visit, void* arg) const;
  void clear() noexcept;
};

struct RunBudgetObject {
  PyObject_HEAD
  std::uint32_t deleted;
  RunCounts counts;
  PyObject *should_stop, *held_tokens;
  ConditionField changed;
  PyObject *dict, *weakrefs;

  int traverse(visitproc visit, void* arg) const;
  void clear() noexcept;
};

struct DailySpendObject {
  PyObject_HEAD
  std::uint32_t deleted;
  internal::DailyAccount account;
  PyObject *today, *ledger, *held;
  ConditionField changed;
  PyObject *dict, *weakrefs;

  int traverse(visitproc visit, void* arg) const;
  void clear() noexcept;
};

/// A new share whose action is not set yet; made before its call is admitted, so that nothing can
/// fail once something is held.
Owned new_share(const State& state);
/// Makes `share` stand for `amount` (a float) of `bound`.
void arm(const Owned& share, Action action, PyObject* bound, Owned amount) noexcept;

/// What settling a share of a bound does; `reply` is None where the call was not paid.
void give_back_tokens(State& state, PyObject* budget, PyObject* tokens, PyObject* reply);
void give_back_dollars(State& state, PyObject* spend, PyObject* held, PyObject* reply);

PyTypeObject* make_held_type(PyObject* module);
PyTypeObject* make_charges_type(PyObject* module);
PyTypeObject* make_share_type(PyObject* module);
PyTypeObject* make_request_rates_type(PyObject* module);
PyTypeObject* make_run_budget_type(PyObject* module);
PyTypeObject* make_daily_spend_type(PyObject* module);

}  // namespace decision_bounds::python
