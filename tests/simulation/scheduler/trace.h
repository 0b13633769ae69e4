// trace.h - what happened, for people, and the end of a run that went wrong.
#ifndef SIMULATION_TRACE_H
#define SIMULATION_TRACE_H

#include <cstdint>
#include <string>

namespace sim {

/** Whether a run is being told. Runs are told only when they are repeated: it takes time. */
extern bool g_is_telling;

/** One line of the trace: time, thread, text. Call through SIM_TELL, which costs nothing else. */
void tell(const char *format, ...) __attribute__((format(printf, 1, 2)));

#define SIM_TELL(...) (sim::g_is_telling ? sim::tell(__VA_ARGS__) : void())

/** A name for an address in the trace: the record, lock or block that stands there. */
std::string name_of_address(const void *address);

/** Gives an object a name for the trace. */
void name_address(const void *address, const char *name);
void forget_names();

/** The run has shown a fault: it ends here and now. */
[[noreturn]] void fail(const char *format, ...) __attribute__((format(printf, 1, 2)));

} // namespace sim

#endif
