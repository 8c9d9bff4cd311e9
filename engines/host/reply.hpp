#pragma once

#include "capi/convert.hpp"
#include "decision_bounds/paid_reply.hpp"
#include "host/state.hpp"

namespace decision_bounds::python {

/// A reply as the host's object gives it: each property is looked up as the rules read it.
class PythonReply final : public PaidReply {
 public:
  PythonReply(const State& state, PyObject* reply) : state_(state), reply_(reply) {}

  [[nodiscard]] bool cached() const override {
    return truth(get(reply_, state_.name(Name::cached)));
  }
  [[nodiscard]] std::int64_t input_tokens() const override {
    return as<std::int64_t>(get(reply_, state_.name(Name::input_tokens)).get(),
                            "reply.input_tokens");
  }
  [[nodiscard]] double cost() const override {
    return as<double>(get(reply_, state_.name(Name::cost)).get(), "reply.cost");
  }
  [[nodiscard]] PyObject* object() const noexcept { return reply_; }

 private:
  const State& state_;
  PyObject* reply_;
};

/// `reply`, or the TypeError for None where there must be one.
inline PyObject* as_reply(PyObject* reply, const char* what) {
  if (reply == Py_None) raise(PyExc_TypeError, "%s must be a paid reply, not None", what);
  return reply;
}

}  // namespace decision_bounds::python
