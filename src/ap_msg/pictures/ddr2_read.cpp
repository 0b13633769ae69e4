// Pictures out of a card's DDR2 memory.
#include "ap_msg/ap_msg.h"

#include "base/owners.h"
#include "eth_raw/frame_layout.h"
#include "log/write.h"
#include "raw_msg/ddr2.h"
#include "raw_msg/raw_msg.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr int kSecondMemoryIndex = 2; // the FPGA on this interface has the second register set
constexpr int32_t kReadTicks = 3;
constexpr uint16_t kShortModel = 0xFF;

// Which FPGA. This path gives the slot where all others give the model, and the model where they
// give the slot: the cards' read-back units answer to nothing else.
struct Source {
    int index;
    uint16_t slot_as_model;
    uint8_t model_as_slot;
};

void write_register(const Source &from, uint32_t addr, const uint8_t *data, uint32_t len) {
    (void)RawSockSendMsg(from.index, from.slot_as_model, from.model_as_slot, addr,
                         RAW_MSG_CODE_WRITE, data, len); // a failure is logged
}

// A reply may carry more than was asked for: it goes to a buffer of a frame's size first.
int read_register(const Source &from, uint32_t addr, uint32_t len, uint8_t *to) {
    uint8_t reply[kMaxPayload];
    uint32_t received = 0;
    const int result =
        RawSockSendMsgWithReadWait(from.index, from.slot_as_model, from.model_as_slot, addr,
                                   RAW_MSG_CODE_READ, len, reply, &received, kReadTicks);
    if (result == 0) {
        memcpy(to, reply, std::min(len, received));
    }
    return result;
}

} // namespace

int DDR2ReadProcess(int index, uint8_t slot, uint16_t model, uint32_t addr, uint16_t length,
                    uint8_t *buf) {
    if (length > kMaxPayload) {
        LOG("ap_msg: read block of %d bytes: more than one frame's %d\n", length,
            static_cast<int>(kMaxPayload));
        return -1;
    }
    const ddr2::Registers &registers = index == kSecondMemoryIndex ? ddr2::kSecond : ddr2::kFirst;
    const Source from{.index = index,
                      .slot_as_model = slot,
                      .model_as_slot = static_cast<uint8_t>(model & kShortModel)};
    uint8_t record[ddr2::kRecordSize] = {};
    store_le(record, ddr2::kAddr, addr);
    store_le(record, ddr2::kBursts, ddr2::bursts_of(length));
    write_register(from, registers.read_command, record, sizeof record);
    write_register(from, registers.read_start, &ddr2::kStarted, sizeof ddr2::kStarted);
    // The time that the read of the status takes is what matters, not what it says.
    uint8_t status = 0;
    (void)read_register(from, registers.read_status, sizeof status, &status);
    return read_register(from, registers.data, length, buf);
}

void DDR2Read(int index, uint16_t model, uint8_t slot, uint32_t addr, uint16_t hor, uint16_t ver,
              uint8_t *out) {
    const uint64_t line = uint64_t{hor} * ddr2::kPixelSize;
    const uint64_t stride = ddr2::line_stride(hor);
    const uint64_t total = stride * ver;
    const HeapBytes area = heap_bytes(total);
    if (area == nullptr) {
        LOG("ap_msg: read picture from DDR2: no memory for %llu bytes\n",
            static_cast<unsigned long long>(total));
        return;
    }
    for (uint64_t offset = 0; offset < total; offset += kMaxPayload) {
        const auto block = static_cast<uint16_t>(std::min<uint64_t>(kMaxPayload, total - offset));
        // A block that does not come stays zero.
        (void)DDR2ReadProcess(index, slot, model, addr, block, area.get() + offset);
        addr += ddr2::address_step(block);
    }
    for (uint64_t i = 0; i < ver; i++) {
        memcpy(out + i * line, area.get() + i * stride, static_cast<size_t>(line));
    }
}
