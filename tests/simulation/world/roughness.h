// roughness.h - how rough the seed makes a run of a case.
#ifndef SIMULATION_ROUGHNESS_H
#define SIMULATION_ROUGHNESS_H

namespace sim {

/** How calls, wire and processor behave: chosen anew for each seed, quiet runs among them. */
void choose_roughness();

/** Only the order of the threads, and time that runs on: nothing fails, nothing is lost. */
void choose_busy_processor();

} // namespace sim

#endif
