// crash.h - a signal that would end the process ends the run instead, as a fault.
#ifndef SIMULATION_CRASH_H
#define SIMULATION_CRASH_H

namespace sim {

void catch_crashes();

} // namespace sim

#endif
