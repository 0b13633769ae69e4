// counters_json.h - the library's counters as text for operators and their scripts.
#ifndef RUKD_COUNTERS_JSON_H
#define RUKD_COUNTERS_JSON_H

#include "raw_msg/counters.h"

#include <string>

/** One JSON object on one line, without a line end: {"counters":{"eth0":{...},...}}. */
std::string counters_json(const ruk_counter_set &counters);

#endif
