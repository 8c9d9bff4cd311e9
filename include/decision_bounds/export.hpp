#pragma once

// What a shared library of decision_bounds offers to programs; all else stays hidden in it.
//
// DECISION_BOUNDS_API marks functions, and classes with code of their own in the library.
// DECISION_BOUNDS_TYPE marks the other classes that a program catches, casts or derives from: both
// sides must know them as one type, or what is thrown on one side is not caught on the other.
// DECISION_BOUNDS_HIDDEN keeps a class in, where it would take after the one around it.

#if defined(_WIN32) || defined(__CYGWIN__)
#if defined(DECISION_BOUNDS_BUILDING)  // the DLL itself
#define DECISION_BOUNDS_API DECISION_BOUNDS_DLL(dllexport)
#elif defined(DECISION_BOUNDS_SHARED)  // a program that uses the DLL
#define DECISION_BOUNDS_API DECISION_BOUNDS_DLL(dllimport)
#else
#define DECISION_BOUNDS_API
#endif
#if defined(__GNUC__)
#define DECISION_BOUNDS_DLL(direction) [[gnu::direction]]
#else
#define DECISION_BOUNDS_DLL(direction) __declspec(direction)
#endif
#define DECISION_BOUNDS_TYPE  // types are compared by name there
#define DECISION_BOUNDS_HIDDEN
#elif defined(__GNUC__)
#define DECISION_BOUNDS_API [[gnu::visibility("default")]]
#define DECISION_BOUNDS_TYPE [[gnu::visibility("default")]]
#define DECISION_BOUNDS_HIDDEN [[gnu::visibility("hidden")]]
#else
#define DECISION_BOUNDS_API
#define DECISION_BOUNDS_TYPE
#define DECISION_BOUNDS_HIDDEN
#endif
