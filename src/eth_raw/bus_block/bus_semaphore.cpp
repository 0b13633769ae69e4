// One block transfer at a time on the board: a System V semaphore, which outlives the processes and
// which the kernel gives back for a process that dies.
#include "eth_raw/bus_block/bus_semaphore.h"

#include "base/relaxed.h"
#include "eth_raw/bus_block.h"
#include "log/write.h"

#include <cerrno>
#include <sys/ipc.h>
#include <sys/sem.h>

namespace {

constexpr key_t kKey = 1234569;
constexpr int kSemaphores = 1;
constexpr int kEverybodyMayUseIt = 0666;
constexpr int kFree = 1;

int32_t g_sem_id = -1; // none before the first Open_Eth_Raw

// semctl takes its fourth argument in this union, which the system's headers leave to the caller.
union SemaphoreArgument {
    int val;
    semid_ds *buf;
    unsigned short *array;
};

// semop only reads these, but takes them as writable.
sembuf g_take{.sem_num = 0, .sem_op = -1, .sem_flg = SEM_UNDO};
sembuf g_give_back{.sem_num = 0, .sem_op = 1, .sem_flg = SEM_UNDO};

// A signal ends a semop for good, whatever its handler asks for: go on after each tick.
int change_semaphore(sembuf &change) {
    int result = -1;
    do {
        result = semop(load_relaxed(g_sem_id), &change, 1);
    } while (result == -1 && errno == EINTR);
    return result;
}

} // namespace

int find_or_make_semaphore() {
    errno = 0;
    int sem_id = semget(kKey, kSemaphores, IPC_CREAT | IPC_EXCL | kEverybodyMayUseIt);
    store_relaxed(g_sem_id, sem_id);
    LOG("sem_id = %d, errno = %d.\n", sem_id, errno); // leaves errno as it is
    if (sem_id >= 0) {
        if (set_semvalue() < 0) {
            LOG("Failed to initialize semaphore(sem_id : %d).\n", sem_id);
            return -1;
        }
        return 0;
    }
    if (errno == EEXIST) {
        sem_id = semget(kKey, kSemaphores, 0);
        store_relaxed(g_sem_id, sem_id);
        LOG("sem_id(%d) already exits.\n", sem_id);
    }
    return 0;
}

int set_semvalue(void) {
    SemaphoreArgument argument{};
    argument.val = kFree;
    if (semctl(load_relaxed(g_sem_id), 0, SETVAL, argument) == -1) {
        LOG("%s:%d:set sem val failed.\n", __func__, __LINE__);
        return -1;
    }
    return 0;
}

void del_semvalue(void) {
    if (semctl(load_relaxed(g_sem_id), 0, IPC_RMID) == -1) {
        LOG("Failed to delete semaphore\n");
    }
}

int semaphore_p(void) {
    if (change_semaphore(g_take) == -1) {
        LOG("%s:%d:semaphore P func failed\n", __func__, __LINE__);
        return -1;
    }
    return 0;
}

int semaphore_v(void) {
    if (change_semaphore(g_give_back) == -1) {
        LOG("%s:%d:semaphore V func failed\n", __func__, __LINE__);
        return -1;
    }
    return 0;
}
