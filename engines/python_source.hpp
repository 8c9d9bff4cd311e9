#pragma once

#include "python.hpp"

namespace decision_bounds::python {

/// Defines PaidReply in the module, a structural protocol.
void define_paid_reply(PyObject* module);

/// Gives the types whose defaults no text can name their signatures.
void define_signatures(PyObject* module);

}  // namespace decision_bounds::python
