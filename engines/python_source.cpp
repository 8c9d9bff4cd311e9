// What is shorter and clearer in Python: a protocol, and signatures that are made when asked for.

#include "python_source.hpp"

namespace decision_bounds::python {
namespace {

constexpr const char* paid_reply_source = R"(
from abc import abstractmethod
from typing import Protocol, runtime_checkable


@runtime_checkable
class PaidReply(Protocol):
    """How a bound reads a reply of the decision endpoint; the client's reply type has these.

    The library only reads them, with a lock held, and passes out what a property raises. A property
    may use the bound that reads it, but not the RequestRates that does: its lock is a plain one.
    """

    @property
    @abstractmethod
    def cached(self) -> bool:
        """Whether the answer came from the client's cache; cache hits are free."""

    @property
    @abstractmethod
    def input_tokens(self) -> int:
        """The input tokens that the request used."""

    @property
    @abstractmethod
    def cost(self) -> float:
        """What the reply cost, in US dollars."""
)";

// inspect is slow to import, so each signature is made when somebody asks for it.
constexpr const char* signatures_source = R"(
class Factory:
    def __repr__(self):
        return "<factory>"


class Signature:
    def __init__(self, owner, **parameters):
        self.owner, self.parameters = owner, parameters

    def __get__(self, instance, cls):
        if cls.__init__ is not self.owner.__init__ or cls.__new__ is not self.owner.__new__:
            raise AttributeError("__signature__")
        from inspect import Parameter, Signature
        return Signature([
            Parameter(name, Parameter.POSITIONAL_OR_KEYWORD,
                      default=Parameter.empty if default is ... else default)
            for name, default in self.parameters.items()
        ])


_Held.__match_args__ = ("holders", "amount", "unbounded")
_Charges.__match_args__ = ("per_byte", "per_call")
Share.__signature__ = Signature(Share, give_back=_nothing)
RunBudget.__signature__ = Signature(
    RunBudget, max_calls=..., max_tokens=..., calls=0, input_tokens=0, cost=0.0, cache_hits=0,
    in_flight=0, should_stop=never, _held_tokens=Factory(), _changed=Factory())
RunBudget.__match_args__ = tuple(vars(RunBudget)["__signature__"].parameters)
)";

/// Runs `source` in a namespace of its own that begins with what `module` defines.
Owned run(const char* source, PyObject* module) {
  Owned globals = checked([=] { return PyDict_Copy(PyModule_GetDict(module)); });
  checked([&] { return PyRun_String(source, Py_file_input, globals.get(), globals.get()); });
  return globals;
}

}  // namespace

void define_paid_reply(PyObject* module) {
  const Owned globals = run(paid_reply_source, module);
  PyObject* type = PyDict_GetItemString(globals.get(), "PaidReply");
  checked_count([=] { return PyModule_AddObjectRef(module, "PaidReply", type); });
}

void define_signatures(PyObject* module) { run(signatures_source, module); }

}  // namespace decision_bounds::python
