// journal.h - what a test did, kept when it fails.
#ifndef TESTS_SYSTEM_BED_JOURNAL_H
#define TESTS_SYSTEM_BED_JOURNAL_H

#include <string>

namespace bed {

/** Remember the output of a program or the frames of a capture until the test's end. */
void journal_add(const std::string &entry);

} // namespace bed

#endif
