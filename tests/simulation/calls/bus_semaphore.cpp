// The System V semaphore that keeps block transfers apart.
#include "calls/bus_semaphore.h"

#include "scheduler/scheduler.h"
#include "scheduler/settings.h"
#include "scheduler/trace.h"

#include <cerrno>
#include <cstdarg>
#include <sys/sem.h>

namespace sim {

namespace {

constexpr int kId = 77;

struct BusSemaphore {
    bool exists;
    int value;
};
BusSemaphore g_semaphore;

} // namespace

void reset_bus_semaphore() {
    g_semaphore = {};
}

bool bus_semaphore_is_free() {
    return g_semaphore.exists && g_semaphore.value == 1;
}

} // namespace sim

using namespace sim;

extern "C" {

// NOLINTBEGIN: the linker's names
int __wrap_semget(key_t, int, int flags) {
    point("semget");
    if (fault(g_settings.other_fails_one_in)) {
        errno = ENOSPC;
        return -1;
    }
    if (g_semaphore.exists && (flags & IPC_EXCL) != 0) {
        errno = EEXIST;
        return -1;
    }
    if (!g_semaphore.exists && (flags & IPC_CREAT) == 0) {
        errno = ENOENT;
        return -1;
    }
    if (!g_semaphore.exists) {
        g_semaphore = {.exists = true, .value = 0};
    }
    return kId;
}

int __wrap_semctl(int id, int, int command, ...) {
    point("semctl");
    if (id != kId || !g_semaphore.exists) {
        errno = EINVAL;
        return -1;
    }
    if (command == IPC_RMID) {
        g_semaphore.exists = false;
        wake(&g_semaphore);
    } else if (command == SETVAL) {
        va_list arguments;
        va_start(arguments, command);
        g_semaphore.value = va_arg(arguments, int);
        va_end(arguments);
        wake(&g_semaphore);
    }
    return 0;
}

int __wrap_semop(int id, sembuf *change, size_t) {
    point("semop");
    for (;;) {
        if (id != kId || !g_semaphore.exists) {
            errno = EINVAL;
            return -1;
        }
        if (g_semaphore.value + change->sem_op >= 0) {
            break;
        }
        if (wait("semop", &g_semaphore, kNever, true, false) == Woken::kSignal) {
            errno = EINTR;
            return -1;
        }
    }
    g_semaphore.value += change->sem_op;
    SIM_TELL("bus semaphore: %d", g_semaphore.value);
    if (g_semaphore.value > 1) {
        fail("the bus semaphore stands at %d", g_semaphore.value);
    }
    wake(&g_semaphore);
    return 0;
}
// NOLINTEND
}
