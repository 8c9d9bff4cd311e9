#pragma once

// Everything that the library offers to C++ programs.

#include "decision_bounds/daily_spend.hpp"
#include "decision_bounds/errors.hpp"
#include "decision_bounds/host.hpp"
#include "decision_bounds/paid_reply.hpp"
#include "decision_bounds/request_rates.hpp"
#include "decision_bounds/run_budget.hpp"
#include "decision_bounds/share.hpp"
#include "decision_bounds/std_host.hpp"
#include "decision_bounds/stop_signal.hpp"
#include "decision_bounds/version.hpp"
