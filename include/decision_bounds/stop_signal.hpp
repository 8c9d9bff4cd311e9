#pragma once

#include <functional>

namespace decision_bounds {

/// Whether a pass has been asked to stop. May be called with a bound's lock held; must not wait for
/// another thread that uses the same bound. What it throws propagates out of the
/// operation that asked.
using StopSignal = std::function<bool()>;

/// The stop signal that never comes. Any thread may call it.
inline bool never() noexcept { return false; }

}  // namespace decision_bounds
