// The request service: several clients, the host's own requests beside them.
#include "cases/cases.h"

#include "scheduler/choices.h"
#include "scheduler/scheduler.h"
#include "scheduler/settings.h"
#include "scheduler/trace.h"
#include "world/card.h"
#include "world/host.h"
#include "world/roughness.h"
#include "world/service_client.h"

#include <algorithm>

namespace sim {

namespace {

constexpr uint32_t kSuccess = 0;
constexpr uint32_t kMostWaits = 600; // x 10 ms for one reply
constexpr uint32_t kLen = 8;

// Nothing takes its time or fails in a run that has had no fault.
bool was_quiet(Time stolen_before) {
    return !is_excused() && stolen_time() == stolen_before;
}

// Without memory for the reply the service does not ask the card.
int32_t least_posts() {
    return g_settings.no_memory_one_in == 0 ? 1 : 0;
}

ServiceReply await_reply(uint32_t requester) {
    for (uint32_t i = 0; i < kMostWaits; i++) {
        const std::vector<Message> messages = take_messages(requester);
        if (messages.size() > 1) {
            fail("two replies to one request");
        }
        if (!messages.empty()) {
            return reply_in(messages.front());
        }
        host_sleep(10);
    }
    if (g_settings.message_fails_one_in == 0 && g_settings.no_memory_one_in == 0) {
        fail("no reply from the service");
    }
    return {.addr = 0, .result = ~0U, .data = {}};
}

void read_through_service(uint32_t requester) {
    const uint32_t addr = new_address();
    const Time stolen = stolen_time();
    expect_posts(least_posts(), 1);
    send_to_service(message_of({.requester = requester,
                                .code = kReadRequestCode,
                                .slot = 2,
                                .model = 1,
                                .addr = addr,
                                .len = kLen,
                                .data = {}}));
    const ServiceReply reply = await_reply(requester);
    if (reply.result == kSuccess) {
        for (size_t i = 0; i < reply.data.size(); i++) {
            if (reply.data[i] != card_byte(0, addr + static_cast<uint32_t>(i))) {
                fail("wrong byte in a reply of the service to a read of 0x%x", addr);
            }
        }
    } else if (was_quiet(stolen)) {
        fail("the service's read of 0x%x failed for no reason", addr);
    }
}

void write_through_service(uint32_t requester) {
    const uint32_t addr = new_address();
    const Time stolen = stolen_time();
    std::vector<uint8_t> data(kLen);
    for (uint32_t i = 0; i < kLen; i++) {
        data[i] = written_byte(0, addr + i);
    }
    expect_posts(least_posts(), 2);
    send_to_service(message_of({.requester = requester,
                                .code = kWriteAckRequestCode,
                                .slot = 2,
                                .model = 1,
                                .addr = addr,
                                .len = kLen,
                                .data = data}));
    const ServiceReply reply = await_reply(requester);
    const Asked *known = asked(0, addr, 0x11);
    if (reply.result == kSuccess && !card_has_written(0, addr, kLen) &&
        (known == nullptr || known->refusals == 0)) {
        fail("the service's write to 0x%x is reported as answered, and was not", addr);
    }
    if (reply.result != kSuccess && was_quiet(stolen)) {
        fail("the service's write to 0x%x failed for no reason", addr);
    }
}

void be_client(uint32_t requester, uint32_t requests) {
    for (uint32_t i = 0; i < requests; i++) {
        if (g_choices.pick(2) == 0) {
            read_through_service(requester);
        } else {
            write_through_service(requester);
        }
    }
}

void served() {
    choose_roughness();
    g_settings.message_fails_one_in = g_choices.is_seeded() && g_choices.pick(6) == 0 ? 5 : 0;
    start_host();
    link_up(0);
    start_service();
    const uint32_t requests = 1 + g_choices.pick(3);
    const int one = start_host_thread("client 1", [=] { be_client(0xA1100, requests); });
    const int two = start_host_thread("client 2", [=] { be_client(0xA1200, requests); });
    if (g_choices.pick(2) == 0) {
        request(0, static_cast<Form>(g_choices.pick(kForms)), 4);
    }
    join_host_thread(one);
    join_host_thread(two);
    finish();
}

// Each request has its reply, also when the link goes away under it.
void served_while_link_goes() {
    choose_roughness();
    start_host();
    link_up(0);
    start_service();
    excuse();
    const int one = start_host_thread("client 1", [] { be_client(0xA1100, 2); });
    const int two = start_host_thread("client 2", [] { be_client(0xA1200, 2); });
    for (uint32_t cycles = 1 + g_choices.pick(2); cycles > 0; cycles--) {
        host_sleep(g_choices.pick(30));
        link_down(0);
        host_sleep(g_choices.pick(30));
        link_up(0);
    }
    join_host_thread(one);
    join_host_thread(two);
    finish();
}

// Whatever comes in a message: the service drops it and answers the next one.
void strange_messages() {
    choose_busy_processor();
    start_host();
    link_up(0);
    start_service();
    for (int i = 0; i < 3; i++) {
        Message message = message_of({.requester = 0xA1100,
                                      .code = g_choices.pick(256),
                                      .slot = 2,
                                      .model = 1,
                                      .addr = new_address(),
                                      .len = g_choices.pick(3) * 700,
                                      .data = {}});
        if (message[26] == kReadRequestCode || message[26] == kWriteAckRequestCode) {
            expect_posts(0, 3);
        }
        message.resize(g_choices.pick(60));
        send_to_service(message);
        host_sleep(5);
        (void)take_messages(0xA1100);
    }
    host_sleep(500);
    (void)take_messages(0xA1100);
    read_through_service(0xA1100);
    finish();
}

const Case kCases[] = {
    {"service", "two clients of the request service, and the host itself", served, false},
    {"service-cycled", "the same while the link is unloaded and loaded", served_while_link_goes,
     false},
    {"strange", "messages that are none", strange_messages, false},
};

} // namespace

std::span<const Case> service_cases() {
    return kCases;
}

} // namespace sim
