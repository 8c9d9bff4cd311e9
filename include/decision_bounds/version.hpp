#pragma once

// The version of the library, by the rules of semantic versioning. It stands here and nowhere else:
// the build, the packages and the module read the text, and tests/package holds the numbers to it.

#define DECISION_BOUNDS_VERSION "1.0.0"

// For the preprocessor.
#define DECISION_BOUNDS_VERSION_MAJOR 1
#define DECISION_BOUNDS_VERSION_MINOR 0
#define DECISION_BOUNDS_VERSION_PATCH 0
