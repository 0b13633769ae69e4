// repeat.h - tests that failed while the machine stood still are run once more.
//
// Only these: what fails on a machine that runs has failed, and so has whatever hangs, crashes or
// is reported by a sanitizer.
#ifndef TESTS_SYSTEM_BED_REPEAT_H
#define TESTS_SYSTEM_BED_REPEAT_H

namespace bed {

/** Something happened that no standstill excuses: the running test is not repeated. */
void repeat_never();

/** Run all tests, the doubtful ones up to three times; returns the exit status. */
int run_and_repeat();

} // namespace bed

#endif
