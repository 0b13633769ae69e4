// Full queues: with room for two or three records, two senders meet the edge at once.
#include "cases/cases.h"

#include "memory/queue_probe.h"
#include "scheduler/choices.h"
#include "world/card.h"
#include "world/host.h"
#include "world/roughness.h"
#include "world/world.h"

#include "queue/queue.h"

#include <vector>

namespace sim {

namespace {

constexpr int kSilentCard = 2; // of three

void fill(Form form, uint32_t requests) {
    for (uint32_t i = 0; i < requests; i++) {
        request(0, form, 4, 1);
    }
}

void full_queue(Form form, uint32_t most_threads) {
    choose_roughness();
    world().checks_earliest_end = false;
    excuse(); // who is dropped has no answer
    start_host();
    link_up(0);
    set_card_silent(0, g_choices.pick(3) != kSilentCard);
    const uint32_t count = 2 + g_choices.pick(most_threads - 1);
    // Who waits for room is counted: with as many waiting as there is room for, nobody would go on.
    const uint32_t least_room = form == Form::kAck ? count + 1 : 2;
    set_queue_capacity(static_cast<int32_t>(least_room + g_choices.pick(2)));
    static const char *const kNames[] = {"sender 1", "sender 2", "sender 3", "sender 4"};
    std::vector<int> threads;
    for (uint32_t i = 0; i < count; i++) {
        const uint32_t requests = 1 + g_choices.pick(4);
        threads.push_back(start_host_thread(kNames[i], [=] { fill(form, requests); }));
    }
    for (const int thread : threads) {
        join_host_thread(thread);
    }
    set_card_silent(0, false);
    finish();
}

// A host that empties the queue itself while others send.
void emptied_by_host() {
    choose_roughness();
    world().checks_earliest_end = false;
    set_queue_capacity(3);
    excuse();
    start_host();
    link_up(0);
    set_card_silent(0, g_choices.pick(2) == 0);
    static const int kQueues[] = {ACK_QUEUE, ACK_WAIT_QUEUE, READ_QUEUE, READ_WAIT_QUEUE};
    static const Form kFormOf[] = {Form::kAck, Form::kAckWait, Form::kRead, Form::kReadWait};
    const uint32_t kind = g_choices.pick(4);
    const Form form = kFormOf[kind];
    const int one = start_host_thread("sender 1", [=] { fill(form, 3); });
    const int two = start_host_thread("sender 2", [=] { fill(form, 2); });
    const uint32_t times = 1 + g_choices.pick(4);
    // A host's own emptying ends non-waiting requests without a post.
    const bool is_waited_for = form == Form::kAckWait || form == Form::kReadWait;
    expect_posts(is_waited_for ? 0 : -5, 0);
    for (uint32_t i = 0; i < times; i++) {
        host_sleep(g_choices.pick(12));
        (void)queue_empty(0, kQueues[kind]);
    }
    join_host_thread(one);
    join_host_thread(two);
    set_card_silent(0, false);
    finish();
}

const Case kCases[] = {
    {"full-reads", "reads from 2 to 4 threads, room for 2 or 3", [] { full_queue(Form::kRead, 4); },
     false},
    {"full-read-waits", "the same, waiting", [] { full_queue(Form::kReadWait, 4); }, false},
    {"full-acks", "acknowledged writes from 2 to 3 threads, room for 2 or 3",
     [] { full_queue(Form::kAck, 3); }, false},
    {"full-ack-waits", "the same, waiting", [] { full_queue(Form::kAckWait, 4); }, false},
    {"emptied", "queue_empty by the host while two threads send", emptied_by_host, false},
};

} // namespace

std::span<const Case> queue_cases() {
    return kCases;
}

} // namespace sim
