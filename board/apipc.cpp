// apipc.cpp - messages between the processes of the board.
#include "board/board.h"

#include "board/apipc_socket.h"
#include "board/unread.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <memory>
#include <mutex>
#include <new>

namespace {

constexpr long kPauseNs = 100000000;
constexpr long kNsPerS = 1000000000;
constexpr int kNoSocket = -1;

// How long a sender waits for room in a full queue. What the request service sends are replies, and
// all its requesters wait while it waits for one of them.
constexpr int64_t kSendWaitMs = 2000;
constexpr int64_t kServiceSendWaitMs = 100;
constexpr uint32_t kServiceModule = 0x3B;
constexpr uint32_t kModuleOfKey = 0xFF;

// What apipc_init opened stays open until the process ends: another thread may wait in it.
std::mutex g_init_lock; // guards g_key and the change of g_socket; leaf
uint32_t g_key;         // of the socket, once there is one
std::atomic<int> g_socket{kNoSocket};
std::atomic<bool> g_is_service{false};

int init_locked(uint32_t key) {
    if (g_socket.load() != kNoSocket) {
        return g_key == key ? 0 : EBUSY;
    }
    board::Module module;
    const int error = board::open_module(key, module);
    if (error != 0) {
        return error;
    }
    g_key = key;
    g_is_service.store((key & kModuleOfKey) == kServiceModule);
    (void)module.lock.release();
    g_socket.store(module.socket.release());
    return 0;
}

// A receiver that has let the service wait in vain is not waited for again until it has made room.
int send_from_service(uint32_t key, std::span<const uint8_t> message) {
    const int error =
        board::send_message(key, message, board::is_unread(key) ? 0 : kServiceSendWaitMs);
    board::note_unread(key, error == ETIMEDOUT);
    return error;
}

// One per call, because several threads may wait at once, and not on the stack, which may be small.
std::unique_ptr<uint8_t[]> receive_buffer() {
    try {
        return std::make_unique_for_overwrite<uint8_t[]>(board::kLargestMessage);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

void pause_full_time() {
    timespec until{};
    (void)clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_nsec += kPauseNs;
    until.tv_sec += until.tv_nsec / kNsPerS;
    until.tv_nsec %= kNsPerS;
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

int fail(int error) {
    errno = error;
    return -1;
}

int fail_after_pause(int error) {
    pause_full_time();
    return fail(error);
}

} // namespace

int apipc_init(int aptid, int /*flags*/) {
    const std::lock_guard guard(g_init_lock);
    const int error = init_locked(board::socket_key(aptid));
    return error == 0 ? 0 : fail(error);
}

int apipc_send(int aptid, void *msg, unsigned length) {
    if (msg == nullptr && length != 0) {
        return fail(EINVAL);
    }
    if (length > board::kLargestMessage) {
        return fail(EMSGSIZE);
    }
    const uint32_t key = board::socket_key(aptid);
    const std::span<const uint8_t> message(static_cast<const uint8_t *>(msg), size_t{length});
    const int error = g_is_service.load() ? send_from_service(key, message)
                                          : board::send_message(key, message, kSendWaitMs);
    return error == 0 ? 0 : fail(error);
}

int apipc_loop_wait(int /*flags*/, apipc_handler handler) {
    const int socket = g_socket.load();
    if (socket == kNoSocket) {
        return fail_after_pause(ENOTCONN);
    }
    if (handler == nullptr) {
        return fail_after_pause(EINVAL);
    }
    const std::unique_ptr<uint8_t[]> message = receive_buffer();
    if (message == nullptr) {
        return fail_after_pause(ENOMEM);
    }
    const ssize_t length = board::receive_message(socket, message.get(), board::kLargestMessage);
    if (length < 0) {
        return fail_after_pause(errno);
    }
    (void)handler(0, 0, message.get(), static_cast<int>(length));
    return 0;
}
