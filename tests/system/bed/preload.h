// preload.h - a program started with a library of the test's own before all others.
#ifndef TESTS_SYSTEM_BED_PRELOAD_H
#define TESTS_SYSTEM_BED_PRELOAD_H

#include "tests/system/bed/bed.h"

namespace bed {

/** What comes before the program's words; the settings are more NAME=VALUE for its environment. */
Words preloading(const std::string &library, const Words &settings = {});

} // namespace bed

#endif
