#include "stand_ins/fake_semaphore.h"

#include <cerrno>
#include <cstdarg>
#include <deque>
#include <map>
#include <mutex>
#include <sys/sem.h>
#include <utility>

namespace {

struct Fake {
    std::mutex lock;
    std::vector<std::string> calls;
    std::map<std::string, std::deque<int>> failures;
};

Fake &fake() {
    static auto *the_fake = new Fake{};
    return *the_fake;
}

int note(const std::string &kind, const std::string &details, int result) {
    Fake &f = fake();
    const std::lock_guard guard(f.lock);
    f.calls.push_back(kind + details);
    std::deque<int> &failures = f.failures[kind];
    if (failures.empty()) {
        return result;
    }
    const int error = failures.front();
    failures.pop_front();
    if (error == 0) {
        return result;
    }
    errno = error;
    return -1;
}

std::string octal(int value) {
    std::string text;
    for (unsigned rest = static_cast<unsigned>(value); rest > 0; rest /= 8) {
        text.insert(text.begin(), static_cast<char>('0' + rest % 8));
    }
    return text.empty() ? "0" : text;
}

union Argument {
    int val;
    void *pointer;
};

} // namespace

#if defined(__SANITIZE_ADDRESS__)
extern "C" void __asan_handle_no_return();
#endif

namespace {

// The address sanitizer does not see that a cancelled thread has left frames without returning from
// them, and takes their places on the stack, which this fake now uses, for theirs still.
void forget_frames_left_by_cancellation() {
#if defined(__SANITIZE_ADDRESS__)
    __asan_handle_no_return();
#endif
}

} // namespace

#pragma GCC visibility push(default)

extern "C" {

int __wrap_semget(key_t key, int count, int flags);
int __wrap_semctl(int id, int number, int command, ...);
int __wrap_semop(int id, sembuf *changes, size_t count);

int __wrap_semget(key_t key, int count, int flags) {
    return note("get", " " + std::to_string(key) + " " + std::to_string(count) + " " + octal(flags),
                kSemaphoreId);
}

int __wrap_semctl(int id, int number, int command, ...) {
    if (command == IPC_RMID) {
        return note("remove", " " + std::to_string(id), 0);
    }
    if (command != SETVAL || number != 0) {
        errno = EINVAL;
        return -1;
    }
    va_list arguments;
    va_start(arguments, command);
    const Argument argument = va_arg(arguments, Argument);
    va_end(arguments);
    return note("set", " " + std::to_string(id) + " " + std::to_string(argument.val), 0);
}

int __wrap_semop(int id, sembuf *changes, size_t count) {
    forget_frames_left_by_cancellation();
    if (count != 1 || changes[0].sem_num != 0) {
        errno = EINVAL;
        return -1;
    }
    return note("change",
                " " + std::to_string(id) + " " + std::to_string(changes[0].sem_op) +
                    (changes[0].sem_flg == SEM_UNDO ? "" : " kept"),
                0);
}

} // extern "C"

#pragma GCC visibility pop

void semaphore_reset() {
    Fake &f = fake();
    const std::lock_guard guard(f.lock);
    f.calls.clear();
    f.failures.clear();
}

std::vector<std::string> semaphore_calls() {
    Fake &f = fake();
    const std::lock_guard guard(f.lock);
    return std::exchange(f.calls, {});
}

void semaphore_fail_next(const std::string &kind, int error) {
    Fake &f = fake();
    const std::lock_guard guard(f.lock);
    f.failures[kind].push_back(error);
}
