// A child of a busy host that starts the layer anew.
#include "cases/cases.h"

#include "calls/fork.h"
#include "scheduler/choices.h"
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

void forked() {
    choose_busy_processor();
    start_host();
    link_up(0);
    static const char *const kNames[] = {"sender 1", "sender 2", "sender 3"};
    const uint32_t count = 1 + g_choices.pick(3);
    for (uint32_t i = 0; i < count; i++) {
        (void)start_host_thread(kNames[i], [] { send_some(3); });
    }
    host_sleep(g_choices.pick(2));
    fork_child();
    excuse_inherited();
    start_host();
    link_up(0);
    request(0, static_cast<Form>(g_choices.pick(kForms)), 4, 1);
    finish();
}

const Case kCases[] = {
    {"fork", "the child of a busy host repeats the start-up", forked, false},
};

} // namespace

std::span<const Case> fork_cases() {
    return kCases;
}

} // namespace sim
