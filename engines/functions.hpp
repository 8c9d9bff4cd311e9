#pragma once

#include "python.hpp"

namespace decision_bounds::python {

// The module's functions.
extern PyMethodDef never_function, nothing_function, wait_function;

}  // namespace decision_bounds::python
