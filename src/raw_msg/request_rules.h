// request_rules.h - when requests are sent again and end, and what a read shows in the tool.
#ifndef RAW_MSG_REQUEST_RULES_H
#define RAW_MSG_REQUEST_RULES_H

#include "queue/record_holders.h"
#include "raw_msg/raw_msg.h"

constexpr int kInterfaces = kQueueInterfaces;
constexpr uint16_t kResendTicks = 3; // 90 ms between the transmissions of a non-waiting request

// The time-out that ends a request, by its count: after three transmissions (the count starts at
// 1), or the third one of a request that its sender waits for.
constexpr uint32_t kLastCountUnwaited = 4;
constexpr uint32_t kLastCountWaited = 3;

/**
 * Shows the data of a non-waiting read when its reply completes it. Null (the start value) shows
 * nothing; the "read" command sets it to its hex dump.
 */
using ReadDump = void (*)(const uint8_t *data, uint32_t addr, uint32_t len);
void set_read_dump(ReadDump dump);

/** Lock that keeps matching and time-outs of an interface apart. index must be 0..2. */
pthread_mutex_t &find_check_lock(int index);

/**
 * End every request of an interface as its last time-out does: nobody will answer it any more, or
 * nobody will time it out. An index out of range has none.
 */
void end_all_requests(int index);

#endif
