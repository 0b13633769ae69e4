// world.h - all that a run starts anew.
#ifndef SIMULATION_WORLD_H
#define SIMULATION_WORLD_H

#include <cstdint>

namespace sim {

struct World {
    int32_t faults_at_start = 0;
    bool checks_earliest_end = true; // not where a full queue may end a request early
};
World &world();

void reset_world();
void reset_host();
void reset_standard_output();
void must_have_let_go_of_standard_output();

} // namespace sim

#endif
