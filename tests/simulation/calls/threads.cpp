// Threads, mutexes and semaphores in the place of the C library's.
#include "calls/locks.h"
#include "memory/races.h"
#include "scheduler/scheduler.h"
#include "scheduler/settings.h"
#include "scheduler/trace.h"

#include "memory/product_memory.h"

#include "ap_msg/ap_msg.h"
#include "raw_msg/raw_msg.h"

#include <cerrno>
#include <vector>

namespace {

using namespace sim;

// Laid into pthread_mutex_t, whose initialiser is all zeros, and into sem_t.
struct Mutex {
    int32_t owner; // thread + 1, 0 = free
    uint32_t mark;
    uint32_t waiters;
};
struct Semaphore {
    uint32_t mark;
    int32_t value;
};
constexpr uint32_t kMutexMark = 0x4D555458;
constexpr uint32_t kSemaphoreMark = 0x53454D41;

std::vector<const Mutex *> g_held;

Mutex &mutex_at(pthread_mutex_t *mutex, const char *call) {
    must_be_usable(mutex, sizeof *mutex, call);
    return *reinterpret_cast<Mutex *>(mutex);
}

Semaphore &semaphore_at(sem_t *semaphore, const char *call) {
    must_be_usable(semaphore, sizeof *semaphore, call);
    auto &found = *reinterpret_cast<Semaphore *>(semaphore);
    if (found.mark != kSemaphoreMark) {
        fail("%s: no semaphore at %s (never set up, or destroyed)", call,
             name_of_address(semaphore).c_str());
    }
    return found;
}

void forget_held(const Mutex &mutex) {
    for (auto &held : g_held) {
        if (held == &mutex) {
            held = g_held.back();
            g_held.pop_back();
            return;
        }
    }
}

pthread_t as_handle(int id) {
    return static_cast<pthread_t>(id) + 1000;
}

int as_id(pthread_t handle) {
    return static_cast<int>(handle) - 1000;
}

Thread &thread_of(pthread_t handle, const char *call) {
    Thread *found = thread(as_id(handle));
    if (found == nullptr || found->is_joined || found->is_detached) {
        fail("%s: no such thread", call);
    }
    return *found;
}

// What the product's threads are called in the trace.
const char *name_of_thread(void *(*body)(void *), const void *argument) {
    struct Row {
        void *(*body)(void *);
        const char *names[3];
    };
    static const Row kRows[] = {
        {RawMsgRecv, {"receive 0", "receive 1", "receive 2"}},
        {RawMsgAckReadCheck, {"check 0", "check 1", "check 2"}},
        {ApMsgRecv, {"service", "service", "service"}},
        {ApMsgFileProc, {"file thread", "file thread", "file thread"}},
    };
    const auto index = reinterpret_cast<uintptr_t>(argument);
    for (const Row &row : kRows) {
        if (row.body == body && index < std::size(row.names)) {
            return row.names[index];
        }
    }
    return "thread";
}

} // namespace

namespace sim {

void reset_locks() {
    g_held.clear();
}

void must_hold_no_locks() {
    if (!g_held.empty()) {
        fail("a lock is still held at the end: %s, by %s", name_of_address(g_held.front()).c_str(),
             thread(g_held.front()->owner - 1)->name);
    }
}

void forget_locks_of_dropped() {
    std::erase_if(g_held, [](const Mutex *held) { return thread(held->owner - 1)->is_dropped; });
}

int semaphore_value(const sem_t *semaphore) {
    return reinterpret_cast<const Semaphore *>(semaphore)->value;
}

} // namespace sim

extern "C" {

// NOLINTBEGIN: the linker's names
int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *) {
    point("pthread_mutex_init");
    Mutex &m = mutex_at(mutex, "pthread_mutex_init");
    if (m.mark == kMutexMark && m.owner != 0 && !thread(m.owner - 1)->is_dropped) {
        fail("pthread_mutex_init: %s is locked by %s", name_of_address(mutex).c_str(),
             thread(m.owner - 1)->name);
    }
    forget_held(m);
    m = {.owner = 0, .mark = kMutexMark, .waiters = 0};
    return 0;
}

