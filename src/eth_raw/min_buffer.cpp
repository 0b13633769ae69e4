// The min-buffer table: 1000 small blocks handed out in turn. Nothing in the system takes one any
// more; hosts that were written against the table still find it.
#include "eth_raw/eth_raw.h"

#include "log/write.h"

#include <cstddef>
#include <cstdlib>

namespace {

struct MinBuff {
    void *buffer;  // block of kBlockSize bytes, or null
    uint32_t used; // 1 while handed out
};

constexpr int32_t kEntries = 1000;
constexpr size_t kBlockSize = 64;
constexpr size_t kHandedOutOffset = 28; // into the entry itself
// The address handed out for the last entry lies behind it: spare entries keep it in the table.
constexpr size_t kSpare = kHandedOutOffset / sizeof(MinBuff) + 1;

MinBuff stMinBuff[kEntries + kSpare];
int32_t minbuffercount = 0;

} // namespace

int RawMsgInitMinBuffer(void) {
    for (int32_t i = 0; i < kEntries; i++) {
        if (stMinBuff[i].buffer == nullptr) {
            stMinBuff[i].buffer = std::malloc(kBlockSize);
        }
        if (stMinBuff[i].buffer == nullptr) {
            return -1;
        }
        stMinBuff[i].used = 0;
    }
    minbuffercount = 0;
    return 0;
}

void RawMsgUninitMinBuffer(void) {
    for (MinBuff &entry : stMinBuff) {
        std::free(entry.buffer);
        entry = {};
    }
    minbuffercount = 0;
}

uint8_t *RawMsgMinBuffGet(void) {
    minbuffercount += 1;
    if (minbuffercount >= kEntries) {
        minbuffercount = 0;
    }
    MinBuff &entry = stMinBuff[minbuffercount];
    if (entry.buffer == nullptr) {
        LOG("min buffer is NULL\n");
        minbuffercount -= 1;
        return nullptr;
    }
    if (entry.used != 0) {
        LOG("min buffer is not enough\n");
        minbuffercount -= 1;
        return nullptr;
    }
    entry.used = 1;
    const size_t offset = static_cast<size_t>(minbuffercount) * sizeof(MinBuff);
    return reinterpret_cast<uint8_t *>(stMinBuff) + offset + kHandedOutOffset;
}

void RawMsgMinBuffFree(uint8_t * /*buf*/) {
}
