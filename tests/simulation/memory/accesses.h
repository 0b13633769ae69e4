// accesses.h - accesses to memory that the compiler does not report: the kernel's and the board's.
#ifndef SIMULATION_ACCESSES_H
#define SIMULATION_ACCESSES_H

#include <cstddef>

namespace sim {

void kernel_reads(const void *address, size_t size, const void *from);
void kernel_writes(const void *address, size_t size, const void *from);

} // namespace sim

#endif
