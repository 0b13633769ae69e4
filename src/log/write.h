// write.h - the log call, for every directory of the system.
#ifndef LOG_WRITE_H
#define LOG_WRITE_H

/**
 * Report one message: LOG(format, arguments...), as printf takes them; the message brings its own
 * line end. The header that goes before it names the source file, function and line of the call,
 * which only a macro can take from the place where it stands.
 *
 * Never fails towards its caller and leaves errno as it was. Threads: any that does not hold
 * standard output (StdoutGuard); no lock is taken but those of the C library's streams.
 */
#define LOG(...) log_write(__FILE_NAME__, __func__, __LINE__, __VA_ARGS__)

void log_write(const char *file, const char *function, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

#endif
