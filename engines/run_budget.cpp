#include "host_budget.hpp"
#include "objects.hpp"
#include "reply.hpp"
#include "run_budget_steps.hpp"
#include "types.hpp"

namespace decision_bounds::python {

int RunBudgetObject::traverse(visitproc visit, void* arg) const {
  Py_VISIT(should_stop);
  Py_VISIT(held_tokens);
  return changed.traverse(visit, arg);
}

void RunBudgetObject::clear() noexcept {
  python::clear(should_stop);
  python::clear(held_tokens);
  changed.clear();
}

namespace {

RunCounts as_counts(std::span<PyObject* const> values) {
  return {.max_calls = as_int64(values[0], "max_calls"),
          .max_tokens = as_int64(values[1], "max_tokens"),
          .calls = int64_or_0(values[2], "calls"),
          .input_tokens = int64_or_0(values[3], "input_tokens"),
          .cost = double_or_0(values[4], "cost"),
          .cache_hits = int64_or_0(values[5], "cache_hits"),
          .in_flight = int64_or_0(values[6], "in_flight")};
}

void init(State& state, RunBudgetObject& self, const Arguments& arguments) {
  constexpr Parameters<10> parameters{
      "RunBudget",
      {Name::max_calls, Name::max_tokens, Name::calls, Name::input_tokens, Name::cost,
       Name::cache_hits, Name::in_flight, Name::should_stop, Name::_held_tokens, Name::_changed},
      10,
      2};
  const auto values = sorted(state, parameters, arguments);
  const RunCounts counts = as_counts(values);
  if (values[8] != nullptr) check_held(nullptr, values[8], "_held_tokens");
  if (values[9] != nullptr) check_condition(nullptr, values[9], "_changed");
  const auto or_new = [](PyObject* value, PyObject* factory) {
    return value != nullptr ? Owned::copy(value) : call(factory);
  };

  Owned should_stop =
      Owned::copy(values[7] != nullptr ? as_callable(values[7], "should_stop") : state.never);
  Owned held = or_new(values[8], reinterpret_cast<PyObject*>(state.held.type));
  Owned changed = or_new(values[9], reinterpret_cast<PyObject*>(state.condition.type));
  self.counts = counts;
  self.deleted = 0;

  replace(self.should_stop, std::move(should_stop));
  replace(self.held_tokens, std::move(held));
  replace(self.changed.object, std::move(changed));
}

Owned stopping(State& state, RunBudgetObject& self, const Arguments& arguments) {
  sorted(state, Parameters<0>{"stopping", {}}, arguments);
  return to_bool(should_stop(state, self));
}

Owned exhausted(State& state, RunBudgetObject& self, const Arguments& arguments) {
  sorted(state, Parameters<0>{"exhausted", {}}, arguments);
  return to_bool(HostBudget(state, self, Section::brief).exhausted());
}

Owned exhausted_locked(State& state, RunBudgetObject& self,
                       const Arguments& arguments) DECISION_BOUNDS_NO_ANALYSIS {
  sorted(state, Parameters<0>{"_exhausted_locked", {}}, arguments);
  return to_bool(HostBudget(state, self, Section::brief).RunBudgetSteps::exhausted_locked());
}

Owned summary(State& state, RunBudgetObject& self, const Arguments& arguments) {
  sorted(state, Parameters<0>{"summary", {}}, arguments);
  return HostBudget(state, self, Section::brief).summary();
}

Owned summary_locked(State& state, RunBudgetObject& self, const Arguments& arguments) {
  sorted(state, Parameters<0>{"_summary_locked", {}}, arguments);
  return as_dict(state, self.counts);
}

/// A tokens argument with a default of 0.
Owned tokens_or_0(PyObject* value) {
  return value != nullptr ? as_float(value, "tokens") : to_python(0.0);
}

Owned reserve(State& state, RunBudgetObject& self, const Arguments& arguments) {
  constexpr Parameters<1> parameters{"reserve", {Name::tokens}, 1, 0};
  const Owned tokens = tokens_or_0(sorted(state, parameters, arguments)[0]);
  HostBudget budget(state, self, Section::brief);
  budget.run(tokens.get(), [&](double amount) { budget.reserve(amount); });
  return none();
}

Owned hold(State& state, RunBudgetObject& self, const Arguments& arguments) {
  constexpr Parameters<1> parameters{"hold", {Name::tokens}};
  Owned tokens = as_float(sorted(state, parameters, arguments)[0], "tokens");
  auto* object = reinterpret_cast<PyObject*>(&self);
  Owned share = new_share(state);
  HostBudget budget(state, self, Section::brief);
  if (budget.is_untouched()) {
    budget.run(tokens.get(), [&](double amount) { budget.reserve(amount); });
  } else {
    call_method(object, state.name(Name::reserve), tokens.get());
  }
  arm(share, Action::run_budget, object, std::move(tokens));
  return share;
}

Owned release(State& state, RunBudgetObject& self, const Arguments& arguments) {
  constexpr Parameters<1> parameters{"release", {Name::tokens}, 1, 0};
  const Owned tokens = tokens_or_0(sorted(state, parameters, arguments)[0]);
  HostBudget budget(state, self, Section::brief, Locking::must_go_on);
  budget.run(tokens.get(), [&](double amount) { budget.release(amount); });
  return none();
}

Owned charge(State& state, RunBudgetObject& self, const Arguments& arguments) {
  constexpr Parameters<2> parameters{"charge", {Name::result, Name::tokens}, 2, 1};
  const auto [result, reserved] = sorted(state, parameters, arguments);
  const Owned tokens = tokens_or_0(reserved);
  const bool is_reserved = reserved != nullptr;
  const HostReply paid(state, as_reply(result, "result"));
  HostBudget budget(state, self, Section::calls_python, Locking::must_go_on);
  budget.run(tokens.get(), [&](double amount) {
    budget.charge(paid, is_reserved ? std::optional(amount) : std::nullopt);
  });
  return none();
}

}  // namespace

void give_back_tokens(State& state, PyObject* object, PyObject* tokens, PyObject* reply) {
  HostBudget budget(state, *reinterpret_cast<RunBudgetObject*>(object),
                    reply == Py_None ? Section::brief : Section::calls_python, Locking::must_go_on);
  if (budget.is_untouched()) {
    const HostReply paid(state, reply);
    budget.run(tokens, [&](double amount) {
      budget.give_back(amount, reply == Py_None ? nullptr : &paid);
    });
  } else if (reply == Py_None) {
    call_method(object, state.name(Name::release), tokens);
  } else {
    call_method(object, state.name(Name::charge), reply, tokens);
  }
}

namespace {

// ---- the type ----

Field max_calls_field{"max_calls", offsetof(RunBudgetObject, counts.max_calls)};
Field max_tokens_field{"max_tokens", offsetof(RunBudgetObject, counts.max_tokens)};
Field calls_field{"calls", offsetof(RunBudgetObject, counts.calls)};
Field input_tokens_field{"input_tokens", offsetof(RunBudgetObject, counts.input_tokens)};
Field cost_field{"cost", offsetof(RunBudgetObject, counts.cost)};
Field cache_hits_field{"cache_hits", offsetof(RunBudgetObject, counts.cache_hits)};
Field in_flight_field{"in_flight", offsetof(RunBudgetObject, counts.in_flight)};
Field stop_field{"should_stop", offsetof(RunBudgetObject, should_stop), check_callable};
Field held_field{"_held_tokens", offsetof(RunBudgetObject, held_tokens), check_held};
Field changed_field{"_changed", offsetof(RunBudgetObject, changed.object), check_condition};
PyGetSetDef attributes[] = {int64_field(max_calls_field),
                            int64_field(max_tokens_field),
                            int64_field(calls_field),
                            int64_field(input_tokens_field),
                            double_field(cost_field),
                            int64_field(cache_hits_field),
                            int64_field(in_flight_field),
                            object_field(stop_field),
                            object_field(held_field),
                            object_field(changed_field),
                            dict_attribute(),
                            {}};
PyMethodDef methods[] = {
    method<stopping>("stopping",
                     "stopping($self)\n--\n\n"
                     "What should_stop() says now, as a bool; passes out what it raises. Takes no\n"
                     "lock."),
    method<exhausted>(
        "exhausted",
        "exhausted($self)\n--\n\n"
        "Whether a new call would be refused: no call slot is free (calls in flight\n"
        "count as used), or the settled calls used up the input tokens. Blocks only for\n"
        "the lock."),
    method<exhausted_locked>("_exhausted_locked",
                             "_exhausted_locked($self)\n--\n\n"
                             "exhausted() for a caller that holds the lock of _changed."),
    method<summary>(
        "summary",
        "summary($self)\n--\n\n"
        "The pass's counts and limits, a new dict: calls, cache_hits, input_tokens,\n"
        "cost_usd (US dollars, rounded to 6 decimals), max_calls, max_tokens. Blocks only\n"
        "for the lock."),
    method<summary_locked>("_summary_locked",
                           "_summary_locked($self)\n--\n\n"
                           "summary() for a caller that holds the lock of _changed."),
    method<reserve>("reserve",
                    "reserve($self, tokens=0.0)\n--\n\n"
                    "Admits one paid call that may use tokens input tokens at most (infinity: not\n"
                    "known; such a call runs alone; a negative number makes room for others). The\n"
                    "caller ends it with exactly one release or charge; hold() sees to that.\n\n"
                    "Blocks while the calls in flight hold the rest of the tokens; sees a stop\n"
                    "within 0.1 s. Raises DecisionStopped when the pass is stopping and\n"
                    "DecisionBudgetExceeded when no call slot is free or the settled calls used\n"
                    "up the tokens, and passes out what should_stop raises; then nothing is held."),
    method<hold>("hold",
                 "hold($self, tokens)\n--\n\n"
                 "Admits one paid call as reserve(tokens) does, and returns its Share: settled\n"
                 "with the reply it charges it, settled with None it releases the call."),
    method<release>("release",
                    "release($self, tokens=0.0)\n--\n\n"
                    "Gives back the slot and the tokens of a call that ended without a paid\n"
                    "reply, and wakes every waiting call. Blocks only for the lock."),
    method<charge>("charge",
                   "charge($self, result, tokens=0.0)\n--\n\n"
                   "Counts the reply of a call that reserved tokens, gives back what the call\n"
                   "held, and wakes every waiting call. A cached result only counts as a cache\n"
                   "hit, and needs no tokens. What reading the result raises passes out after\n"
                   "what the call held has been given back; without tokens a result whose cached\n"
                   "cannot be read changes nothing. Blocks only for the lock."),
    {}};

}  // namespace

PyTypeObject* make_run_budget_type(PyObject* module) {
  return make_type<RunBudgetObject>(
      module,
      {.name = "decision_bounds.RunBudget",
       .doc = "The bound of one batch pass: paid calls, input tokens, and a stop signal.\n\n"
              "max_calls: paid calls at most, settled and in flight together.\n"
              "max_tokens: input tokens that the settled calls may use at most.\n"
              "should_stop: a function without arguments that says whether the pass is to\n"
              "stop. It may be called with the lock held, may read this budget, and must\n"
              "not wait for another thread that uses it.\n\n"
              "The other fields are counters (cost in US dollars). Counts and limits are\n"
              "integers of 64 bits: a sum stays at the largest, and an argument or a reply's\n"
              "input_tokens beyond raises OverflowError. Any thread may call any operation;\n"
              "calls that wait for room are admitted in no set order. Equal to another\n"
              "budget with the same limits and counters.",
       .methods = methods,
       .attributes = attributes,
       .init = init_slot<RunBudgetObject, init>,
       .repr = repr_slot<RunBudgetObject, &RunBudgetObject::counts>,
       .compare = compare_slot<RunBudgetObject, &RunBudgetObject::counts>});
}

}  // namespace decision_bounds::python
