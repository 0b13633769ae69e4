#include "raw_msg/counters.h"

#include "eth_raw/link_counts.h"
#include "mem/pool_counts.h"
#include "queue/record_holders.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace {

static_assert(RUK_COUNTED_LINKS == MAX_ETH && RUK_COUNTED_LINKS == kQueueInterfaces,
              "an interface without counters");
static_assert(RUK_COUNTED_QUEUES == READ_WAIT_QUEUE + 1, "a queue without a depth");

struct LinkRow {
    uint64_t (ruk_counter_set::*field)[RUK_COUNTED_LINKS];
    Count what;
};

constexpr LinkRow kLinkRows[] = {
    {&ruk_counter_set::frames_sent, Count::kFramesSent},
    {&ruk_counter_set::bytes_sent, Count::kBytesSent},
    {&ruk_counter_set::send_errors, Count::kSendErrors},
    {&ruk_counter_set::resends, Count::kResends},
    {&ruk_counter_set::timeouts, Count::kTimeouts},
    {&ruk_counter_set::unanswered, Count::kUnanswered},
    {&ruk_counter_set::queue_overflows, Count::kOverflows},
    {&ruk_counter_set::frames_received, Count::kFramesReceived},
    {&ruk_counter_set::bytes_received, Count::kBytesReceived},
    {&ruk_counter_set::receive_errors, Count::kReceiveErrors},
    {&ruk_counter_set::foreign_frames, Count::kForeignFrames},
    {&ruk_counter_set::checksum_errors, Count::kChecksumErrors},
    {&ruk_counter_set::replies, Count::kReplies},
    {&ruk_counter_set::unmatched_replies, Count::kUnmatchedReplies},
    {&ruk_counter_set::refusals, Count::kRefusals},
};
static_assert(std::size(kLinkRows) == kCounts, "a count that nobody can read");

// Hosts that delete what is not queued bring a queue's count below zero.
uint64_t not_below_zero(int64_t number) {
    return static_cast<uint64_t>(std::max(number, int64_t{0}));
}

void fill_link(ruk_counter_set &counters, int index) {
    for (const LinkRow &row : kLinkRows) {
        (counters.*row.field)[index] = count_of(index, row.what).load(std::memory_order_relaxed);
    }
    for (int queue = 0; queue < RUK_COUNTED_QUEUES; queue++) {
        counters.queued[index][queue] = not_below_zero(queue_depth(index, queue));
    }
}

} // namespace

int ruk_counters(ruk_counter_set *counters) {
    constexpr auto kLeast = static_cast<uint32_t>(offsetof(ruk_counter_set, frames_sent));
    if (counters == nullptr || counters->size < kLeast) {
        return -1;
    }
    ruk_counter_set now{};
    now.size = std::min(counters->size, static_cast<uint32_t>(sizeof now));
    for (int index = 0; index < RUK_COUNTED_LINKS; index++) {
        fill_link(now, index);
    }
    now.pool_in_use = not_below_zero(mem_handed_out());
    now.pool_free = mem_waiting();
    now.pool_failed = mem_failed();
    memcpy(counters, &now, now.size);
    return 0;
}
