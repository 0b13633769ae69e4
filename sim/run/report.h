// report.h - the counters to standard output or to a file.
#ifndef CARD_REPORT_H
#define CARD_REPORT_H

#include <string>

#include "faults/counters.h"

namespace card {

/**
 * Write the counters as one line of JSON to the file, or with an empty path to standard output. A
 * reader of the file never sees half an object. Returns an empty text, or what failed.
 */
std::string report_counters(const Counters &counters, const std::string &path);

} // namespace card

#endif
