// Links that come and go: under waiting callers, under load, half-way, two at a time.
#include "cases/cases.h"

#include "calls/link.h"
#include "scheduler/choices.h"
#include "scheduler/settings.h"
#include "scheduler/trace.h"
#include "world/card.h"
#include "world/host.h"
#include "world/roughness.h"
#include "world/world.h"

#include "eth_raw/eth_raw.h"
#include "raw_msg/raw_msg.h"

#include <vector>

namespace sim {

namespace {

const char *const kNames[] = {"sender 1", "sender 2", "sender 3", "sender 4"};

void send_some(int index, uint32_t requests) {
    for (uint32_t i = 0; i < requests; i++) {
        request(index, static_cast<Form>(g_choices.pick(kForms)), 4,
                static_cast<int32_t>(1 + g_choices.pick(2)));
    }
}

std::vector<int> start_senders(int index, uint32_t most) {
    std::vector<int> threads;
    const uint32_t count = 1 + g_choices.pick(most);
    for (uint32_t i = 0; i < count; i++) {
        const uint32_t requests = 1 + g_choices.pick(3);
        threads.push_back(start_host_thread(kNames[i], [=] { send_some(index, requests); }));
    }
    return threads;
}

void join_all(const std::vector<int> &threads) {
    for (const int thread : threads) {
        join_host_thread(thread);
    }
}

// Every caller comes back when the link is taken away from under it.
void taken_down() {
    choose_roughness();
    world().checks_earliest_end = false;
    start_host();
    link_up(0);
    excuse();
    set_card_silent(0, g_choices.pick(2) == 0);
    const std::vector<int> threads = start_senders(0, 3);
    host_sleep(g_choices.pick(3) * 20);
    link_down(0);
    join_all(threads);
    set_card_silent(0, false);
    finish();
}

// Loaded and unloaded, again and again, while others send.
void cycled() {
    choose_roughness();
    world().checks_earliest_end = false;
    start_host();
    link_up(0);
    excuse();
    const std::vector<int> threads = start_senders(0, 3);
    const uint32_t cycles = 1 + g_choices.pick(3);
    for (uint32_t i = 0; i < cycles; i++) {
        link_down(0);
        host_sleep(g_choices.pick(2) * 15);
        link_up(0);
    }
    join_all(threads);
    finish();
}

// The interface itself goes away: down and up, or removed and made anew.
void interface_gone() {
    choose_roughness();
    start_host();
    link_up(0);
    excuse();
    const std::vector<int> threads = start_senders(0, 2);
    const bool is_removed = g_choices.pick(2) == 0;
    host_sleep(g_choices.pick(3) * 10);
    if (is_removed) {
        remove_interface(0);
    } else {
        set_interface_up(0, false);
    }
    host_sleep(g_choices.pick(3) * 50);
    if (is_removed) {
        add_interface(0);
        join_all(threads);
        link_down(0);
        link_up(0);
    } else {
        set_interface_up(0, true);
        join_all(threads);
    }
    finish();
}

// A link without its socket bound or without its threads is not up: its requests fail at once and
// nothing goes out.
void half_up() {
    choose_busy_processor();
    world().checks_earliest_end = false;
    start_host();
    g_settings.open_fails_one_in = 4 * g_choices.pick(2);
    g_settings.no_thread_one_in = 2 * g_choices.pick(2);
    g_settings.faults_left = 1 + static_cast<int32_t>(g_choices.pick(2));
    link_up(0);
    g_settings.faults_left = 0;
    const bool is_up = link_is_up(0);
    excuse();
    const uint32_t sent_before = g_wire.requests;
    send_some(0, 3);
    if (!is_up && g_wire.requests != sent_before) {
        fail("the link has not come up, and frames go out");
    }
    settle();
    if (!is_up || !link_receives(0)) {
        link_down(0);
        link_up(0);
    }
    finish();
}

// A second end of the link must not close what somebody else has opened since.
void ended_twice() {
    choose_busy_processor();
    start_host();
    link_up(0);
    request(0, Form::kReadWait, 4);
    link_down(0);
    (void)open_foreign_descriptor();
    (void)RawMsgModuleUnInit(0);
    (void)RawMsgModuleUnInit(0);
    link_up(0);
    finish();
}

void two_interfaces() {
    choose_roughness();
    start_host();
    link_up(0);
    link_up(1);
    const uint32_t requests = 1 + g_choices.pick(3);
    const int other = start_host_thread("sender 1", [=] { send_some(1, requests); });
    send_some(0, requests);
    join_host_thread(other);
    finish();
}

const Case kCases[] = {
    {"taken-down", "the link is taken down under its callers", taken_down, false},
    {"cycled", "the module is unloaded and loaded under load", cycled, false},
    {"interface", "the interface goes down and up, or is removed and made anew", interface_gone,
     false},
    {"half-up", "sockets, binding or threads are not to be had", half_up, false},
    {"ended-twice", "a link is ended twice", ended_twice, false},
    {"two", "requests on two interfaces", two_interfaces, false},
};

} // namespace

std::span<const Case> link_cases() {
    return kCases;
}

} // namespace sim
