#include "stand_ins/fake_board.h"

#include "board/board.h"

#include <cerrno>
#include <deque>
#include <memory>
#include <mutex>

namespace {

struct Board {
    std::mutex lock;
    int slot = 2;
    std::vector<SentMessage> messages;
    int send_result = kSendResult;
    int send_error = 0;
    std::vector<Registration> registrations;
    int registration_result = 0;
    std::deque<std::vector<uint8_t>> deliveries;
    std::vector<Pinning> pinnings;
    int pinning_result = 0;
    std::vector<CreatedThread> threads;
    Creation creation = Creation::kRuns;
};

// Never destroyed: a thread of the product may still call while the process ends.
Board &board() {
    static auto *const the_board = new Board;
    return *the_board;
}

} // namespace

// Visible outside: a sanitizer's library calls the wrapped names, too.
#pragma GCC visibility push(default)

extern "C" {

int __wrap_apipc_send(int aptid, void *msg, unsigned length);
int __wrap_apipc_init(int aptid, int flags);
int __wrap_apipc_loop_wait(int flags, apipc_handler handler);
int __wrap_apcard_bit_self(void);
int __wrap_sched_setaffinity(pid_t pid, size_t size, const cpu_set_t *processors);
int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                          void *(*body)(void *), void *argument);
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                          void *(*body)(void *), void *argument);

int __wrap_apipc_send(int aptid, void *msg, unsigned length) {
    Board &b = board();
    const std::lock_guard guard(b.lock);
    const auto *bytes = static_cast<const uint8_t *>(msg);
    b.messages.push_back({static_cast<uint32_t>(aptid), {bytes, bytes + length}});
    errno = b.send_error != 0 ? b.send_error : errno;
    return b.send_result;
}

int __wrap_apipc_init(int aptid, int flags) {
    Board &b = board();
    const std::lock_guard guard(b.lock);
    b.registrations.push_back({static_cast<uint32_t>(aptid), flags});
    return b.registration_result;
}

int __wrap_apipc_loop_wait(int flags, apipc_handler handler) {
    Board &b = board();
    std::vector<uint8_t> message;
    bool is_over = false;
    {
        const std::lock_guard guard(b.lock);
        is_over = b.deliveries.empty();
        if (!is_over) {
            message = b.deliveries.front();
            b.deliveries.pop_front();
        }
    }
    if (is_over) {
        pthread_exit(nullptr); // a real wait would never return again
    }
    (void)handler(0, flags, message.data(), static_cast<int>(message.size()));
    return -1; // the service waits again whatever it is told
}

int __wrap_apcard_bit_self(void) {
    Board &b = board();
    const std::lock_guard guard(b.lock);
    return b.slot;
}

int __wrap_sched_setaffinity(pid_t pid, size_t size, const cpu_set_t *processors) {
    Board &b = board();
    const std::lock_guard guard(b.lock);
    b.pinnings.push_back({pid, size, *processors});
    return b.pinning_result;
}

int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                          void *(*body)(void *), void *argument) {
    Board &b = board();
    const std::lock_guard guard(b.lock);
    CreatedThread created{.has_attributes = attributes != nullptr,
                          .inherits = -1,
                          .policy = -1,
                          .priority = -1,
                          .body = body,
                          .argument = argument,
                          .is_running = b.creation == Creation::kRuns,
                          .thread = {}};
    if (attributes != nullptr) {
        sched_param parameters{};
        (void)pthread_attr_getinheritsched(attributes, &created.inherits);
        (void)pthread_attr_getschedpolicy(attributes, &created.policy);
        (void)pthread_attr_getschedparam(attributes, &parameters);
        created.priority = parameters.sched_priority;
    }
    int result = 0;
    if (b.creation == Creation::kRuns) {
        result = __real_pthread_create(&created.thread, nullptr, body, argument);
        *thread = created.thread;
    } else if (b.creation == Creation::kFails) {
        result = EPERM; // real-time scheduling needs rights
    }
    b.threads.push_back(created);
    return result;
}

} // extern "C"

#pragma GCC visibility pop

void board_reset() {
    Board &b = board();
    const std::lock_guard guard(b.lock);
    b.slot = 2;
    b.messages.clear();
    b.send_result = kSendResult;
    b.send_error = 0;
    b.registrations.clear();
    b.registration_result = 0;
    b.deliveries.clear();
    b.pinnings.clear();
    b.pinning_result = 0;
    b.threads.clear();
    b.creation = Creation::kRuns;
}

void board_has_slot(int slot) {
    Board &b = board();
    const std::lock_guard guard(b.lock);
    b.slot = slot;
}

std::vector<SentMessage> board_messages() {
    Board &b = board();
    const std::lock_guard guard(b.lock);
    return b.messages;
}

void board_answers_sends(int result, int error) {
    Board &b = board();
    const std::lock_guard guard(b.lock);
    b.send_result = result;
    b.send_error = error;
}

std::vector<Registration> board_registrations() {
    Board &b = board();
    const std::lock_guard guard(b.lock);
    return b.registrations;
}

void board_answers_registration(int result) {
    Board &b = board();
    const std::lock_guard guard(b.lock);
    b.registration_result = result;
}

void board_delivers(std::vector<std::vector<uint8_t>> messages) {
    Board &b = board();
    const std::lock_guard guard(b.lock);
    b.deliveries.assign(messages.begin(), messages.end());
}

std::vector<Pinning> board_pinnings() {
    Board &b = board();
    const std::lock_guard guard(b.lock);
    return b.pinnings;
}

void board_answers_pinning(int result) {
    Board &b = board();
    const std::lock_guard guard(b.lock);
    b.pinning_result = result;
}

std::vector<CreatedThread> board_threads() {
    Board &b = board();
    const std::lock_guard guard(b.lock);
    return b.threads;
}

void board_creates_threads(Creation how) {
    Board &b = board();
    const std::lock_guard guard(b.lock);
    b.creation = how;
}
