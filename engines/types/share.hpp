#pragma once

#include "host/state.hpp"

namespace decision_bounds::python {

/// How a share gives back what its call holds. Each kind of bound has one, static; so a share need
/// not know the bounds, and a call costs no Python object for an action that hardly anybody reads.
struct GiveBack {
  /// Ends the call: `amount` of `target`, and the reply, None where the call was not paid.
  void (*end)(State& state, PyObject* target, PyObject* amount, PyObject* reply);
  /// The action as what a host sees in `_give_back`: a function of a reply or None.
  Owned (*as_object)(State& state, PyObject* target, PyObject* amount);
};

/// The give-back of a share whose `target` is itself a function of a reply or None.
extern const GiveBack calls_target;

struct ShareObject {
  ObjectHead head;
  const GiveBack* how;  // null: never set
  PyObject *target, *amount;
};

/// A new share that holds nothing yet. Made before its call is admitted, so that nothing can fail
/// once something is held.
Owned new_share(const State& state);
/// Makes `share` hold `amount` (a float) of `target`.
void arm(const Owned& share, const GiveBack& how, PyObject* target, Owned amount) noexcept;

}  // namespace decision_bounds::python
