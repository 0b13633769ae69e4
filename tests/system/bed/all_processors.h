// all_processors.h - a host of the tests that is not kept to one processor.
#ifndef TESTS_SYSTEM_BED_ALL_PROCESSORS_H
#define TESTS_SYSTEM_BED_ALL_PROCESSORS_H

#include <sched.h>

namespace bed {

/** The layer pins its process to one processor; senders and cards of a test want all of them. */
inline void use_all_processors() {
    cpu_set_t all;
    CPU_ZERO(&all);
    for (size_t i = 0; i < CPU_SETSIZE; i++) {
        CPU_SET(i, &all);
    }
    (void)sched_setaffinity(0, sizeof all, &all);
}

} // namespace bed

#endif
