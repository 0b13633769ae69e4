#include "stand_ins/lock_count.h"

#include <algorithm>
#include <pthread.h>
#include <semaphore>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

thread_local test::LockUse t_use{};
thread_local int t_unlocks_to_go = 0;
thread_local const std::function<void()> *t_before_unlock = nullptr;

} // namespace

namespace test {

LockUse locks_of(const std::function<void()> &work) {
    const int before = t_use.kept;
    t_use = {};
    work();
    const LockUse use = t_use;
    t_use.kept += before;
    return use;
}

void locks_begin() {
    t_use = {};
}

LockUse locks_since() {
    return t_use;
}

int locks_held() {
    return t_use.kept;
}

int fork_amid(const std::function<void()> &work, int of_so_many,
              const std::function<void()> &in_child) {
    constexpr unsigned kHangSeconds = 20;
    std::binary_semaphore is_held{0};
    std::binary_semaphore may_go_on{0};
    std::thread holder([&] {
        const std::function<void()> stay = [&] {
            is_held.release();
            may_go_on.acquire();
        };
        t_before_unlock = &stay;
        t_unlocks_to_go = of_so_many;
        work();
    });
    is_held.acquire();
    const pid_t child = fork();
    if (child == 0) {
        (void)alarm(kHangSeconds);
        in_child();
        _exit(0);
    }
    may_go_on.release();
    holder.join();
    int status = -1;
    (void)waitpid(child, &status, 0);
    return status;
}

} // namespace test

// Visible outside: a sanitizer's library calls the wrapped names, too.
#pragma GCC visibility push(default)

extern "C" {

int __real_pthread_mutex_lock(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex);

int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex) {
    int state = PTHREAD_CANCEL_ENABLE;
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    (void)pthread_setcancelstate(state, nullptr);
    const int result = __real_pthread_mutex_lock(mutex);
    t_use.cancellable += state == PTHREAD_CANCEL_ENABLE ? 1 : 0;
    t_use.taken += 1;
    t_use.kept += 1;
    t_use.deepest = std::max(t_use.deepest, t_use.kept);
    return result;
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex) {
    if (t_unlocks_to_go > 0 && --t_unlocks_to_go == 0) {
        (*t_before_unlock)();
    }
    t_use.kept -= 1;
    return __real_pthread_mutex_unlock(mutex);
}
}

#pragma GCC visibility pop
