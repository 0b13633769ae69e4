// The tick belongs to the timer, but only the queues know which timers run: so the published
// timerUpdate stands here, above both.
#include "timer/timer.h"

#include "queue/record_holders.h"
#include "timer/ticks.h"

#include <algorithm>
#include <atomic>

namespace {

// The process counts its ticks once, but each interface is aged by all of them: whoever takes ticks
// lays them aside for the other interfaces that take part.
struct Share {
    std::atomic<bool> takes_part;
    std::atomic<int32_t> laid_aside; // ticks
};
Share g_shares[kQueueInterfaces];

// What was counted before an interface takes part is not its business: no request was out then.
int32_t take_ticks(uint32_t index) {
    const int32_t fresh = timer_take_elapsed();
    for (uint32_t other = 0; other < kQueueInterfaces && fresh > 0; other++) {
        if (other != index && g_shares[other].takes_part.load(std::memory_order_relaxed)) {
            g_shares[other].laid_aside.fetch_add(fresh, std::memory_order_relaxed);
        }
    }
    const int32_t kept = g_shares[index].laid_aside.exchange(0, std::memory_order_relaxed);
    const bool took_part = g_shares[index].takes_part.exchange(true, std::memory_order_relaxed);
    return took_part ? fresh + kept : fresh;
}

} // namespace

void timerUpdate(uint32_t index, int32_t nqueues) {
    if (index >= static_cast<uint32_t>(kQueueInterfaces)) {
        return;
    }
    const int32_t ticks = take_ticks(index);
    if (ticks <= 0) {
        return;
    }
    for (int j = 0; j < std::min(nqueues, kQueueKinds); j++) {
        queue_age(static_cast<int>(index), j, ticks);
    }
}

void queue_stop_ageing(int i) {
    if (queue_is_valid(i, 0)) {
        g_shares[i].takes_part.store(false, std::memory_order_relaxed);
        g_shares[i].laid_aside.store(0, std::memory_order_relaxed);
    }
}
