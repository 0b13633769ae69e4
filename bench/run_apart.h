// run_apart.h - measure in a process of its own.
//
// The product keeps its threads and sockets as long as the process lives, and every socket on an
// interface gets a copy of every frame. So whatever is measured has the interface to itself.
#ifndef BENCH_RUN_APART_H
#define BENCH_RUN_APART_H

#include <functional>
#include <vector>

/** Run work in a child process and return its figures. Ends the program if the child fails. */
std::vector<double> run_apart(const std::function<std::vector<double>()> &work);

/** Keep the calling thread, and those that it starts, on one processor. */
void pin_to(int cpu);

/** Microseconds on a clock that never jumps. */
double now_us();

#endif