int __wrap_pthread_mutex_destroy(pthread_mutex_t *mutex) {
    point("pthread_mutex_destroy");
    return mutex_at(mutex, "pthread_mutex_destroy").owner != 0 ? EBUSY : 0;
}

int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex) {
    point("pthread_mutex_lock");
    Mutex &m = mutex_at(mutex, "pthread_mutex_lock");
    while (m.owner != 0) {
        if (m.owner == self().id + 1) {
            fail("pthread_mutex_lock: %s has it already: %s", self().name,
                 name_of_address(mutex).c_str());
        }
        (void)wait("pthread_mutex_lock", mutex, kNever, false, false);
        must_be_usable(mutex, sizeof *mutex, "pthread_mutex_lock");
    }
    m.mark = kMutexMark;
    m.owner = self().id + 1;
    g_held.push_back(&m);
    races_acquired(mutex);
    SIM_TELL("locks %s", name_of_address(mutex).c_str());
    return 0;
}

int __wrap_pthread_mutex_trylock(pthread_mutex_t *mutex) {
    point("pthread_mutex_trylock");
    Mutex &m = mutex_at(mutex, "pthread_mutex_trylock");
    if (m.owner != 0) {
        return EBUSY;
    }
    return __wrap_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex) {
    Mutex &m = mutex_at(mutex, "pthread_mutex_unlock");
    if (m.owner != self().id + 1) {
        fail("pthread_mutex_unlock: %s does not hold %s", self().name,
             name_of_address(mutex).c_str());
    }
    races_released(mutex);
    m.owner = 0;
    forget_held(m);
    wake(mutex);
    SIM_TELL("unlocks %s", name_of_address(mutex).c_str());
    point("the return of pthread_mutex_unlock");
    return 0;
}

int __wrap_sem_init(sem_t *semaphore, int, unsigned value) {
    point("sem_init");
    must_be_usable(semaphore, sizeof *semaphore, "sem_init");
    *reinterpret_cast<Semaphore *>(semaphore) = {.mark = kSemaphoreMark,
                                                 .value = static_cast<int32_t>(value)};
    return 0;
}

int __wrap_sem_destroy(sem_t *semaphore) {
    point("sem_destroy");
    semaphore_at(semaphore, "sem_destroy").mark = 0;
    for (int i = 0; thread(i) != nullptr; i++) {
        if (thread(i)->state == State::kWaiting && thread(i)->waits_for == semaphore) {
            fail("sem_destroy: %s still waits for %s", thread(i)->name,
                 name_of_address(semaphore).c_str());
        }
    }
    return 0;
}

int __wrap_sem_post(sem_t *semaphore) {
    point("sem_post");
    Semaphore &s = semaphore_at(semaphore, "sem_post");
    s.value += 1;
    races_released(semaphore);
    wake(semaphore);
    SIM_TELL("posts %s: %d", name_of_address(semaphore).c_str(), s.value);
    point("the return of sem_post");
    return 0;
}

static int take_semaphore(const char *call, sem_t *semaphore, Time until) {
    cancellation_point();
    point(call);
    cancellation_point();
    while (semaphore_at(semaphore, call).value == 0) {
        const Woken woken = wait(call, semaphore, until, g_settings.signals_end_waits, true);
        if (woken == Woken::kCancelled) {
            cancellation_point();
        }
        if (woken == Woken::kSignal || (woken == Woken::kTimeout && until != kNever)) {
            errno = woken == Woken::kSignal ? EINTR : ETIMEDOUT;
            return -1;
        }
    }
    semaphore_at(semaphore, call).value -= 1;
    races_acquired(semaphore);
    SIM_TELL("has waited for %s", name_of_address(semaphore).c_str());
    return 0;
}

int __wrap_sem_wait(sem_t *semaphore) {
    return take_semaphore("sem_wait", semaphore, kNever);
}

