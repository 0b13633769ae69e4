// Time-outs, to the tick: a card that says nothing, and how long each request then lasts.
#include "cases/cases.h"

#include "calls/locks.h"
#include "scheduler/choices.h"
#include "scheduler/scheduler.h"
#include "scheduler/settings.h"
#include "scheduler/trace.h"
#include "world/card.h"
#include "world/host.h"
#include "world/roughness.h"

#include "raw_msg/raw_msg.h"

namespace sim {

namespace {

constexpr Time kTick = 30 * kMillisecond;
constexpr Time kPass = 10 * kMillisecond;
constexpr Time kLooks = kMillisecond; // how often this file looks whether it is over
constexpr int32_t kResendTicks = 3;
constexpr uint32_t kTransmissions = 3;

// Three periods: the first begins within a tick, the end waits for a pass of the check thread, and
// a tick may have been counted and not yet taken when the request began.
void check_time(const char *what, Time took, int32_t ticks) {
    const Time whole = 3 * ticks * kTick;
    const Time least = whole - kTick - kPass;
    const Time most = whole + 2 * kPass + kLooks;
    if (took < least || took > most) {
        fail("%s ended after %.1f ms, %.0f to %.0f were right", what,
             static_cast<double>(took) / kMillisecond, static_cast<double>(least) / kMillisecond,
             static_cast<double>(most) / kMillisecond);
    }
}

// Begins anywhere between two ticks and two passes.
void wait_for_any_moment() {
    host_sleep(1 + g_choices.pick(45));
}

void silent_waiting(int index, Form form) {
    const auto ticks = static_cast<int32_t>(1 + g_choices.pick(6));
    wait_for_any_moment();
    const Time start = now();
    request(index, form, 4, ticks);
    check_time("a waiting request", now() - start, ticks);
}

void silent_not_waiting(Form form) {
    wait_for_any_moment();
    const int posts = semaphore_value(&sem_test);
    const Time start = now();
    const uint32_t addr = new_address() + 0x1000; // the one that the request will take
    request(0, form, 4);
    while (semaphore_value(&sem_test) == posts && now() - start < kSecond) {
        host_sleep(1);
    }
    check_time("a request without waiting", now() - start, kResendTicks);
    const Asked *known = asked(0, addr, form == Form::kAck ? 0x11 : 0x00);
    if (known == nullptr || known->transmissions != kTransmissions) {
        fail("a request without an answer was sent %u times, %u were right",
             known == nullptr ? 0 : known->transmissions, kTransmissions);
    }
}

void begin() {
    choose_busy_processor();
    g_settings.steal_one_in = 0; // time is what is looked at
    start_host();
    excuse();
}

void silent() {
    begin();
    link_up(0);
    set_card_silent(0, true);
    static const Form kAll[] = {Form::kAck, Form::kRead, Form::kAckWait, Form::kReadWait};
    const Form form = kAll[g_choices.pick(4)];
    if (form == Form::kAckWait || form == Form::kReadWait) {
        silent_waiting(0, form);
    } else {
        silent_not_waiting(form);
    }
    set_card_silent(0, false);
    finish();
}

// Each interface is aged by all ticks: neither check thread takes those of the other.
void silent_on_two() {
    begin();
    for (const int index : {0, 1}) {
        link_up(index);
        set_card_silent(index, true);
    }
    const int other = start_host_thread("sender 1", [] { silent_waiting(1, Form::kReadWait); });
    silent_waiting(0, Form::kAckWait);
    join_host_thread(other);
    for (const int index : {0, 1}) {
        set_card_silent(index, false);
    }
    finish();
}

const Case kCases[] = {
    {"silent", "no answer: every time-out is as long as it should be", silent, false},
    {"silent-two", "the same on two interfaces at once", silent_on_two, false},
};

} // namespace

std::span<const Case> time_cases() {
    return kCases;
}

} // namespace sim
