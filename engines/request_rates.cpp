#include "locks.hpp"
#include "objects.hpp"
#include "reply.hpp"
#include "request_rates_steps.hpp"
#include "types.hpp"

namespace decision_bounds::python {

int RequestRatesObject::traverse(visitproc visit, void* arg) const {
  Py_VISIT(cost);
  Py_VISIT(tokens);
  Py_VISIT(features);
  return lock.traverse(visit, arg);
}

void RequestRatesObject::clear() noexcept {
  python::clear(cost);
  python::clear(tokens);
  python::clear(features);
  lock.clear();
}

namespace {

/// The set of features, and the one that an operation is about.
class HostFeatures {
 public:
  explicit HostFeatures(RequestRatesObject& self, PyObject* feature = nullptr)
      : features_(Owned::copy(
            set_or_raise(self.features, reinterpret_cast<PyObject*>(&self), "_features"))),
        feature_(feature) {}

  [[nodiscard]] bool empty() const { return PySet_GET_SIZE(features_.get()) == 0; }
  [[nodiscard]] bool known() const {
    return checked_count([this] { return PySet_Contains(features_.get(), feature_); }) != 0;
  }
  void add() {
    checked_count([this] { return PySet_Add(features_.get(), feature_); });
  }

 private:
  Owned features_;
  PyObject* feature_;
};

/// The maxima in an attribute: a record of the module's own, or whatever the host put there.
class HostMaxima {
 public:
  HostMaxima(const State& state, RequestRatesObject& self, PyObject* field, const char* name)
      : state_(state),
        object_(Owned::copy(set_or_raise(field, reinterpret_cast<PyObject*>(&self), name))) {}

  /// Whether its steps run no Python code.
  [[nodiscard]] bool is_plain() const noexcept { return untouched(charges(), state_.charges); }

  [[nodiscard]] double bound(std::int64_t size) const {
    if (is_plain()) return charges()->record.bound(size);
    const Owned bytes = to_python(size);
    return as_double(call_method(object_.get(), state_.name(Name::bound), bytes.get()).get(),
                     "bound()");
  }

  void learn(std::int64_t size, double charge) {
    if (is_plain()) return charges()->record.learn(size, charge);
    const Owned bytes = to_python(size);
    const Owned paid = to_python(charge);
    call_method(object_.get(), state_.name(Name::learn), bytes.get(), paid.get());
  }

 private:
  [[nodiscard]] ChargesObject* charges() const noexcept {
    return reinterpret_cast<ChargesObject*>(object_.get());
  }

  const State& state_;
  Owned object_;
};

/// One operation on a RequestRates.
class HostRates {
 public:
  HostRates(State& state, RequestRatesObject& self, Section section)
      : cost_(state, self, self.cost, "_cost"),
        tokens_(state, self, self.tokens, "_tokens"),
        lock_(state, reinterpret_cast<PyObject*>(&self), self.lock,
              cost_.is_plain() && tokens_.is_plain() ? section : Section::calls_python),
        steps_(lock_, cost_, tokens_) {}

  auto* operator->() { return &steps_; }

