// The host's own threads: started and joined without the product's help.
#include "world/host.h"

#include "memory/races.h"
#include "scheduler/scheduler.h"

namespace sim {

int start_host_thread(const char *name, std::function<void()> body) {
    const int id = start_thread(name, std::move(body));
    races_started(self().id, id);
    point("the start of a thread");
    return id;
}

void join_host_thread(int thread) {
    Thread *target = sim::thread(thread);
    while (target->state != State::kEnded) {
        (void)wait("the host's join", target, kNever, false, false);
    }
    races_acquired(target);
}

void cancel_host_thread(int thread) {
    point("a cancel");
    cancel(thread);
}

void host_sleep(int64_t duration_ms) {
    const Time until = now() + duration_ms * kMillisecond;
    while (now() < until) {
        cancellation_point();
        (void)wait("the host's sleep", nullptr, until, false, true);
    }
}

} // namespace sim
