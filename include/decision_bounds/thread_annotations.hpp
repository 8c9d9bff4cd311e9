#pragma once

// Lock annotations that clang's thread-safety analysis checks; other compilers see nothing.

#if defined(__clang__)
#define DECISION_BOUNDS_ANNOTATION(x) __attribute__((x))
#else
#define DECISION_BOUNDS_ANNOTATION(x)
#endif

#define DECISION_BOUNDS_CAPABILITY(name) DECISION_BOUNDS_ANNOTATION(capability(name))
#define DECISION_BOUNDS_SCOPED_CAPABILITY DECISION_BOUNDS_ANNOTATION(scoped_lockable)
#define DECISION_BOUNDS_GUARDED_BY(x) DECISION_BOUNDS_ANNOTATION(guarded_by(x))
#define DECISION_BOUNDS_REQUIRES(...) DECISION_BOUNDS_ANNOTATION(requires_capability(__VA_ARGS__))
#define DECISION_BOUNDS_ACQUIRE(...) DECISION_BOUNDS_ANNOTATION(acquire_capability(__VA_ARGS__))
#define DECISION_BOUNDS_RELEASE(...) DECISION_BOUNDS_ANNOTATION(release_capability(__VA_ARGS__))
#define DECISION_BOUNDS_NO_ANALYSIS DECISION_BOUNDS_ANNOTATION(no_thread_safety_analysis)
