// scheduler.h - threads of our own, one of which runs at a time, and a time of their own.
//
// Each simulated thread is a stack. Every call that the product makes into the C library or the
// kernel comes here first (the wrap_*.cpp files) and may hand the processor to another thread.
// Time stands still while threads run and moves on to the next event when all of them wait; it may
// also run on under a thread that could go on ("stolen time"), as on a busy processor.
#ifndef SIMULATION_SCHEDULER_H
#define SIMULATION_SCHEDULER_H

#include <array>
#include <csetjmp>
#include <cstdint>
#include <functional>

namespace sim {

using Time = int64_t; // ns since the start of the run
constexpr Time kNever = INT64_MAX;
constexpr Time kMicrosecond = 1000;
constexpr Time kMillisecond = 1000 * kMicrosecond;
constexpr Time kSecond = 1000 * kMillisecond;

constexpr int kMostThreads = 24;
constexpr int kNobody = -1;

enum class State : uint8_t { kUnused, kRunnable, kWaiting, kEnded };

/** Why a wait is over. */
enum class Woken : uint8_t { kWoken, kTimeout, kSignal, kCancelled };

struct Thread {
    int id;
    const char *name;
    State state;
    bool is_joined;
    bool is_detached;
    bool is_dropped; // was left behind by a fork
    bool is_cancel_enabled;
    bool is_cancel_pending;
    bool is_cancelled;     // the exception is on its way
    bool is_of_product;    // the product started it
    bool takes_signals;    // its wait ends early when a signal comes
    bool takes_cancel;     // its wait ends when it is cancelled
    Woken woken;           // why it was woken last
    const void *waits_for; // what it waits for, null = time alone
    const char *waits_in;  // the call, for the trace
    Time wakes_at;
    uint64_t priority; // pct
    uint64_t blocked_signals;
    int saved_errno;
    void *exceptions[2]; // what the C++ library keeps per thread
    std::function<void()> body;
    jmp_buf context;
    bool has_started;
};

/** Thrown at a cancellation point: unwinds the thread's stack as pthread_cancel does. */
struct Cancelled {};

// --- one run ---

/** How a run ended. */
struct Outcome {
    bool failed;
    char text[512];
};

/** Runs body as the first thread ("host") until it returns or something fails. */
Outcome run(void (*body)());

/** Steps of this run so far, over all threads. */
uint64_t steps();

// --- for the wrapped calls ---

Thread &self();
Time now();

/** Time that passed although a thread could have run. */
Time stolen_time();

/** A point at which another thread may go on. */
void point(const char *call);

/** The same, between two accesses to memory rather than in a call; only in runs that look there. */
void fine_point();

/**
 * Wait for wake() at an address, until a time. The call is named in the trace.
 * takes_signals: a signal may end it; takes_cancel: a cancellation point.
 */
Woken wait(const char *call, const void *address, Time until, bool takes_signals,
           bool takes_cancel);

/** Makes all threads that wait at an address look again. */
void wake(const void *address);

void cancellation_point();
void cancel(int id);

int start_thread(const char *name, std::function<void()> body);
Thread *thread(int id);

/** Calls action at a time, on no thread's stack in particular. */
void at(Time when, std::function<void()> action);

/** Whether an action is still to come. */
bool anything_to_come();

/** A periodic signal: handler is called every period, from when on; 0 stops it. */
void set_tick(Time period);
void set_signal_handler(int signo, void (*handler)(int));

/** Fork: every thread but the caller is gone, as in a child. */
void drop_other_threads();

/** All waiting and running threads, for the report of one that does not come back. */
void tell_threads();

} // namespace sim

#endif
