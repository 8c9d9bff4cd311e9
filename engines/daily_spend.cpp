#include <functional>
#include <new>

#include "daily_spend_steps.hpp"
#include "host_spend.hpp"
#include "objects.hpp"
#include "reply.hpp"
#include "types.hpp"

namespace decision_bounds::python {

int DailySpendObject::traverse(visitproc visit, void* arg) const {
  Py_VISIT(today);
  Py_VISIT(ledger);
  Py_VISIT(held);
  return changed.traverse(visit, arg);
}

void DailySpendObject::clear() noexcept {
  python::clear(today);
  python::clear(ledger);
  python::clear(held);
  changed.clear();
}

namespace {

PyObject* create(PyTypeObject* type, PyObject*, PyObject*) {
  PyObject* self = entering([=] { return type->tp_alloc(type, 0); });
  if (self != nullptr)
    new (&reinterpret_cast<DailySpendObject*>(self)->account) internal::DailyAccount();
  return self;
}

void init(State& state, DailySpendObject& self, const Arguments& arguments) {
  constexpr Parameters<3> parameters{"DailySpend", {Name::cap, Name::today, Name::ledger}};
  const auto [cap_value, today_value, ledger_value] = sorted(state, parameters, arguments);
  const double cap = as_double(cap_value, "cap");
  Owned today = Owned::copy(as_callable(today_value, "today"));
  Owned ledger =
      Owned::copy(ledger_value == Py_None ? Py_None : as_callable(ledger_value, "ledger"));
  Owned held = call(reinterpret_cast<PyObject*>(state.held.type));
  Owned changed = call(reinterpret_cast<PyObject*>(state.condition.type));
  self.account = {.cap = cap, .day = {}};
  self.deleted = 0;
  replace(self.today, std::move(today));
  replace(self.ledger, std::move(ledger));
  replace(self.held, std::move(held));
  replace(self.changed.object, std::move(changed));
}

Owned spent(State& state, DailySpendObject& self, const Arguments& arguments) {
  sorted(state, Parameters<0>{"spent", {}}, arguments);
  return to_python(HostSpend(state, self).spent());
}

Owned admit(State& state, DailySpendObject& self, const Arguments& arguments) {
  constexpr Parameters<4> parameters{
      "admit", {Name::bound, Name::deadline, Name::clock, Name::stopping}, 1};
  const auto [bound, deadline, clock, stopping] = sorted(state, parameters, arguments);
  as_callable(bound, "bound");
  as_callable(clock, "clock");
  as_callable(stopping, "stopping");
  auto* object = reinterpret_cast<PyObject*>(&self);
  Owned share = new_share(state);
  Owned held;    // what bound() last said: nothing is left to allocate once it is held
  Owned action;  // of an account whose _give_back may be another
  HostSpend spend(state, self);
  const auto ask = [&, callable = bound] {
    held = as_float(call(callable).get(), "bound()");
    spend.set_dollars(held.get());
    action = Owned();
    if (!untouched(&self, state.daily_spend)) {
      const Owned give_back = get(object, state.name(Name::_give_back));
      action = call(state.partial, give_back.get(), held.get());
    }
    return PyFloat_AS_DOUBLE(held.get());
  };
  const Waiting waiting{deadline, clock, stopping};
  spend.run([&] { spend.admit(std::ref(ask), waiting); });
  if (action) {
    arm(share, Action::callable, action.get(), {});
  } else {
    arm(share, Action::daily_spend, object, std::move(held));
  }
  return share;
}

Owned charge(State& state, DailySpendObject& self, const Arguments& arguments) {
  constexpr Parameters<1> parameters{"charge", {Name::reply}};
  const HostReply paid(state, as_reply(sorted(state, parameters, arguments)[0], "reply"));
  HostSpend spend(state, self, Locking::must_go_on);
  spend.run([&] { spend.charge(paid); });
  return none();
}

}  // namespace

void give_back_dollars(State& state, PyObject* spend, PyObject* held, PyObject* reply) {
  HostSpend host(state, *reinterpret_cast<DailySpendObject*>(spend), Locking::must_go_on);
  host.set_dollars(held);
  const HostReply paid(state, reply);
  host.run([&] { host.give_back(PyFloat_AS_DOUBLE(held), reply == Py_None ? nullptr : &paid); });
}

namespace {

Owned give_back(State& state, DailySpendObject& self, const Arguments& arguments) {
  constexpr Parameters<2> parameters{"_give_back", {Name::held, Name::reply}};
  const auto [held, reply] = sorted(state, parameters, arguments);
  const Owned dollars = as_float(held, "held");
  give_back_dollars(state, reinterpret_cast<PyObject*>(&self), dollars.get(), reply);
  return none();
}

Owned today_locked(State& state, DailySpendObject& self,
                   const Arguments& arguments) DECISION_BOUNDS_NO_ANALYSIS {
  sorted(state, Parameters<0>{"_today_locked", {}}, arguments);
  return to_python(HostSpend(state, self).DailySpendSteps::today_locked());
}

Owned spent_since(State& state, DailySpendObject& self,
                  const Arguments& arguments) DECISION_BOUNDS_NO_ANALYSIS {
  constexpr Parameters<1> parameters{"_spent_since", {Name::day}};
  const std::string day = as_string(sorted(state, parameters, arguments)[0], "day");
  return to_python(HostSpend(state, self).DailySpendSteps::spent_since(day));
}

// ---- the type ----

Field cap_field{"_cap", offsetof(DailySpendObject, account.cap)};
Field today_field{"_today", offsetof(DailySpendObject, today), check_callable};
Field ledger_field{"_ledger", offsetof(DailySpendObject, ledger), check_callable_or_none};
Field changed_field{"_changed", offsetof(DailySpendObject, changed.object), check_condition};
Field held_field{"_held", offsetof(DailySpendObject, held), check_held};
Field day_field{"_day", offsetof(DailySpendObject, account.day)};
Field cost_field{"_cost", offsetof(DailySpendObject, account.cost)};
Field capped_field{"_capped", offsetof(DailySpendObject, account.capped)};
PyGetSetDef attributes[] = {double_field(cap_field),    object_field(today_field),
                            object_field(ledger_field), object_field(changed_field),
                            object_field(held_field),   text_field(day_field),
                            double_field(cost_field),   bool_field(capped_field),
                            dict_attribute(),           {}};
PyMethodDef methods[] = {
    method<spent>("spent",
                  "spent($self)\n--\n\n"
                  "What the paid calls of today (UTC) cost so far, in US dollars. Begins a new\n"
                  "day from the ledger when today() names another date; passes out what today()\n"
                  "raises. Blocks for the lock, and for the ledger on a new day."),
    method<admit>(
        "admit",
        "admit($self, bound, *, deadline, clock, stopping)\n--\n\n"
        "Admits one paid call and returns its Share of today's cap.\n\n"
        "bound: a function that gives the most that the call may cost, in US dollars;\n"
        "infinity when that is not known (such a call runs alone); a negative one makes\n"
        "room for others. Asked again after each wait.\n"
        "deadline: when the call ends, on the scale of clock, or None.\n"
        "clock: a function that gives the time in seconds, and never goes back.\n"
        "stopping: a function that says whether the call's pass is stopping.\n\n"
        "Blocks as spent() does, and while the calls in flight hold the rest of the cap.\n"
        "A call that is admitted or refused at once looks at neither the deadline nor\n"
        "stopping. Raises DecisionBudgetExceeded when the settled calls of today cost\n"
        "the cap (the day's first refusal is logged), DecisionTimeout when the deadline\n"
        "passes, DecisionStopped when the pass stops (seen within 0.1 s), and whatever\n"
        "the functions raise; then nothing is held. The functions are called with the\n"
        "lock held: they may use this account, and must not wait for another thread\n"
        "that does."),
    method<charge>("charge",
                   "charge($self, reply)\n--\n\n"
                   "Counts, in US dollars, an attempt that no share stands for: sent, and billed\n"
                   "perhaps, but its reply was never read. Wakes every waiting call. Only\n"
                   "reply.cost is read, of a cached reply too; what it or today() raises passes\n"
                   "out, and nothing is counted. Blocks as spent() does."),
    method<give_back>(
        "_give_back",
        "_give_back($self, held, reply)\n--\n\n"
        "Ends a call that was admitted with held US dollars: counts reply, unless it\n"
        "is None, on the day that it settles, returns held, and wakes every waiting\n"
        "call. held returns even when today() or reply.cost raises; that passes\n"
        "out. Blocks for the lock and, with a reply on a new day, for the ledger."),
    method<today_locked>("_today_locked",
                         "_today_locked($self)\n--\n\n"
                         "spent() for a caller that holds the lock of _changed."),
    method<spent_since>(
        "_spent_since",
        "_spent_since($self, day)\n--\n\n"
        "What the ledger says that the calls since day (\"YYYY-MM-DD\", UTC) cost,\n"
        "in US dollars; 0.0 without a ledger or, with a warning, when it fails."),
    {}};

}  // namespace

PyTypeObject* make_daily_spend_type(PyObject* module) {
  return make_type<DailySpendObject>(
      module,
      {.name = "decision_bounds.DailySpend",
       .doc = "DailySpend(cap, today, ledger)\n--\n\n"
              "The daily cost cap: what the paid calls of one UTC day cost, and what the calls in\n"
              "flight hold of the cap. A call counts on the day on which it settles.\n\n"
              "cap: US dollars that the paid calls of one day may cost. Every call is refused\n"
              "where it is not above what the day has cost, NaN included.\n"
              "today: a function that gives today's UTC date as \"YYYY-MM-DD\".\n"
              "ledger: a function that gives what the paid calls since such a date cost, in US\n"
              "dollars, asked once a day; or None.\n\n"
              "Both functions are called with the lock held. They must not wait for another\n"
              "thread that uses this account. They may use it themselves; but the day begins\n"
              "when the ledger has answered, so a ledger that calls spent() is asked again, and\n"
              "must see to it that this ends. Any thread may call any operation.",
       .methods = methods,
       .attributes = attributes,
       .init = init_slot<DailySpendObject, init>,
       .create = create});
}

}  // namespace decision_bounds::python