int __wrap_sem_timedwait(sem_t *semaphore, const timespec *until) {
    return take_semaphore("sem_timedwait", semaphore, until->tv_sec * kSecond + until->tv_nsec);
}

int __wrap_sem_clockwait(sem_t *semaphore, clockid_t, const timespec *until) {
    return take_semaphore("sem_clockwait", semaphore, until->tv_sec * kSecond + until->tv_nsec);
}

int __wrap_sem_trywait(sem_t *semaphore) {
    point("sem_trywait");
    Semaphore &s = semaphore_at(semaphore, "sem_trywait");
    if (s.value == 0) {
        errno = EAGAIN;
        return -1;
    }
    s.value -= 1;
    races_acquired(semaphore);
    return 0;
}

int __wrap_sem_getvalue(sem_t *semaphore, int *value) {
    *value = semaphore_at(semaphore, "sem_getvalue").value;
    return 0;
}

int __wrap_pthread_create(pthread_t *handle, const pthread_attr_t *, void *(*body)(void *),
                          void *argument) {
    point("pthread_create");
    if (fault(g_settings.no_thread_one_in)) {
        SIM_TELL("pthread_create fails: EAGAIN");
        return EAGAIN;
    }
    const int id =
        start_thread(name_of_thread(body, argument), [body, argument] { (void)body(argument); });
    races_started(self().id, id);
    thread(id)->is_of_product = true;
    SIM_TELL("starts %s", thread(id)->name);
    *handle = as_handle(id); // may come after the new thread's first steps
    point("the return of pthread_create");
    return 0;
}

int __wrap_pthread_cancel(pthread_t handle) {
    point("pthread_cancel");
    Thread &target = thread_of(handle, "pthread_cancel");
    SIM_TELL("cancels %s", target.name);
    cancel(target.id);
    point("the return of pthread_cancel");
    return 0;
}

int __wrap_pthread_join(pthread_t handle, void **result) {
    cancellation_point();
    point("pthread_join");
    Thread &target = thread_of(handle, "pthread_join");
    while (target.state != State::kEnded) {
        if (wait("pthread_join", &target, kNever, false, true) == Woken::kCancelled) {
            cancellation_point();
        }
    }
    races_acquired(&target);
    target.is_joined = true;
    SIM_TELL("has joined %s", target.name);
    if (result != nullptr) {
        *result = nullptr;
    }
    return 0;
}

int __wrap_pthread_detach(pthread_t handle) {
    point("pthread_detach");
    thread_of(handle, "pthread_detach").is_detached = true;
    return 0;
}

pthread_t __wrap_pthread_self(void) {
    return as_handle(self().id);
}

int __wrap_pthread_setcancelstate(int state, int *before) {
    Thread &me = self();
    if (before != nullptr) {
        *before = me.is_cancel_enabled ? PTHREAD_CANCEL_ENABLE : PTHREAD_CANCEL_DISABLE;
    }
    me.is_cancel_enabled = state == PTHREAD_CANCEL_ENABLE;
    return 0; // no cancellation point: a pending cancel waits for the next one
}

void __wrap_pthread_testcancel(void) {
    point("pthread_testcancel");
    cancellation_point();
}

// All that they set is how the kernel would schedule.
int __wrap_pthread_attr_init(pthread_attr_t *) {
    return 0;
}
int __wrap_pthread_attr_destroy(pthread_attr_t *) {
    return 0;
}
int __wrap_pthread_attr_setinheritsched(pthread_attr_t *, int) {
    return 0;
}
int __wrap_pthread_attr_setschedpolicy(pthread_attr_t *, int) {
    return 0;
}
int __wrap_pthread_attr_setschedparam(pthread_attr_t *, const sched_param *) {
    return 0;
}
// NOLINTEND
}

namespace sim {

void cancel_thread(pthread_t thread) {
    (void)__wrap_pthread_cancel(thread);
}

void join_thread(pthread_t thread) {
    (void)__wrap_pthread_join(thread, nullptr);
}

} // namespace sim
