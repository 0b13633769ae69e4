// process_time.h - how long whole processes take.
#ifndef BENCH_PROCESS_TIME_H
#define BENCH_PROCESS_TIME_H

#include <string>
#include <vector>

/**
 * Run a program with its output in memory and return its time in milliseconds, from the start to
 * the collected exit status. Ends the benchmark if the status is not 0 or wanted is not in the
 * output.
 */
double time_process(const std::vector<std::string> &words, int cpu, const std::string &wanted);

#endif
