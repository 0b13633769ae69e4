// The board's message library: one service, and clients that the cases play.
#include "calls/messages.h"

#include "memory/accesses.h"
#include "memory/product_memory.h"
#include "scheduler/choices.h"
#include "scheduler/scheduler.h"
#include "scheduler/settings.h"
#include "scheduler/trace.h"

#include "board/board.h"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <map>
#include <utility>

namespace sim {

namespace {

std::deque<Message> g_inbox;
std::map<uint32_t, std::vector<Message>> g_sent;

} // namespace

void reset_messages() {
    g_inbox.clear();
    g_sent.clear();
}

void send_to_service(Message message) {
    point("a client's apipc_send");
    g_inbox.push_back(std::move(message));
    wake(&g_inbox);
}

std::vector<Message> take_messages(uint32_t address) {
    return std::exchange(g_sent[address], {});
}

} // namespace sim

using namespace sim;

extern "C" {

// NOLINTBEGIN: the linker's names
int __wrap_apipc_init(int, int) {
    point("apipc_init");
    return 0;
}

int __wrap_apipc_send(int address, void *bytes, unsigned length) {
    cancellation_point();
    point("apipc_send");
    kernel_reads(bytes, length, __builtin_return_address(0));
    if (fault(g_settings.message_fails_one_in)) {
        SIM_TELL("apipc_send fails: ETIMEDOUT");
        errno = ETIMEDOUT;
        return -1;
    }
    const auto *begin = static_cast<const uint8_t *>(bytes);
    g_sent[static_cast<uint32_t>(address)].emplace_back(begin, begin + length);
    SIM_TELL("sends a message of %u bytes to 0x%x", length, static_cast<unsigned>(address));
    return 0;
}

int __wrap_apipc_loop_wait(int, apipc_handler handler) {
    cancellation_point();
    point("apipc_loop_wait");
    while (g_inbox.empty()) {
        if (wait("apipc_loop_wait", &g_inbox, kNever, false, true) == Woken::kCancelled) {
            cancellation_point();
        }
    }
    const Message message = std::move(g_inbox.front());
    g_inbox.pop_front();
    void *buffer = heap_take(message.size(), "message");
    {
        const OutsideProduct outside;
        std::copy(message.begin(), message.end(), static_cast<uint8_t *>(buffer));
    }
    (void)handler(0, 0, buffer, static_cast<int>(message.size()));
    heap_release(buffer);
    return 0;
}
// NOLINTEND
}
