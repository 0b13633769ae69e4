// request_ends.h - what shows that requests have ended: their posts, and queues without them.
#ifndef TESTS_UNIT_HELPERS_REQUEST_ENDS_H
#define TESTS_UNIT_HELPERS_REQUEST_ENDS_H

#include "queue/record_holders.h"
#include "raw_msg/raw_msg.h"

namespace test {

/** Takes all posts of ended requests; returns how many there were. */
inline int posts() {
    int count = 0;
    while (sem_trywait(&sem_test) == 0) {
        count += 1;
    }
    return count;
}

inline bool queues_are_empty() {
    for (int i = 0; i < kQueueInterfaces; i++) {
        for (int j = 0; j < kQueueKinds; j++) {
            if (queue_get(i, j) != nullptr) {
                return false;
            }
        }
    }
    return true;
}

} // namespace test

#endif
