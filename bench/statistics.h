// statistics.h - what many repetitions say.
#ifndef BENCH_STATISTICS_H
#define BENCH_STATISTICS_H

#include <vector>

/** The value that a part (0..1) of the samples stays below. */
double quantile(std::vector<double> samples, double part);

double median(const std::vector<double> &samples);

/** Sample by sample. Both were taken right after one another, so what slowed both cancels out. */
std::vector<double> ratios(const std::vector<double> &over, const std::vector<double> &under);

#endif
