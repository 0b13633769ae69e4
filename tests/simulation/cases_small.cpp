// Small stories, for the search through all schedules: two senders, two requests, room for two.
#include "cases.h"

#include "host.h"
#include "queue_probe.h"
#include "roughness.h"
#include "world.h"

namespace sim {

namespace {

constexpr int32_t kRoom = 2; // a queue with one record is free, with two it is full

void two_senders(Form form, int32_t room) {
    choose_busy_processor();
    world().checks_earliest_end = false;
    set_queue_capacity(room);
    excuse();
    start_host();
    link_up(0);
    const int one = start_host_thread("sender 1", [=] { request(0, form, 4, 1); });
    const int two = start_host_thread("sender 2", [=] { request(0, form, 4, 1); });
    join_host_thread(one);
    join_host_thread(two);
    finish(false);
}

const Case kCases[] = {
    {"small-reads", "two reads, room for two", [] { two_senders(Form::kRead, kRoom); }, true},
    {"small-acks", "two acknowledged writes, room for two waiting",
     [] { two_senders(Form::kAck, kRoom + 1); }, true},
    {"small-read-waits", "two waiting reads, room for two",
     [] { two_senders(Form::kReadWait, kRoom); }, true},
    {"small-ack-waits", "two waiting writes, room for two",
     [] { two_senders(Form::kAckWait, kRoom); }, true},
};

} // namespace

std::span<const Case> small_cases() {
    return kCases;
}

} // namespace sim
