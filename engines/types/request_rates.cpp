#include "host/locks.hpp"
#include "host/records.hpp"
#include "host/reply.hpp"
#include "request_rates_rules.hpp"
#include "types/method.hpp"

namespace decision_bounds::python {
namespace {

struct RequestRatesObject {
  ObjectHead head;
  PyObject *lock, *cost, *tokens, *features;
};

void check_set(PyObject* value, const char* shown) {
  require(PySet_Check(value), value, shown, "a set");
}

Owned new_lock(PyObject* self) { return call(state_of(self)[Kept::new_lock]); }

Owned new_charges(PyObject* self) { return call(state_of(self).type(Known::charges)); }

Owned new_features(PyObject*) {
  return checked([] { return PySet_New(nullptr); });
}

constexpr Field rates_fields[] = {
    {"_lock", DECISION_BOUNDS_PLACE(RequestRatesObject, lock), check_lock, new_lock},
    {"_cost", DECISION_BOUNDS_PLACE(RequestRatesObject, cost), check_charges, new_charges},
    {"_tokens", DECISION_BOUNDS_PLACE(RequestRatesObject, tokens), check_charges, new_charges},
    {"_features", DECISION_BOUNDS_PLACE(RequestRatesObject, features), check_set, new_features}};

/// The set of features, and the one that an operation is about. A set may hold what a host has put
/// there: to look a feature up may call the `__eq__` of an object with the same hash.
class PythonFeatures {
 public:
  PythonFeatures(Owned features, PyObject* feature)
      : features_(std::move(features)), feature_(feature) {}

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

/// One operation on a RequestRates. It keeps the objects that its attributes held as it began.
class RatesOperation {
 public:
  RatesOperation(State& state, RequestRatesObject& self, PyObject* feature, bool brief)
      : features_(Attribute{object_of(self), self.features, "_features"}.get(), feature),
        cost_(state, Attribute{object_of(self), self.cost, "_cost"}.get()),
        tokens_(state, Attribute{object_of(self), self.tokens, "_tokens"}.get()),
        lock_(state, Attribute{object_of(self), self.lock, "_lock"}.get(),
              brief && cost_.is_native() && tokens_.is_native(), deferred_) {}

  /// What `read` says of the rules.
  template <class Read>
  double reading(Read read) {
    return deferred_.run([&] { return lock_.reading([&] { return read(rules_, features_); }); });
  }
  void learn(std::int64_t size, const PythonReply& reply) {
    deferred_.run([&] { return rules_.learn(size, features_, reply), true; });
  }

 private:
  Deferred deferred_{Locking::may_fail};
  PythonFeatures features_;
  PythonCharges cost_, tokens_;
  PythonLock lock_;
  internal::RequestRatesRules<PythonCharges, PythonFeatures> rules_{lock_, cost_, tokens_};
};

/// Features are told apart as exact strings, whatever a subclass of str says of equality.
Owned as_feature(PyObject* feature) {
  require(PyUnicode_Check(feature), feature, "feature", "a str");
  return checked([=] { return PyUnicode_FromObject(feature); });
}

double cost(State& state, RequestRatesObject& self, std::int64_t size, PyObject* feature) {
  const Owned text = as_feature(feature);
  RatesOperation rates(state, self, text.get(), true);
  return rates.reading([&](auto& rules, auto& features) { return rules.cost(size, features); });
}

double tokens(State& state, RequestRatesObject& self, std::int64_t size) {
  RatesOperation rates(state, self, nullptr, true);
  return rates.reading([&](auto& rules, auto& features) { return rules.tokens(size, features); });
}

void learn(State& state, RequestRatesObject& self, std::int64_t size, PyObject* feature,
           PyObject* reply) {
  const Owned text = as_feature(feature);
  const PythonReply paid(state, as_reply(reply, "reply"));
  RatesOperation(state, self, text.get(), false).learn(size, paid);
}

PyMethodDef methods[] = {method<stub::RequestRates_cost, cost>(),
                         method<stub::RequestRates_tokens, tokens>(),
                         method<stub::RequestRates_learn, learn>(),
                         {}};

}  // namespace

PyTypeObject* make_request_rates_type(PyObject* module) {
  return make_type<RequestRatesObject, rates_fields>(
      module, {stub::RequestRates, methods, init_slot<stub::RequestRates, rates_fields>});
}

}  // namespace decision_bounds::python
