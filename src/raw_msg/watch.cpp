#include "raw_msg/watch.h"

#include "base/locks.h"
#include "raw_msg/request_rules.h"

#include <atomic>

namespace {

struct Watchers {
    int threads;   // that run or have been announced
    int announced; // that do not run yet
};

pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER; // guards g_watchers; leaf
Watchers g_watchers[kInterfaces];
std::atomic<bool> g_is_unwatched[kInterfaces]; // written under g_lock

// A child has none of its parent's threads.
[[maybe_unused]] const bool g_renews_lock = renew_in_child([] {
    g_lock = PTHREAD_MUTEX_INITIALIZER;
    for (int index = 0; index < kInterfaces; index++) {
        g_watchers[index] = {};
        g_is_unwatched[index] = false;
    }
});

bool has_queues(int index) {
    return queue_is_valid(index, 0);
}

void add_locked(int index, int threads) {
    g_watchers[index].threads += threads;
    g_is_unwatched[index] = g_watchers[index].threads == 0;
}

} // namespace

bool is_unwatched(int index) {
    return has_queues(index) && g_is_unwatched[index];
}

void announce_watch(int index) {
    if (has_queues(index)) {
        const MutexGuard guard(g_lock);
        g_watchers[index].announced += 1;
        add_locked(index, 1);
    }
}

void revoke_watch(int index) {
    if (has_queues(index)) {
        const MutexGuard guard(g_lock);
        g_watchers[index].announced -= 1;
        add_locked(index, -1);
    }
}

Watch::Watch(int index) : index_(index) {
    if (has_queues(index)) {
        const MutexGuard guard(g_lock);
        if (g_watchers[index].announced > 0) {
            g_watchers[index].announced -= 1;
        } else {
            add_locked(index, 1);
        }
    }
}

// The requests end after the interface has become unwatched: a sender that has not seen that has
// its request in the queue already.
Watch::~Watch() {
    if (!has_queues(index_)) {
        return;
    }
    {
        const MutexGuard guard(g_lock);
        add_locked(index_, -1);
    }
    if (is_unwatched(index_)) {
        queue_stop_ageing(index_);
        end_all_requests(index_);
    }
}
