// die.h - a benchmark that cannot measure says why and ends; there is nothing to fall back to.
#ifndef BENCH_DIE_H
#define BENCH_DIE_H

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

/** For a failed system call: what failed, and errno. */
[[noreturn]] inline void die(const char *what) {
    (void)fprintf(stderr, "bench: %s: %s\n", what, strerror(errno));
    std::exit(1);
}

/** For everything else. */
[[noreturn]] inline void die_of(const char *what) {
    (void)fprintf(stderr, "bench: %s\n", what);
    std::exit(1);
}

#endif
