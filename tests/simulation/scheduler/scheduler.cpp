#include "scheduler/scheduler.h"

#include "memory/product_memory.h"
#include "memory/races.h"
#include "scheduler/choices.h"
#include "scheduler/settings.h"
#include "scheduler/trace.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <vector>

namespace sim {

namespace {

constexpr size_t kStackSize = 256 * 1024;
constexpr size_t kGuard = 4096;
constexpr int kSignals = 65;

struct Event {
    Time when;
    uint64_t number;
    std::function<void()> action;
};

std::array<Thread, kMostThreads> g_threads;
std::array<void *, kMostThreads> g_stacks;
int g_thread_count;
Thread *g_self;
jmp_buf g_runner;

Time g_now;
Time g_stolen;
uint64_t g_steps;
std::vector<Event> g_events;
uint64_t g_event_number;
Time g_tick_period;
Time g_next_tick;
std::array<void (*)(int), kSignals> g_handlers;

std::vector<uint64_t> g_changes; // pct: the steps at which the running thread falls back
uint64_t g_next_low_priority;

Outcome g_outcome;

void *stack_of(int id) {
    void *&stack = g_stacks[static_cast<size_t>(id)];
    if (stack == nullptr) {
        stack = mmap(nullptr, kStackSize + kGuard, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (stack == MAP_FAILED || mprotect(stack, kGuard, PROT_NONE) != 0) {
            std::abort();
        }
    }
    return static_cast<char *>(stack) + kGuard;
}

void save(Thread &thread) {
    thread.saved_errno = errno;
    memcpy(static_cast<void *>(thread.exceptions), static_cast<void *>(abi::__cxa_get_globals()),
           sizeof thread.exceptions);
}

void restore(Thread &thread) {
    memcpy(static_cast<void *>(abi::__cxa_get_globals()), static_cast<void *>(thread.exceptions),
           sizeof thread.exceptions);
    errno = thread.saved_errno;
}

[[noreturn]] void end_of_thread();

void first_function() {
    Thread &me = *g_self;
    restore(me);
    try {
        me.body();
    } catch (const Cancelled &) {
    }
    end_of_thread();
}

[[noreturn]] void enter(Thread &next) {
    g_self = &next;
    if (next.has_started) {
        _longjmp(next.context, 1);
    }
    next.has_started = true;
    ucontext_t context;
    (void)getcontext(&context);
    context.uc_stack.ss_sp = stack_of(next.id);
    context.uc_stack.ss_size = kStackSize;
    context.uc_link = nullptr;
    makecontext(&context, first_function, 0);
    (void)setcontext(&context);
    std::abort();
}

void switch_to(Thread &next) {
    Thread *me = g_self;
    if (&next == me) {
        return;
    }
    save(*me);
    if (_setjmp(me->context) == 0) {
        enter(next);
    }
    restore(*me);
}

void make_runnable(Thread &thread, Woken why) {
    thread.state = State::kRunnable;
    thread.woken = why;
}

void take_tick() {
    g_next_tick += g_tick_period;
    void (*handler)(int) = g_handlers[SIGALRM];
    if (handler == nullptr) {
        return;
    }
    const OutsideProduct outside;
    handler(SIGALRM);
    // It came on some thread; if that one slept, its sleep is over.
    std::array<Thread *, kMostThreads> takers{};
    uint32_t count = 0;
    for (int i = 0; i < g_thread_count; i++) {
        Thread &thread = g_threads[static_cast<size_t>(i)];
        if (thread.state == State::kRunnable || thread.state == State::kWaiting) {
            takers[count++] = &thread;
        }
    }
    if (count == 0) {
        return;
    }
    Thread &taker = *takers[g_choices.pick(count)];
    if (taker.state == State::kWaiting && taker.takes_signals) {
        make_runnable(taker, Woken::kSignal);
    }
}

Time next_time() {
    Time next = g_tick_period > 0 ? g_next_tick : kNever;
    for (const Event &event : g_events) {
        next = std::min(next, event.when);
    }
    for (int i = 0; i < g_thread_count; i++) {
        const Thread &thread = g_threads[static_cast<size_t>(i)];
        if (thread.state == State::kWaiting) {
            next = std::min(next, thread.wakes_at);
        }
    }
    return next;
}

// The earliest event that is due, or none.
bool take_event(std::function<void()> &action) {
    auto best = g_events.end();
    for (auto event = g_events.begin(); event != g_events.end(); ++event) {
        if (event->when <= g_now && (best == g_events.end() || event->when < best->when ||
                                     (event->when == best->when && event->number < best->number))) {
            best = event;
        }
    }
    if (best == g_events.end()) {
        return false;
    }
    action = std::move(best->action);
    *best = std::move(g_events.back());
    g_events.pop_back();
    return true;
}

// Time moves on to the next event. False: there is none.
bool advance_time() {
    const Time next = next_time();
    if (next == kNever) {
        return false;
    }
    g_now = std::max(g_now, next);
    if (g_now > g_settings.most_time_ms * kMillisecond) {
        tell_threads();
        fail("a call has not returned after %lld s",
             static_cast<long long>(g_settings.most_time_ms / 1000));
    }
    while (g_tick_period > 0 && g_next_tick <= g_now) {
        take_tick();
    }
    std::function<void()> action;
    while (take_event(action)) {
        const OutsideProduct outside;
        action();
    }
    for (int i = 0; i < g_thread_count; i++) {
        Thread &thread = g_threads[static_cast<size_t>(i)];
        if (thread.state == State::kWaiting && thread.wakes_at <= g_now) {
            make_runnable(thread, Woken::kTimeout);
        }
    }
    return true;
}

uint32_t choose(const std::array<Thread *, kMostThreads> &ready, uint32_t count, bool could_go_on) {
    if (g_choices.strategy != Strategy::kPct) {
        return g_choices.schedule(count, could_go_on);
    }
    if (std::find(g_changes.begin(), g_changes.end(), g_steps) != g_changes.end()) {
        g_self->priority = --g_next_low_priority;
    }
    const auto *const begin = ready.begin();
    return static_cast<uint32_t>(std::max_element(begin, begin + count,
                                                  [](const Thread *a, const Thread *b) {
                                                      return a->priority < b->priority;
                                                  }) -
                                 begin);
}

// The thread that goes on. could_go_on: the running one is among those to choose from.
Thread &choose_thread(bool could_go_on) {
    for (;;) {
        std::array<Thread *, kMostThreads> ready{};
        uint32_t count = 0;
        if (could_go_on) {
            ready[count++] = g_self;
        }
        for (int i = 0; i < g_thread_count; i++) {
            Thread &thread = g_threads[static_cast<size_t>(i)];
            if (thread.state == State::kRunnable && !(could_go_on && &thread == g_self)) {
                ready[count++] = &thread;
            }
        }
        if (count > 0) {
            return *ready[choose(ready, count, could_go_on)];
        }
        if (!advance_time()) {
            tell_threads();
            fail("nobody can go on: every thread waits for another");
        }
    }
}

void count_step() {
    g_steps += 1;
    if (g_steps > g_settings.most_steps) {
        tell_threads();
        fail("no end after %llu steps", static_cast<unsigned long long>(g_steps));
    }
}

void maybe_steal_time() {
    if (g_settings.steal_one_in != 0 && g_choices.is_seeded() &&
        g_choices.threads.below(g_settings.steal_one_in) == 0) {
        const Time before = g_now;
        if (next_time() != kNever && advance_time()) {
            g_stolen += g_now - before;
            SIM_TELL("(%.3f ms pass)", static_cast<double>(g_now - before) / kMillisecond);
        }
    }
}

void release_waiters_of(const Thread &ended) {
    wake(&ended);
}

[[noreturn]] void end_of_thread() {
    Thread &me = *g_self;
    SIM_TELL("ends%s", me.is_cancelled ? " (cancelled)" : "");
    me.state = State::kEnded;
    races_released(&me);
    release_waiters_of(me);
    if (me.id == 0) {
        _longjmp(g_runner, 1);
    }
    save(me);
    enter(choose_thread(false));
}

void choose_changes() {
    g_changes.clear();
    if (g_choices.strategy != Strategy::kPct) {
        return;
    }
    // How long a run will be is not known: the points of change are spread over all magnitudes.
    for (uint32_t i = 1; i < g_settings.pct_depth; i++) {
        const uint32_t magnitude = 5 + g_choices.threads.below(9);
        g_changes.push_back(1 + g_choices.threads.below(1U << magnitude));
    }
}

void reset() {
    for (int i = 0; i < g_thread_count; i++) {
        g_threads[static_cast<size_t>(i)].body = nullptr;
    }
    g_thread_count = 0;
    g_self = nullptr;
    g_now = 0;
    g_stolen = 0;
    g_steps = 0;
    g_events.clear();
    g_event_number = 0;
    g_tick_period = 0;
    g_next_tick = kNever;
    g_handlers.fill(nullptr);
    g_next_low_priority = 1000;
    g_outcome = {};
    choose_changes();
}

} // namespace

Outcome run(void (*body)()) {
    reset();
    (void)start_thread("host", body);
    void *exceptions[2];
    memcpy(static_cast<void *>(exceptions), static_cast<void *>(abi::__cxa_get_globals()),
           sizeof exceptions);
    if (_setjmp(g_runner) == 0) {
        begin_product();
        enter(g_threads[0]);
    }
    end_product();
    memcpy(static_cast<void *>(abi::__cxa_get_globals()), static_cast<void *>(exceptions),
           sizeof exceptions);
    return g_outcome;
}

void fail(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    g_outcome.failed = true;
    (void)vsnprintf(g_outcome.text, sizeof g_outcome.text, format, arguments);
    va_end(arguments);
    SIM_TELL("FAULT: %s", g_outcome.text);
    _longjmp(g_runner, 1);
}

uint64_t steps() {
    return g_steps;
}

Thread &self() {
    return *g_self;
}

Time now() {
    return g_now;
}

Time stolen_time() {
    return g_stolen;
}

void point(const char *call) {
    count_step();
    maybe_steal_time();
    Thread &next = choose_thread(true);
    if (&next != g_self) {
        SIM_TELL("(before %s: %s goes on)", call, next.name);
        switch_to(next);
    }
}

void fine_point() {
    if (g_settings.fine_one_in != 0 && g_choices.is_seeded() &&
        g_choices.threads.below(g_settings.fine_one_in) == 0) {
        point("an access to memory");
    }
}

Woken wait(const char *call, const void *address, Time until, bool takes_signals,
           bool takes_cancel) {
    Thread &me = *g_self;
    if (takes_cancel && me.is_cancel_pending && me.is_cancel_enabled) {
        return Woken::kCancelled;
    }
    count_step();
    me.state = State::kWaiting;
    me.waits_for = address;
    me.waits_in = call;
    me.wakes_at = until;
    me.takes_signals = takes_signals;
    me.takes_cancel = takes_cancel;
    me.woken = Woken::kWoken;
    Thread &next = choose_thread(false);
    if (&next != &me) {
        SIM_TELL("waits in %s; %s goes on", call, next.name);
        switch_to(next);
    }
    me.waits_for = nullptr;
    return me.woken;
}

void wake(const void *address) {
    for (int i = 0; i < g_thread_count; i++) {
        Thread &thread = g_threads[static_cast<size_t>(i)];
        if (thread.state == State::kWaiting && thread.waits_for == address && address != nullptr) {
            make_runnable(thread, Woken::kWoken);
        }
    }
}

void cancellation_point() {
    Thread &me = *g_self;
    if (me.is_cancel_pending && me.is_cancel_enabled && !me.is_cancelled) {
        me.is_cancelled = true;
        SIM_TELL("is cancelled");
        throw Cancelled{};
    }
}

void cancel(int id) {
    Thread *target = thread(id);
    if (target == nullptr || target->state == State::kEnded) {
        return;
    }
    target->is_cancel_pending = true;
    if (target->state == State::kWaiting && target->takes_cancel && target->is_cancel_enabled) {
        make_runnable(*target, Woken::kCancelled);
    }
}

int start_thread(const char *name, std::function<void()> body) {
    if (g_thread_count == kMostThreads) {
        fail("the simulation has no more than %d threads", kMostThreads);
    }
    Thread &thread = g_threads[static_cast<size_t>(g_thread_count)];
    thread = {};
    thread.id = g_thread_count++;
    thread.name = name;
    thread.state = State::kRunnable;
    thread.is_cancel_enabled = true;
    thread.wakes_at = kNever;
    thread.priority = 1000000 + g_choices.threads.next() % 1000000;
    thread.body = std::move(body);
    return thread.id;
}

Thread *thread(int id) {
    return id >= 0 && id < g_thread_count ? &g_threads[static_cast<size_t>(id)] : nullptr;
}

void at(Time when, std::function<void()> action) {
    g_events.push_back({.when = when, .number = g_event_number++, .action = std::move(action)});
}

bool anything_to_come() {
    return !g_events.empty();
}

void set_tick(Time period) {
    g_tick_period = period;
    g_next_tick = period > 0 ? g_now + period : kNever;
}

void set_signal_handler(int signo, void (*handler)(int)) {
    if (signo > 0 && signo < kSignals) {
        g_handlers[static_cast<size_t>(signo)] = handler;
    }
}

void drop_other_threads() {
    for (int i = 0; i < g_thread_count; i++) {
        Thread &thread = g_threads[static_cast<size_t>(i)];
        if (&thread != g_self && thread.state != State::kEnded) {
            thread.state = State::kEnded;
            thread.is_detached = true;
            thread.is_dropped = true;
        }
    }
    g_tick_period = 0; // a child has no interval timer
    g_next_tick = kNever;
}

void tell_threads() {
    for (int i = 0; i < g_thread_count; i++) {
        const Thread &thread = g_threads[static_cast<size_t>(i)];
        if (thread.state == State::kWaiting) {
            SIM_TELL("%s waits in %s for %s", thread.name, thread.waits_in,
                     name_of_address(thread.waits_for).c_str());
        } else if (thread.state == State::kRunnable) {
            SIM_TELL("%s could go on", thread.name);
        }
    }
}

} // namespace sim
