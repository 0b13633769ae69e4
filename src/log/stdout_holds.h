// stdout_holds.h - nobody logs while holding standard output.
//
// A log call may open the log file, or flush every stream while there is none; for both the C
// library locks its list of streams. Another thread's flush holds that list while it waits for
// standard output: whoever logs with standard output in hand waits for that thread, and it for him,
// for ever.
#ifndef LOG_STDOUT_HOLDS_H
#define LOG_STDOUT_HOLDS_H

/** How often the calling thread holds standard output at this moment. */
extern constinit thread_local int t_stdout_holds;

#endif
