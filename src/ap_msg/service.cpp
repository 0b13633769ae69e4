// The request service's receive thread: which messages it takes.
#include "ap_msg/ap_msg.h"

#include "ap_msg/process.h"
#include "ap_msg/reply.h"
#include "base/hex_dump.h"
#include "base/stdout_guard.h"
#include "board/board.h"
#include "log/write.h"
#include "raw_msg/threads.h"

#include <cstdio>
#include <unistd.h>

namespace {

constexpr int kServicePriority = 88; // below the link's receive thread, whose answers it waits for

void dump(std::span<const uint8_t> message) {
    const StdoutGuard whole_dump;
    print_hex(message);
    printf("\n");
}

bool is_for_service(std::span<const uint8_t> message) {
    const uint32_t kind = load_le(message.data(), message::kKind);
    return load_le(message.data(), message::kClass) == message::kServiceClass && kind <= 1;
}

} // namespace

int PmdApipcInit(void) {
    return apipc_init(static_cast<int>(own_address()), 0);
}

int PmdApRecvTaskCreate(void *arg) {
    pthread_t unused{}; // the service runs until the process ends
    return start_realtime_thread(ApMsgRecv, arg, kServicePriority, &unused);
}

void *ApMsgRecv(void *index) {
    const int number = static_cast<int>(reinterpret_cast<intptr_t>(index));
    pin_to_processor(number, "ApMsgRecv");
    LOG("pmd thread id : %d index = %d\n", gettid(), number);
    if (PmdApipcInit() != 0) {
        LOG("create apipc pmd fail\n");
        return nullptr;
    }
    LOG("create apipc pmd succeed\n");
    for (;;) {
        (void)apipc_loop_wait(0, ApipcEventDeal); // what went wrong is over when it returns
    }
}

int ApipcEventDeal(int /*a*/, int /*b*/, void *msg, int length) {
    if (msg == nullptr) {
        return -1;
    }
    const std::span<const uint8_t> message(static_cast<const uint8_t *>(msg),
                                           length < 0 ? 0 : static_cast<size_t>(length));
    if (message.size() < message::kDataOffset) {
        LOG("ap_msg: message of %d bytes: shorter than its heads of %d bytes\n", length,
            static_cast<int>(message::kDataOffset));
    } else if (!is_for_service(message)) {
        LOG("msg type wrong\n");
    } else if (is_whole(message)) {
        return process_request(message);
    }
    dump(message);
    return 0;
}
