// races.h - two accesses to the same memory that nothing puts in order.
//
// Vector clocks over the simulated locks, semaphores, threads and atomics, as a race detector keeps
// them: a fault shows when two accesses are unordered, even in a schedule where they do no harm.
#ifndef SIMULATION_RACES_H
#define SIMULATION_RACES_H

#include <cstddef>
#include <cstdint>

namespace sim {

void races_reset();

/** What happened before the last release of an object happened before what follows. */
void races_acquired(const void *object);
void races_released(const void *object);

/** A new thread goes on from where its maker is. */
void races_started(int parent, int child);

/** Fork: all that other threads did is over, and the one that goes on has seen it. */
void races_forked();

enum class Access : uint8_t { kRead, kWrite, kAtomicRead, kAtomicWrite };

void races_access(const void *address, size_t size, Access access, const void *from);

} // namespace sim

#endif
