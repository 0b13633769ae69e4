// symbols.h - what stands at an address of this program.
#ifndef SIMULATION_SYMBOLS_H
#define SIMULATION_SYMBOLS_H

#include <string>

namespace sim {

/** The variable that an address lies in, "mtx + 40"; empty: none. */
std::string variable_at(const void *address);

/** The function and line of an instruction, by addr2line; empty: not to be had. */
std::string line_at(const void *instruction);

} // namespace sim

#endif
