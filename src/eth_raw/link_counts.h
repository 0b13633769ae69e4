// link_counts.h - what happened on each interface, counted where it happens.
//
// The numbers start at 0 with the process and only grow: neither closing a link nor opening it
// again changes them, and a forked child goes on from its parent's. raw_msg/counters.h publishes
// them. Threads: any number at once, without a lock; no other memory hangs on a count.
#ifndef ETH_RAW_LINK_COUNTS_H
#define ETH_RAW_LINK_COUNTS_H

#include "eth_raw/eth_raw.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

enum class Count : uint8_t {
    // what senders count
    kFramesSent,
    kBytesSent,
    kSendErrors,
    kResends,
    kTimeouts,
    kUnanswered,
    kOverflows,
    // what the receive thread counts
    kFramesReceived,
    kBytesReceived,
    kReceiveErrors,
    kForeignFrames,
    kChecksumErrors,
    kReplies,
    kUnmatchedReplies,
    kRefusals,
};
constexpr auto kFirstOfReceiver = static_cast<size_t>(Count::kFramesReceived);
constexpr size_t kCounts = static_cast<size_t>(Count::kRefusals) + 1;

// Each interface's senders and its receive thread run on different processors: they write to cache
// lines of their own.
struct LinkCounts {
    alignas(64) std::array<std::atomic<uint64_t>, kFirstOfReceiver> of_senders;
    alignas(64) std::array<std::atomic<uint64_t>, kCounts - kFirstOfReceiver> of_receiver;
};
extern LinkCounts g_link_counts[MAX_ETH];

/** The place of one count. index must be 0..2. */
inline std::atomic<uint64_t> &count_of(int index, Count what) {
    LinkCounts &counts = g_link_counts[index];
    const auto place = static_cast<size_t>(what);
    return place < kFirstOfReceiver ? counts.of_senders[place]
                                    : counts.of_receiver[place - kFirstOfReceiver];
}

/** Count what happened on an interface; an index out of range counts nowhere. */
inline void count(int index, Count what, uint64_t by = 1) {
    if (index >= 0 && index < MAX_ETH) {
        count_of(index, what).fetch_add(by, std::memory_order_relaxed);
    }
}

#endif
