// The log, standard output and what else of the system the product asks for.
#include "scheduler/scheduler.h"
#include "scheduler/settings.h"
#include "scheduler/trace.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <sched.h>

namespace {

using namespace sim;

// The lock of standard output, as flockfile takes it.
int g_stdout_owner;
int g_stdout_depth;

// Writing to a stream: other threads may run meanwhile, and a cancel takes effect.
void write_somewhere(const char *call) {
    cancellation_point();
    point(call);
}

} // namespace

namespace sim {

void reset_standard_output() {
    g_stdout_owner = 0;
    g_stdout_depth = 0;
}

void must_have_let_go_of_standard_output() {
    if (g_stdout_depth != 0) {
        fail("standard output is still locked at the end");
    }
}

} // namespace sim

extern "C" {

// NOLINTBEGIN: the linker's names

// log_write: the lines go to the trace; files and streams are not simulated.
void __wrap__Z9log_writePKcS0_iS0_z(const char *file, const char *, int line, const char *format,
                                    ...) {
    if (g_stdout_depth != 0 && g_stdout_owner == self().id + 1) {
        fail("a log call under the lock of standard output: %s:%d", file, line);
    }
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    text[strcspn(text, "\n")] = '\0';
    SIM_TELL("LOG %s:%d: %s", file, line, text);
    if (strncmp(format, "assert : ", 9) == 0) {
        fail("the product finds its own counts wrong: %s", text);
    }
    const int before = errno;
    write_somewhere("a log line");
    errno = before;
}

void __wrap_flockfile(FILE *) {
    point("flockfile");
    while (g_stdout_depth != 0 && g_stdout_owner != self().id + 1) {
        (void)wait("flockfile", &g_stdout_owner, kNever, false, false);
    }
    g_stdout_owner = self().id + 1;
    g_stdout_depth += 1;
}

void __wrap_funlockfile(FILE *) {
    g_stdout_depth -= 1;
    if (g_stdout_depth == 0) {
        wake(&g_stdout_owner);
    }
    point("the return of funlockfile");
}

int __wrap_printf(const char *, ...) {
    write_somewhere("printf");
    return 0;
}

int __wrap_putchar(int character) {
    write_somewhere("putchar");
    return character;
}

int __wrap_puts(const char *) {
    write_somewhere("puts");
    return 0;
}

void __wrap_perror(const char *text) {
    SIM_TELL("perror: %s %s", text, strerrorname_np(errno));
    write_somewhere("perror");
}

int __wrap_sched_setaffinity(pid_t, size_t, const cpu_set_t *) {
    point("sched_setaffinity");
    if (fault(g_settings.other_fails_one_in)) {
        errno = EINVAL;
        return -1;
    }
    return 0;
}

pid_t __wrap_getpid(void) {
    return 4711;
}

pid_t __wrap_gettid(void) {
    return 4711 + self().id;
}

long __wrap_syscall(long, ...) { // only ever asks for the thread's number
    return 4711 + self().id;
}

int __wrap_prctl(int, ...) {
    return 0;
}
// NOLINTEND
}
