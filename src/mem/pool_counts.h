// pool_counts.h - how many blocks there are, for tests and counters.
#ifndef MEM_POOL_COUNTS_H
#define MEM_POOL_COUNTS_H

#include <cstdint>

/** Blocks handed out by mem_alloc and not yet given back, over the life of the process. */
int64_t mem_handed_out();

/** Free blocks that wait to be handed out again. */
uint64_t mem_waiting();

/** Blocks that mem_alloc could not hand out, as the system had no memory. */
uint64_t mem_failed();

#endif
