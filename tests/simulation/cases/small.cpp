// Small stories, for the search through all schedules: two senders, two requests, room for two.
#include "cases/cases.h"

#include "calls/link.h"
#include "memory/queue_probe.h"
#include "scheduler/choices.h"
#include "world/card.h"
#include "world/host.h"
#include "world/roughness.h"
#include "world/world.h"

namespace sim {

namespace {

constexpr int32_t kRoom = 2; // a queue with one record is free, with two it is full

void begin(int32_t room) {
    choose_busy_processor();
    g_choices.is_held = true; // the search begins with the senders
    world().checks_earliest_end = false;
    set_queue_capacity(room);
    excuse();
    start_host();
    link_up(0);
}

void end(bool is_link_usable = true) {
    g_choices.is_held = true;
    set_card_silent(0, false);
    finish(is_link_usable);
}

void two_senders(Form form, int32_t room) {
    begin(room);
    const int one = start_host_thread("sender 1", [=] { request(0, form, 4, 1); });
    const int two = start_host_thread("sender 2", [=] { request(0, form, 4, 1); });
    g_choices.is_held = false;
    join_host_thread(one);
    join_host_thread(two);
    end();
}

// One request is under way already: both senders find the queue full and make room.
void two_senders_at_full_queue() {
    begin(kRoom);
    set_card_silent(0, true);
    request(0, Form::kRead, 4, 1);
    const int one = start_host_thread("sender 1", [] { request(0, Form::kRead, 4, 1); });
    const int two = start_host_thread("sender 2", [] { request(0, Form::kRead, 4, 1); });
    g_choices.is_held = false;
    join_host_thread(one);
    join_host_thread(two);
    end();
}

// A sender is cancelled, its answer comes all the same. One preemption is enough for a cancel at
// every point that the sender passes.
void cancelled_sender(Form form) {
    begin(kRoom + 1);
    const int sender = start_host_thread("sender 1", [=] { request(0, form, 64, 1); });
    g_choices.is_held = false;
    cancel_host_thread(sender);
    join_host_thread(sender);
    end();
}

// The link goes away under one waiting sender.
void link_taken_away() {
    begin(kRoom + 1);
    set_card_silent(0, g_choices.pick(2) == 0);
    const int sender = start_host_thread("sender 1", [] { request(0, Form::kReadWait, 4, 1); });
    g_choices.is_held = false;
    link_down(0);
    join_host_thread(sender);
    end();
}

const Case kCases[] = {
    {"small-reads", "two reads, room for two", [] { two_senders(Form::kRead, kRoom); }, true},
    {"small-acks", "two acknowledged writes, room for two waiting",
     [] { two_senders(Form::kAck, kRoom + 1); }, true},
    {"small-read-waits", "two waiting reads, room for two",
     [] { two_senders(Form::kReadWait, kRoom); }, true},
    {"small-ack-waits", "two waiting writes, room for two",
     [] { two_senders(Form::kAckWait, kRoom); }, true},
    {"small-full", "two reads at a full queue", two_senders_at_full_queue, true},
    {"small-cancel", "a waiting reader is cancelled", [] { cancelled_sender(Form::kReadWait); },
     true},
    {"small-cancel-ack-wait", "a waiting writer is cancelled",
     [] { cancelled_sender(Form::kAckWait); }, true},
    {"small-cancel-read", "a reader is cancelled", [] { cancelled_sender(Form::kRead); }, true},
    {"small-cancel-ack", "a writer is cancelled", [] { cancelled_sender(Form::kAck); }, true},
    {"small-cancel-plain", "a plain write is cancelled", [] { cancelled_sender(Form::kPlain); },
     true},
    {"small-down", "the link is taken down under a waiting sender", link_taken_away, true},
};

} // namespace

std::span<const Case> small_cases() {
    return kCases;
}

} // namespace sim
