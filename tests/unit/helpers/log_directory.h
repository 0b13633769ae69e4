// log_directory.h - keeps the log facility out of /var/log.
//
// Linked with --wrap=fopen. Until a test names a directory, /var/log does not exist for the code
// under test: no log file opens, and what it reports goes to standard output only.
#ifndef TESTS_UNIT_HELPERS_LOG_DIRECTORY_H
#define TESTS_UNIT_HELPERS_LOG_DIRECTORY_H

#include <functional>
#include <string>

namespace test {

/** Where files of /var/log are opened instead; empty = nowhere, opening fails with ENOENT. */
void set_log_directory(const std::string &directory);

/** Called in the middle of the next opening of a file under /var/log. */
void set_amid_opening(std::function<void()> act);

/** How often a file under /var/log was asked for since the last set_log_directory. */
int log_openings();

} // namespace test

#endif
