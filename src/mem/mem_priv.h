// mem_priv.h - how many blocks are out, for tests and debug dumps.
#ifndef MEM_MEM_PRIV_H
#define MEM_MEM_PRIV_H

#include <cstdint>

/** Blocks handed out by mem_alloc and not yet given back, over the life of the process. */
int64_t mem_handed_out();

#endif
