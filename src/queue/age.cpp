// The tick belongs to the timer, but only the queues know which timers run: so the published
// timerUpdate stands here, above both.
#include "timer/timer.h"

#include "queue/queue_priv.h"
#include "timer/timer_priv.h"

#include <algorithm>

void timerUpdate(uint32_t index, int32_t nqueues) {
    if (index >= static_cast<uint32_t>(kQueueInterfaces)) {
        return;
    }
    const int32_t ticks = timer_take_elapsed();
    if (ticks <= 0) {
        return;
    }
    for (int j = 0; j < std::min(nqueues, kQueueKinds); j++) {
        queue_age(static_cast<int>(index), j, ticks);
    }
}
