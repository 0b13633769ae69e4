// log.h - the switches of the log facility.
//
// Every log line carries one header (date, time, process id, place in the source) and goes to
// standard output, to one of two files under /var/log, to both or to neither, as these variables
// say. Threads: a host sets them before its first call into the library; the facility itself reads
// and writes them from every thread, without a lock.
#ifndef RUK_LOG_LOG_H
#define RUK_LOG_LOG_H

#include "base/export.h"

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Nonzero: every line is also printed on standard output. 0 at start; the ruk tool sets 1. */
extern RUK_API int log_debug;

/** Nonzero: every line is also written to the log file. 0 at start, so the file stays empty. */
extern RUK_API int log_d;

/** Which of the two files, /var/log/ruk_log0.txt or ruk_log1.txt, the next opening takes: 0 or 1.
 */
extern RUK_API int log_num;

/** Day of the month (1..31) of the most recent log call. */
extern RUK_API int log_lastday;

/** The open log file, or null. The first log call opens it and truncates what it held. */
extern RUK_API FILE *log_fp;

#ifdef __cplusplus
}
#endif
#endif
