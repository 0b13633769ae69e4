#include "statistics.h"

#include "die.h"

#include <algorithm>
#include <cmath>

double quantile(std::vector<double> samples, double part) {
    if (samples.empty()) {
        die_of("no samples");
    }
    std::sort(samples.begin(), samples.end());
    return samples[static_cast<size_t>(
        std::lround(static_cast<double>(samples.size() - 1) * part))];
}

double median(const std::vector<double> &samples) {
    return quantile(samples, 0.5);
}

std::vector<double> ratios(const std::vector<double> &over, const std::vector<double> &under) {
    std::vector<double> result;
    for (size_t i = 0; i < std::min(over.size(), under.size()); i++) {
        result.push_back(over[i] / under[i]);
    }
    return result;
}
