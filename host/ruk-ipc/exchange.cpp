#include "exchange.h"

#include "ap_msg/message_layout.h"
#include "base/clock.h"
#include "board/board.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <system_error>
#include <thread>

namespace ipc {

namespace {

constexpr const char *kDefaultDirectory = "/run/apipc"; // of the message library
constexpr uint32_t kBoardModules = 0xA0000;             // in the address of every module
constexpr uint32_t kModuleShift = 8;

// Nothing on the board has these ids. Enough for the clients that run at once.
constexpr int kFirstModule = 0xC0;
constexpr int kModules = 0x30;

constexpr int kNoReason = -1; // the board's own library may leave errno alone

constexpr int64_t kUsPerMs = 1000;

// The handler of the message library takes no context. None of these has a destructor, as the
// receiving thread outlives them.
struct Inbox {
    const Request *wanted; // null: no reply is waited for
    uint32_t service;
    uint8_t bytes[kLongestReply];
    size_t length;
    unsigned dropped;
    int error;
};
std::mutex g_lock;                                   // guards g_inbox; leaf
pthread_cond_t g_arrived = PTHREAD_COND_INITIALIZER; // g_inbox.wanted became null
Inbox g_inbox;

int take_message(int /*a*/, int /*b*/, void *msg, int length) {
    const std::span<const uint8_t> message(static_cast<const uint8_t *>(msg),
                                           length > 0 ? static_cast<size_t>(length) : 0);
    const std::lock_guard guard(g_lock);
    if (g_inbox.wanted == nullptr || !answers(*g_inbox.wanted, message, g_inbox.service)) {
        g_inbox.dropped += 1;
        return 0;
    }
    g_inbox.wanted = nullptr;
    g_inbox.length = message.size();
    std::copy_n(message.begin(), std::min(message.size(), kLongestReply), g_inbox.bytes);
    (void)pthread_cond_signal(&g_arrived); // cannot fail
    return 0;
}

// The library itself pauses after a failure.
[[noreturn]] void receive_for_ever() {
    while (true) {
        if (apipc_loop_wait(0, take_message) != 0) {
            const int error = errno;
            const std::lock_guard guard(g_lock);
            g_inbox.error = error;
        }
    }
}

std::string start_receiving() {
    try {
        std::thread(receive_for_ever).detach();
        return {};
    } catch (const std::system_error &error) {
        return std::string("cannot start the receiving thread: ") + error.what();
    }
}

std::string reason(int error) {
    return error != kNoReason ? std::strerror(error) : "the message library gives no reason";
}

// 0, an errno or kNoReason.
int library_result(int result) {
    if (result == 0) {
        return 0;
    }
    return errno != 0 ? errno : kNoReason;
}

int try_module(uint8_t module) {
    errno = 0;
    return library_result(apipc_init(static_cast<int>(own_address(module)), 0));
}

std::string join_failure(int error) {
    std::string text =
        "cannot register with the message sockets in " + message_directory() + ": " + reason(error);
    if (error == EACCES || error == EPERM) {
        text += "; are you in the group of the directory?";
    }
    return text;
}

// An id is refused while somebody has it, or when its files belong to somebody else.
bool may_be_this_id_only(int error) {
    return error == EADDRINUSE || error == EACCES || error == EPERM || error == kNoReason;
}

std::string take_any_module(uint8_t &module) {
    const int first = first_free_module() - kFirstModule;
    int refused = EADDRINUSE;
    for (int i = 0; i < kModules; i++) {
        module = static_cast<uint8_t>(kFirstModule + (first + i) % kModules);
        const int error = try_module(module);
        if (error == 0) {
            return {};
        }
        if (!may_be_this_id_only(error)) {
            return join_failure(error);
        }
        refused = error == EADDRINUSE ? refused : error;
    }
    return refused == EADDRINUSE ? "cannot register: all " + std::to_string(kModules) +
                                       " module ids for clients are in use"
                                 : join_failure(refused);
}

std::string take_module(uint8_t module) {
    const int error = try_module(module);
    if (error == EADDRINUSE) {
        return "cannot register: another process has module id " + hex(module);
    }
    return error == 0 ? std::string() : join_failure(error);
}

void want(const Request *request) {
    const std::lock_guard guard(g_lock);
    g_inbox.wanted = request;
    g_inbox.service = service_address();
    g_inbox.dropped = 0;
}

Answer await_reply(uint32_t timeout_ms) {
    const timespec until = deadline_after(std::chrono::milliseconds(timeout_ms));
    const std::lock_guard guard(g_lock);
    int waited = 0;
    while (g_inbox.wanted != nullptr && waited == 0) {
        waited =
            pthread_cond_clockwait(&g_arrived, g_lock.native_handle(), CLOCK_MONOTONIC, &until);
    }
    Answer answer{.arrived = g_inbox.wanted == nullptr,
                  .reply = {},
                  .dropped = g_inbox.dropped,
                  .receive_error = g_inbox.error,
                  .not_sent = {}};
    g_inbox.wanted = nullptr;
    if (answer.arrived) {
        const uint8_t *bytes = g_inbox.bytes;
        answer.reply.length = g_inbox.length;
        answer.reply.bytes.assign(bytes, bytes + std::min(g_inbox.length, kLongestReply));
    }
    return answer;
}

} // namespace

uint32_t service_address() {
    return static_cast<uint32_t>(apcard_bit_self()) << message::kSlotShift | message::kOwnModule;
}

uint32_t own_address(uint8_t module) {
    const uint32_t slot = static_cast<uint32_t>(apcard_bit_self()) << message::kSlotShift;
    return slot | kBoardModules | uint32_t{module} << kModuleShift;
}

// Another one for each run, so that a late reply to a client that has ended rarely meets a live
// one.
uint8_t first_free_module() {
    return static_cast<uint8_t>(kFirstModule + getpid() % kModules);
}

std::string message_directory() {
    const char *directory = std::getenv("APIPC_DIR");
    return directory != nullptr && *directory != '\0' ? directory : kDefaultDirectory;
}

std::string join(uint8_t &module) {
    std::string failure = module == 0 ? take_any_module(module) : take_module(module);
    return failure.empty() ? start_receiving() : failure;
}

std::string send(Request &request) {
    const Stopwatch waited;
    errno = 0;
    const int error =
        library_result(apipc_send(static_cast<int>(service_address()), request.bytes.data(),
                                  static_cast<unsigned>(request.bytes.size())));
    if (error == 0) {
        return {};
    }
    const std::string service =
        "the request service " + hex32(service_address()) + " in " + message_directory();
    if (error == ENOENT || error == ECONNREFUSED) {
        return "nobody listens as " + service +
               ": is rukd running, and with the same APIPC_DIR "
               "and APCARD_SLOT?";
    }
    if (error == ETIMEDOUT) {
        return service + " took no message within " +
               std::to_string(waited.microseconds() / kUsPerMs) +
               " ms: it is stuck or overloaded; look at its log";
    }
    return "cannot send to " + service + ": " + reason(error);
}

Answer ask(Request &request, uint32_t timeout_ms) {
    want(&request);
    std::string failure = send(request);
    if (failure.empty()) {
        return await_reply(timeout_ms);
    }
    want(nullptr);
    Answer answer;
    answer.not_sent = std::move(failure);
    return answer;
}

} // namespace ipc
