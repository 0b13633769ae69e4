// All forms of requests, from one to four threads.
#include "cases/cases.h"

#include "scheduler/choices.h"
#include "world/host.h"
#include "world/roughness.h"

#include <vector>

namespace sim {

namespace {

uint32_t some_length() {
    static const uint32_t kLengths[] = {1, 4, 4, 64, 65, 1400};
    return kLengths[g_choices.pick(6)];
}

void send_some(int index, uint32_t requests) {
    for (uint32_t i = 0; i < requests; i++) {
        const auto form = static_cast<Form>(g_choices.pick(kForms));
        const bool is_long = g_choices.pick(12) == 11;
        request(index, form, is_long ? 1401 : some_length(),
                static_cast<int32_t>(1 + g_choices.pick(3)));
    }
}

void all_forms() {
    choose_roughness();
    start_host();
    link_up(0);
    const uint32_t count = 1 + g_choices.pick(4);
    const uint32_t requests = 1 + g_choices.pick(3);
    static const char *const kNames[] = {"sender 1", "sender 2", "sender 3", "sender 4"};
    std::vector<int> threads;
    for (uint32_t i = 0; i < count; i++) {
        threads.push_back(start_host_thread(kNames[i], [=] { send_some(0, requests); }));
    }
    for (const int thread : threads) {
        join_host_thread(thread);
    }
    finish();
}

// Nothing answers: every time-out is as long as it should be.
void one_form(Form form) {
    choose_roughness();
    start_host();
    link_up(0);
    const int other = start_host_thread("sender 2", [=] { request(0, form, 4); });
    request(0, form, 4);
    join_host_thread(other);
    finish();
}

const Case kCases[] = {
    {"forms", "all forms from 1 to 4 threads", all_forms, false},
    {"acks", "acknowledged writes from two threads", [] { one_form(Form::kAck); }, false},
    {"ack-waits", "waiting writes from two threads", [] { one_form(Form::kAckWait); }, false},
    {"reads", "reads from two threads", [] { one_form(Form::kRead); }, false},
    {"read-waits", "waiting reads from two threads", [] { one_form(Form::kReadWait); }, false},
};

} // namespace

std::span<const Case> forms_cases() {
    return kCases;
}

} // namespace sim
