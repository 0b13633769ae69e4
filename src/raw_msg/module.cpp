#include "raw_msg/raw_msg.h"

#include "base/locks.h"
#include "eth_raw/link_state.h"
#include "log/write.h"
#include "raw_msg/request_rules.h"
#include "raw_msg/threads.h"
#include "raw_msg/watch.h"
#include "timer/sleep.h"

#include <atomic>
#include <cerrno>
#include <sched.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

constexpr int kReceivePriority = 90;
constexpr auto kEndPoll = 200us;

pthread_mutex_t find_check_mtx[kInterfaces] = {
    PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER,
    PTHREAD_MUTEX_INITIALIZER}; // before any queue's lock

[[maybe_unused]] const bool g_renews_locks = renew_in_child([] {
    for (pthread_mutex_t &lock : find_check_mtx) {
        lock = PTHREAD_MUTEX_INITIALIZER;
    }
});

std::atomic<int> g_ended_threads{0};

void *as_argument(int index) {
    // The pointer's value is the index, by agreement with hosts that start the threads themselves.
    const intptr_t value = index;
    return reinterpret_cast<void *>(value); // NOLINT(performance-no-int-to-ptr)
}

int create_thread(const pthread_attr_t *attributes, void *(*body)(void *), void *argument,
                  pthread_t *tid) {
    pthread_t created{};
    const int error = pthread_create(&created, attributes, body, argument);
    if (error != 0) {
        LOG("failed to create thread \n");
        errno = error;
        return -1;
    }
    *tid = created;
    return 0;
}

} // namespace

int RawMsgModuleInit(int index, pthread_t *receive_thread, pthread_t *check_thread) {
    if (index < 0 || RawSockMsgInit(static_cast<uint32_t>(index)) < 0) {
        return 0;
    }
    (void)RawMsgRecvTaskCreate(index, receive_thread); // reports its own failure
    if (RawMsgRecvCheckTaskCreate(index, check_thread) != 0) {
        link_bar_sending(index); // nothing that goes out would ever time out
        end_all_requests(index); // nor would what another thread has sent meanwhile
        return 0;
    }
    // A thread that could not be started leaves EAGAIN, and the next frame would go out twice.
    errno = 0;
    return 0;
}

int RawMsgModuleUnInit(int index) {
    const int result = RawSockMsgUnInit(static_cast<uint32_t>(index));
    end_all_requests(index);
    return result;
}

int RawMsgRecvTaskCreate(int index, pthread_t *tid) {
    LOG("index=%d\n", index);
    return start_realtime_thread(RawMsgRecv, as_argument(index), kReceivePriority, tid);
}

// Default scheduling on purpose: a check pass must never hold up the real-time receive thread.
int RawMsgRecvCheckTaskCreate(int index, pthread_t *tid) {
    announce_watch(index);
    const int result = create_thread(nullptr, RawMsgAckReadCheck, as_argument(index), tid);
    if (result != 0) {
        revoke_watch(index);
    }
    return result;
}

pthread_mutex_t &find_check_lock(int index) {
    return find_check_mtx[index];
}

// The affinity goes to the process id, that is to the main thread: the sender runs on the
// processor that serves the interface.
void pin_to_processor(int index, const char *name) {
    constexpr int kLastProcessor = 3;
    int processor = index > kLastProcessor ? kLastProcessor : index;
    if (index == 0) {
        processor = 1; // processor 0 serves the rest of the system
    }
    cpu_set_t mask;
    CPU_ZERO(&mask);
    if (processor >= 0) {
        CPU_SET(static_cast<size_t>(processor), &mask);
    }
    if (sched_setaffinity(getpid(), sizeof mask, &mask) < 0) {
        LOG("%s : index %d sched_setaffinity failed\n", name, index);
    }
}

int start_realtime_thread(void *(*body)(void *), void *argument, int priority, pthread_t *tid) {
    pthread_attr_t attributes;
    const sched_param parameters{.sched_priority = priority};
    (void)pthread_attr_init(&attributes); // none of these can fail with these values
    (void)pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);
    (void)pthread_attr_setschedpolicy(&attributes, SCHED_FIFO);
    (void)pthread_attr_setschedparam(&attributes, &parameters);
    const int result = create_thread(&attributes, body, argument, tid);
    (void)pthread_attr_destroy(&attributes);
    return result;
}

ThreadEnd::~ThreadEnd() {
    g_ended_threads.fetch_add(1, std::memory_order_release);
}

bool await_thread_ends(int count, std::chrono::milliseconds at_most) {
    const auto give_up = std::chrono::steady_clock::now() + at_most;
    while (g_ended_threads.load(std::memory_order_acquire) < count) {
        if (std::chrono::steady_clock::now() >= give_up) {
            return false;
        }
        sleep_full(kEndPoll);
    }
    return true;
}