 private:
  HostMaxima cost_, tokens_;
  HostLock lock_;
  internal::RequestRatesSteps<HostMaxima, HostFeatures> steps_;
};

/// Features are told apart as exact strings, whatever a subclass of str says of equality.
Owned as_feature(PyObject* feature) {
  if (!PyUnicode_Check(feature)) {
    raise(PyExc_TypeError, "feature must be a str, not %.200s", Py_TYPE(feature)->tp_name);
  }
  return checked([=] { return PyUnicode_FromObject(feature); });
}

void check_set(PyObject*, PyObject* value, const char* name) {
  if (!PySet_Check(value)) {
    raise(PyExc_TypeError, "%s must be a set, not %.200s", name, Py_TYPE(value)->tp_name);
  }
}

void init(State& state, RequestRatesObject& self, const Arguments& arguments) {
  sorted(state, Parameters<0>{"RequestRates", {}}, arguments);
  auto* charges = reinterpret_cast<PyObject*>(state.charges.type);
  Owned lock = call(state.allocate_lock);
  Owned cost = call(charges);
  Owned tokens = call(charges);
  Owned features = checked([] { return PySet_New(nullptr); });
  replace(self.lock.object, std::move(lock));
  replace(self.cost, std::move(cost));
  replace(self.tokens, std::move(tokens));
  replace(self.features, std::move(features));
}

Owned cost(State& state, RequestRatesObject& self, const Arguments& arguments) {
  constexpr Parameters<2> parameters{"cost", {Name::size, Name::feature}};
  const auto [size, feature] = sorted(state, parameters, arguments);
  const std::int64_t bytes = as_int64(size, "size");
  const Owned text = as_feature(feature);
  HostFeatures features(self, text.get());
  return to_python(HostRates(state, self, Section::brief)->cost(bytes, features));
}

Owned tokens(State& state, RequestRatesObject& self, const Arguments& arguments) {
  constexpr Parameters<1> parameters{"tokens", {Name::size}};
  const std::int64_t bytes = as_int64(sorted(state, parameters, arguments)[0], "size");
  HostFeatures features(self);
  return to_python(HostRates(state, self, Section::brief)->tokens(bytes, features));
}

Owned learn(State& state, RequestRatesObject& self, const Arguments& arguments) {
  constexpr Parameters<3> parameters{"learn", {Name::size, Name::feature, Name::reply}};
  const auto [size, feature, reply] = sorted(state, parameters, arguments);
  const std::int64_t bytes = as_int64(size, "size");
  const Owned text = as_feature(feature);
  HostFeatures features(self, text.get());
  HostRates(state, self, Section::calls_python)
      ->learn(bytes, features, HostReply(state, as_reply(reply, "reply")));
  return none();
}

}  // namespace

PyTypeObject* make_request_rates_type(PyObject* module) {
  static Field lock{"_lock", offsetof(RequestRatesObject, lock.object), check_lock};
  static Field cost_field{"_cost", offsetof(RequestRatesObject, cost), check_charges};
  static Field tokens_field{"_tokens", offsetof(RequestRatesObject, tokens), check_charges};
  static Field features{"_features", offsetof(RequestRatesObject, features), check_set};
  static PyGetSetDef attributes[] = {object_field(lock),         object_field(cost_field),
                                     object_field(tokens_field), object_field(features),
                                     dict_attribute(),           {}};
  static PyMethodDef methods[] = {
      method<cost>(
          "cost",
          "cost($self, size, feature)\n--\n\n"
          "The most that a request of size bytes may cost, in US dollars: the most that\n"
          "one paid call of any feature cost or, if more, the highest price per byte times\n"
          "size. Infinity until a reply of feature (a str) has been learned.\n\n"
          "Blocks only for the object's own lock."),
      method<tokens>("tokens",
                     "tokens($self, size)\n--\n\n"
                     "The most input tokens that a request of size bytes may use. Infinity until\n"
                     "any reply has been learned. Blocks only for the object's own lock."),
      method<learn>(
          "learn",
          "learn($self, size, feature, reply)\n--\n\n"
          "Takes in the paid reply to a request of size bytes (below 1: taken as 1) of\n"
          "feature. Reads its cost and input_tokens, not cached, with the lock held: they\n"
          "must not use this object. What they raise passes out, and the feature may be\n"
          "known already. Blocks only for the object's own lock."),
      {}};
  return make_type<RequestRatesObject>(
      module, {.name = "decision_bounds.RequestRates",
               .doc = "RequestRates()\n--\n\n"
                      "The most that a request may cost (US dollars) or use (input tokens) before\n"
                      "its reply says, learned from the paid replies so far. Any thread may call\n"
                      "any operation. Sizes are in bytes; sizes and input tokens are integers of\n"
                      "64 bits (OverflowError beyond).",
               .methods = methods,
               .attributes = attributes,
               .init = init_slot<RequestRatesObject, init>});
}

}  // namespace decision_bounds::python
