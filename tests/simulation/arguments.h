// arguments.h - the command line of simulate.
#ifndef SIMULATION_ARGUMENTS_H
#define SIMULATION_ARGUMENTS_H

#include "scheduler/choices.h"

#include <optional>

namespace sim {

struct Arguments {
    std::string only_case;
    std::optional<Strategy> only_strategy;
    std::optional<uint64_t> seed;
    uint64_t count = 1; // seeds of each case and strategy
    double minutes = 0; // or all that fit into a time
    uint32_t preemptions = 2;
    std::string schedule; // one schedule of the exhaustive search
    std::string kept;     // a file of runs that have failed once
    bool tells = false;   // every run, not only those that fail
    bool lists = false;
};

/** Ends the program with status 2 for what it does not understand. */
Arguments read_arguments(int argc, char **argv);

} // namespace sim

#endif
