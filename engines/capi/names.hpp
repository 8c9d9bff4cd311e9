#pragma once

// The names by which the module looks attributes up, interned once, so that a look-up compares
// addresses.

#include <cstddef>

namespace decision_bounds::python {

// clang-format off
#define DECISION_BOUNDS_NAMES(X)                                                                  \
  X(admits) X(bound) X(cached) X(charge) X(clock) X(cost) X(deadline) X(exc_info) X(give_back)    \
  X(input_tokens) X(learn) X(logger) X(notify) X(notify_all) X(release) X(reserve) X(settle)      \
  X(stopping) X(take) X(wait) X(warning) X(__enter__) X(__exit__) X(_POLL_S)                      \
  X(_exhausted_locked) X(_give_back) X(_is_owned) X(_lock) X(_spent_since) X(_summary_locked)     \
  X(_today_locked) X(_wait) X(_waiters)
// clang-format on

enum class Name : std::size_t {
#define DECISION_BOUNDS_NAME(name) name,
  DECISION_BOUNDS_NAMES(DECISION_BOUNDS_NAME)
#undef DECISION_BOUNDS_NAME
      count
};

inline constexpr const char* name_texts[] = {
#define DECISION_BOUNDS_NAME(name) #name,
    DECISION_BOUNDS_NAMES(DECISION_BOUNDS_NAME)
#undef DECISION_BOUNDS_NAME
};

}  // namespace decision_bounds::python
