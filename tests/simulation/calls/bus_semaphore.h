// bus_semaphore.h - the semaphore of the block transfers, as the checks see it.
#ifndef SIMULATION_BUS_SEMAPHORE_H
#define SIMULATION_BUS_SEMAPHORE_H

namespace sim {

void reset_bus_semaphore();
bool bus_semaphore_is_free();

} // namespace sim

#endif
