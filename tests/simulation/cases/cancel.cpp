// Threads of the host that are cancelled while they are in a request, wherever that is.
#include "cases/cases.h"

#include "memory/queue_probe.h"
#include "scheduler/choices.h"
#include "world/card.h"
#include "world/host.h"
#include "world/roughness.h"
#include "world/world.h"

#include <vector>

namespace sim {

namespace {

void send_some(uint32_t requests) {
    for (uint32_t i = 0; i < requests; i++) {
        request(0, static_cast<Form>(g_choices.pick(kForms)), 4, 1);
    }
}

void pause_a_while() {
    static const int64_t kPauses[] = {0, 0, 0, 1, 2, 10, 35, 95};
    const int64_t pause = kPauses[g_choices.pick(8)];
    if (pause > 0) {
        host_sleep(pause);
    }
}

void cancelled(bool has_full_queue) {
    choose_roughness();
    start_host();
    link_up(0);
    set_card_silent(0, g_choices.pick(2) == 0);
    if (has_full_queue) {
        world().checks_earliest_end = false;
        set_queue_capacity(4);
    }
    excuse();
    const uint32_t count = 1 + g_choices.pick(3);
    static const char *const kNames[] = {"sender 1", "sender 2", "sender 3"};
    std::vector<int> threads;
    for (uint32_t i = 0; i < count; i++) {
        const uint32_t requests = 1 + g_choices.pick(3);
        threads.push_back(start_host_thread(kNames[i], [=] { send_some(requests); }));
    }
    for (const int thread : threads) {
        if (g_choices.pick(3) != 2) {
            pause_a_while();
            cancel_host_thread(thread);
        }
    }
    for (const int thread : threads) {
        join_host_thread(thread);
    }
    set_card_silent(0, false);
    finish();
}

const Case kCases[] = {
    {"cancel", "senders of all forms are cancelled", [] { cancelled(false); }, false},
    {"cancel-full", "the same with room for four requests", [] { cancelled(true); }, false},
};

} // namespace

std::span<const Case> cancel_cases() {
    return kCases;
}

} // namespace sim
