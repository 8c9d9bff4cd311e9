#include "types/share.hpp"

#include "settle_once.hpp"
#include "types/method.hpp"

namespace decision_bounds::python {

constexpr GiveBack calls_target{
    [](State&, PyObject* target, PyObject*, PyObject* reply) { call(target, reply); },
    [](State&, PyObject* target, PyObject*) { return Owned::copy(target); }};

namespace {

/// Of a share that counts against no bound: `target` is _nothing, and nobody misses its call.
constexpr GiveBack gives_nothing_back = calls_target;

/// Of a share that has been given back: there is no target.
constexpr GiveBack given_back{[](State&, PyObject*, PyObject*, PyObject*) {},
                              [](State&, PyObject*, PyObject*) { return none(); }};

constexpr Field share_fields[] = {{nullptr, DECISION_BOUNDS_PLACE(ShareObject, target)},
                                  {nullptr, DECISION_BOUNDS_PLACE(ShareObject, amount)}};

/// What was in a share.
struct Action {
  const GiveBack* how;
  Owned target, amount;
};

/// Puts another action into the share, and hands out what was in it.
Action exchange(ShareObject& self, const GiveBack* how, Owned target) noexcept {
  return {std::exchange(self.how, how), replace(self.target, std::move(target)),
          replace(self.amount, {})};
}

ShareObject& set_share(PyObject* self) {
  auto& share = *reinterpret_cast<ShareObject*>(self);
  const bool cleared = share.target == nullptr && share.how != &given_back;  // by the collector
  if (share.how == nullptr || cleared) raise_unset(self, "_give_back");
  return share;
}

PyObject* get_action(PyObject* self, void*) {
  return guarded<PyObject*>(nullptr, [=] {
    State& state = state_of(self);
    auto& share = set_share(self);
    const GiveBack* how = share.how;
    const Owned target = Owned::copy(share.target);
    const Owned amount = Owned::copy(share.amount);
    Owned action = how->as_object(state, target.get(), amount.get());
    // To make the action may have run Python code that settled the share, or gave it another.
    if (share.target != target.get()) return get_action(self, nullptr);
    if (how != &given_back && how != &gives_nothing_back) {
      const Action before = exchange(share, &calls_target, Owned::copy(action.get()));
    }
    return action.release();
  });
}

int set_action(PyObject* self, PyObject* value, void*) {
  return guarded<int>(-1, [=] {
    auto& share = *reinterpret_cast<ShareObject*>(self);
    const GiveBack* how = value == Py_None ? &given_back : &calls_target;
    if (value != nullptr) {
      check_callable_or_none(value, "_give_back");
    } else {
      set_share(self);  // raises where it is deleted already
      how = nullptr;
    }
    const Action before = exchange(share, how, Owned::copy(value));
    return 0;
  });
}

int init(PyObject* self, PyObject* arguments, PyObject* keywords) {
  return guarded<int>(-1, [=] {
    const State& state = state_of(self);
    PyObject* nothing = state[Kept::nothing];
    PyObject* action = nullptr;
    sort_arguments(stub::Share, arguments_of_init(arguments, keywords), {&action, 1});
    if (action == nullptr) action = nothing;
    check_callable(action, "give_back");
    const Action before =
        exchange(*reinterpret_cast<ShareObject*>(self),
                 action == nothing ? &gives_nothing_back : &calls_target, Owned::copy(action));
    return 0;
  });
}

void settle(State& state, ShareObject& self, PyObject* reply) {
  set_share(object_of(self));
  // The interpreter's lock makes the exchange one step.
  struct Taken : Action {
    State* state;
    explicit operator bool() const noexcept { return how != &given_back; }
    void operator()(PyObject* paid) const { how->end(*state, target.get(), amount.get(), paid); }
  };
  internal::settle_once([&] { return Taken{exchange(self, &given_back, {}), &state}; }, reply);
}

PyObject* enter(PyObject* self, PyObject*) { return Py_NewRef(self); }

void exit(State& state, ShareObject& self) {
  const Owned step = override_of(object_of(self), state[Known::share], state.name(Name::settle));
  if (!step) return settle(state, self, Py_None);
  call(step.get(), Py_None);
}

/// Says that a share which holds something is dropped. It gives nothing back: this may run on any
/// thread, at any point of its code, with locks held.
void finalize(PyObject* self) {
  const GiveBack* how = reinterpret_cast<ShareObject*>(self)->how;
  if (how == nullptr || how == &given_back || how == &gives_nothing_back) return;
  PyObject* pending = PyErr_Occurred() != nullptr ? take_raised() : nullptr;
  const int result = entering([=] {
    return PyErr_ResourceWarning(
        self, 1, "a share was dropped without being settled: what its call held stays held");
  });
  if (result < 0) entering([=] { PyErr_WriteUnraisable(self); });
  if (pending != nullptr) set_raised(pending);
}

PyMethodDef methods[] = {method<stub::Share_settle, settle>(),
                         {"__enter__", enter, METH_NOARGS, stub::Share_enter.doc},
                         method<stub::Share_exit, exit>(),
                         {}};

}  // namespace

Owned new_share(const State& state) {
  auto* type = reinterpret_cast<PyTypeObject*>(state.type(Known::share));
  return checked([=] { return type->tp_alloc(type, 0); });
}

void arm(const Owned& share, const GiveBack& how, PyObject* target, Owned amount) noexcept {
  auto& self = *reinterpret_cast<ShareObject*>(share.get());
  self.how = &how;
  self.target = Py_NewRef(target);
  self.amount = amount.release();
}

PyTypeObject* make_share_type(PyObject* module) {
  return make_type<ShareObject, share_fields>(
      module, {.signature = stub::Share,
               .methods = methods,
               .init = init,
               .extra = {"_give_back", get_action, set_action, nullptr, nullptr},
               .finalize = finalize});
}

}  // namespace decision_bounds::python
