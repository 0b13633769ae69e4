// refused_calls.h - system calls that the kernel refuses a program, for Launch::in_child.
#ifndef TESTS_SYSTEM_BED_REFUSED_CALLS_H
#define TESTS_SYSTEM_BED_REFUSED_CALLS_H

namespace bed {

/** No socket can be bound: EADDRNOTAVAIL. */
void refuse_to_bind();

/** No interval timer can be started: EPERM. */
void refuse_a_timer();

/** No thread can be started, as at a process limit: EAGAIN. Processes can be. */
void refuse_threads();

} // namespace bed

#endif
