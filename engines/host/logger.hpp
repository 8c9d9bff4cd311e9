#pragma once

#include "decision_bounds/host.hpp"
#include "host/state.hpp"

namespace decision_bounds::python {

/// Logs through the module's logger, which does the formatting.
class PythonLogger final : public Logger {
 public:
  explicit PythonLogger(State& state) : state_(state) {}

  void warning(std::string_view format, std::span<const LogArgument> arguments,
               std::exception_ptr error) override;

 private:
  State& state_;
};

}  // namespace decision_bounds::python
