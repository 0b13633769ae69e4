#include "ap_msg/ap_msg.h"

#include "ap_msg/message_layout.h"
#include "base/hex_dump.h"
#include "base/stdout_guard.h"
#include "board/board.h"
#include "mem/mem.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

// The ids that devices use. One interface serves them all, and every other id too.
struct Target {
    int id;
    int index;
};
constexpr Target kTargets[] = {{0xF0, 0}, {0xFD, 0}, {0xFE, 0}};
constexpr int kOwnTarget = 0xFE;

constexpr uint32_t kLongestData = 8192 - message::kHeaderSize; // the pool's largest block

} // namespace

int ApipcDataSend(int aptid, void *msg, unsigned len) {
    return apipc_send(aptid, msg, len + message::kHeaderSize);
}

int ApipcDataSendAck(int aptid, void *msg) {
    return apipc_send(aptid, msg, message::kHeaderSize);
}

int GetIndexById(int id) {
    for (const Target &target : kTargets) {
        if (target.id == id) {
            return target.index;
        }
    }
    return 0;
}

int GetIdByIndex(int /*index*/) {
    return kOwnTarget;
}

void print_buf(const uint8_t *p, int n) {
    constexpr size_t kBytesPerLine = 16;
    const StdoutGuard whole_dump;
    print_hex({p, static_cast<size_t>(std::max(n, 0))}, kBytesPerLine);
    printf("\n");
}

uint8_t *ApMsgBuffGet(uint32_t n) {
    if (n > kLongestData) {
        return nullptr;
    }
    const uint32_t size = n + message::kHeaderSize;
    auto *block = static_cast<uint8_t *>(mem_alloc(size));
    if (block == nullptr) {
        return nullptr;
    }
    memset(block, 0, size);
    return block + message::kDataOffset;
}

uint8_t *ApMsgBuffHeadGet(uint8_t *p) {
    return p - message::kDataOffset;
}

void ApMsgBuffFree(uint8_t *p) {
    if (p != nullptr) {
        mem_free(ApMsgBuffHeadGet(p));
    }
}
