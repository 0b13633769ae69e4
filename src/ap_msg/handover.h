// handover.h - the one place where the receive thread leaves a file request for the file thread.
//
// It holds the latest request. One that comes before the file thread has taken the last overwrites
// it, and the file thread then sees the second one twice, for every request is counted.
#ifndef AP_MSG_HANDOVER_H
#define AP_MSG_HANDOVER_H

#include "ap_msg/message_layout.h"

#include <span>

constexpr size_t kLongestHandover =
    message::kFileRequestArea - message::kRequestHeadSize; // bytes of data

constexpr bool fits_handover(size_t len) {
    return len <= kLongestHandover;
}

/**
 * Leave a file request, a message from its head to the end of its data, and wake the file thread.
 * Blocks while the file thread carries out the one before.
 */
void hand_over(std::span<const uint8_t> message);

#endif
