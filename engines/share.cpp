#include "objects.hpp"
#include "types.hpp"

namespace decision_bounds::python {

int ShareObject::traverse(visitproc visit, void* arg) const {
  Py_VISIT(target);
  Py_VISIT(amount);
  return 0;
}

void ShareObject::clear() noexcept {
  python::clear(target);
  python::clear(amount);
}

namespace {

// ---- the action as a Python object ----

PyObject* give_back_entry(PyObject* pair, PyObject* reply) {
  return guarded<PyObject*>(nullptr, nullptr, [=] {
    PyObject* budget = PyTuple_GET_ITEM(pair, 0);
    give_back_tokens(state_of(budget), budget, PyTuple_GET_ITEM(pair, 1), reply);
    return none().release();
  });
}

PyMethodDef give_back_function = {
    "give_back", give_back_entry, METH_O,
    "give_back(reply, /)\n--\n\n"
    "Gives back what the call held of its pass: charges reply, or releases when it is None."};

Owned tokens_action(PyObject* budget, PyObject* tokens) {
  const Owned pair = checked([=] { return PyTuple_Pack(2, budget, tokens); });
  return checked([&] { return PyCFunction_New(&give_back_function, pair.get()); });
}

/// What the account's _give_back was when the share was handed out: it was untouched.
Owned dollars_action(const State& state, PyObject* spend, PyObject* held) {
  const Owned give_back = checked([&] {
    return Py_TYPE(state.give_back)
        ->tp_descr_get(state.give_back, spend, reinterpret_cast<PyObject*>(Py_TYPE(spend)));
  });
  return call(state.partial, give_back.get(), held);
}

/// Puts the action's Python object in the place of what it stands for.
void materialise(const State& state, ShareObject& self) {
  if (self.action != Action::run_budget && self.action != Action::daily_spend) return;
  const Owned bound = Owned::copy(self.target);
  const Owned amount = Owned::copy(self.amount);
  Owned action = self.action == Action::run_budget
                     ? tokens_action(bound.get(), amount.get())
                     : dollars_action(state, bound.get(), amount.get());
  if (self.target != bound.get()) return;  // looking the action up settled the share
  self.action = Action::callable;
  replace(self.target, std::move(action));
  python::clear(self.amount);
}

PyObject* get_action(PyObject* object, void*) {
  auto& self = *reinterpret_cast<ShareObject*>(object);
  return guarded<PyObject*>(nullptr, nullptr, [&] {
    if (self.action == Action::unset) raise_unset(object, "_give_back");
    materialise(state_of(object), self);
    if (self.action == Action::done) return none().release();
    return Owned::copy(set_or_raise(self.target, object, "_give_back")).release();
  });
}

void set_action(ShareObject& self, Action action, PyObject* target) noexcept {
  self.action = action;
  const Owned amount = replace(self.amount, {});
  const Owned before = replace(self.target, Owned::copy(target));
}

int set_action_attribute(PyObject* self, PyObject* value, void*) {
  return guarded<int>(nullptr, -1, [&] {
    auto& share = *reinterpret_cast<ShareObject*>(self);
    if (value == nullptr) {
      if (share.action == Action::unset) raise_unset(self, "_give_back");
      set_action(share, Action::unset, nullptr);
    } else if (value == Py_None) {
      set_action(share, Action::done, nullptr);
    } else {
      set_action(share, Action::callable, as_callable(value, "_give_back"));
    }
    return 0;
  });
}

// ---- the share ----

void init(State& state, ShareObject& self, const Arguments& arguments) {
  constexpr Parameters<1> parameters{"Share", {Name::give_back}, 1, 0};
  PyObject* give_back = sorted(state, parameters, arguments)[0];
  set_action(self, Action::callable,
             give_back != nullptr ? as_callable(give_back, "give_back") : state.nothing);
}

void settle_with(State& state, ShareObject& self, PyObject* reply) {
  if (self.action == Action::unset) raise_unset(reinterpret_cast<PyObject*>(&self), "_give_back");
  const Action action = std::exchange(self.action, Action::done);
  const Owned target = replace(self.target, {});
  const Owned amount = replace(self.amount, {});
  switch (action) {
    case Action::run_budget:
      return give_back_tokens(state, target.get(), amount.get(), reply);
    case Action::daily_spend:
      return give_back_dollars(state, target.get(), amount.get(), reply);
    case Action::callable:
      call(target.get(), reply);
      return;
    case Action::unset:
    case Action::done:
      return;
  }
}

Owned settle(State& state, ShareObject& self, const Arguments& arguments) {
  constexpr Parameters<1> parameters{"settle", {Name::reply}};
  settle_with(state, self, sorted(state, parameters, arguments)[0]);
  return none();
}

PyObject* enter(PyObject* self, PyObject*) { return Py_NewRef(self); }

Owned exit(State& state, ShareObject& self, const Arguments& arguments) {
  if (arguments.keyword_names != nullptr) {
    raise(PyExc_TypeError, "__exit__() takes no keyword arguments");
  }
  if (untouched(&self, state.share)) {
    settle_with(state, self, Py_None);
  } else {
    call_method(reinterpret_cast<PyObject*>(&self), state.name(Name::settle), Py_None);
  }
  return none();
}

}  // namespace

Owned new_share(const State& state) {
  PyTypeObject* type = state.share.type;
  return checked([=] { return type->tp_alloc(type, 0); });
}

void arm(const Owned& share, Action action, PyObject* bound, Owned amount) noexcept {
  auto& self = *reinterpret_cast<ShareObject*>(share.get());
  self.action = action;
  self.target = Owned::copy(bound).release();
  self.amount = amount.release();
}

PyTypeObject* make_share_type(PyObject* module) {
  static PyGetSetDef attributes[] = {
      {"_give_back", get_action, set_action_attribute, nullptr, nullptr}, dict_attribute(), {}};
  static PyMethodDef methods[] = {
      method<settle>(
          "settle",
          "settle($self, reply)\n--\n\n"
          "Gives the share back, counting reply (a PaidReply, or None when the call was\n"
          "not paid). A share given back already ignores it. The share counts as given\n"
          "back even when its action raises; that error passes out. Any thread may call\n"
          "it. It blocks as its action does: for the bound's lock and, where a reply\n"
          "begins a new day, for the ledger."),
      {"__enter__", enter, METH_NOARGS, "__enter__($self)\n--\n\nReturns the share itself."},
      method<exit>("__exit__",
                   "__exit__($self, /, *error)\n--\n\n"
                   "Does settle(None); the error that ended the block, if any, goes on."),
      {}};
  return make_type<ShareObject>(
      module, {.name = "decision_bounds.Share",
               .doc = "What one admitted call holds of a bound, given back exactly once.\n\n"
                      "Use it in a with block: settle(reply) inside the block counts the paid\n"
                      "reply; leaving the block in any other way gives the share back uncounted.\n"
                      "give_back is called with the reply, or None, once.\n\n"
                      "Dropping the last reference to an unsettled share is not the end of its\n"
                      "scope: it gives nothing back, and what the call held stays held.",
               .methods = methods,
               .attributes = attributes,
               .init = init_slot<ShareObject, init>});
}

}  // namespace decision_bounds::python
