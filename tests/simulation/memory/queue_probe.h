// queue_probe.h - the queues seen from inside, and their size.
#ifndef SIMULATION_QUEUE_PROBE_H
#define SIMULATION_QUEUE_PROBE_H

#include <cstdint>

namespace sim {

/** How many records fill a queue; the product's 65536 are too many to try. */
void set_queue_capacity(int32_t capacity);

/** What a queue's own count says. */
int32_t queue_count(int i, int j);

/** How many records are linked; -1: the links are broken. */
int32_t queue_length(int i, int j);

} // namespace sim

#endif
