// cases.h - the stories that are run under all schedules.
#ifndef SIMULATION_CASES_H
#define SIMULATION_CASES_H

#include <span>

namespace sim {

struct Case {
    const char *name;
    const char *what;
    void (*run)();
    bool is_small; // small enough for the exhaustive search
};

std::span<const Case> forms_cases();
std::span<const Case> queue_cases();
std::span<const Case> cancel_cases();
std::span<const Case> link_cases();
std::span<const Case> fork_cases();
std::span<const Case> time_cases();
std::span<const Case> service_cases();
std::span<const Case> picture_cases();
std::span<const Case> block_cases();
std::span<const Case> small_cases();

} // namespace sim

#endif
