// one_frame.h - what the tool's commands and the register calls of hosts send and read at a time.
#ifndef MAIN_ONE_FRAME_H
#define MAIN_ONE_FRAME_H

#include "eth_raw/frame_layout.h"

constexpr int32_t kWaitTicks = 6;                // 180 ms, three times
constexpr uint32_t kCommandBuffer = kMaxPayload; // bytes: the most that one frame carries

/** How many bytes a waiting read has brought: of a reply that is too long, none were copied. */
constexpr uint32_t bytes_brought(uint32_t received) {
    return received <= kCommandBuffer ? received : 0;
}

#endif
