#include "eth_raw/eth_raw.h"

#include "eth_raw/frame_layout.h"
#include "mem/mem.h"

#include <algorithm>
#include <cstring>

uint8_t *RawMsgBuffGet(uint32_t len) {
    if (len > kMaxPayload) {
        return nullptr;
    }
    const uint32_t size = request_frame_len(std::max(len, kMinPayload));
    auto *block = static_cast<uint8_t *>(mem_alloc(size));
    if (block == nullptr) {
        return nullptr;
    }
    memset(block, 0, size); // the padding of short payloads goes out on the wire
    return block + request::kHeaderSize;
}

uint8_t *RawMsgBuffHeadGet(uint8_t *buf) {
    return buf - request::kHeaderSize;
}

void RawMsgBuffFree(uint8_t *buf) {
    if (buf != nullptr) {
        mem_free(RawMsgBuffHeadGet(buf));
    }
}

void RawMsgFreeBuf(uint8_t *buf) {
    RawMsgBuffFree(buf);
}
