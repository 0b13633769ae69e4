#include "lock_count.h"

#include <algorithm>
#include <pthread.h>

namespace {

thread_local test::LockUse t_use{};

} // namespace

namespace test {

LockUse locks_of(const std::function<void()> &work) {
    const int before = t_use.kept;
    t_use = {.taken = 0, .deepest = 0, .kept = 0};
    work();
    const LockUse use = t_use;
    t_use.kept += before;
    return use;
}

int locks_held() {
    return t_use.kept;
}

} // namespace test

extern "C" {

int __real_pthread_mutex_lock(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex);

int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex) {
    const int result = __real_pthread_mutex_lock(mutex);
    t_use.taken += 1;
    t_use.kept += 1;
    t_use.deepest = std::max(t_use.deepest, t_use.kept);
    return result;
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex) {
    t_use.kept -= 1;
    return __real_pthread_mutex_unlock(mutex);
}
}
