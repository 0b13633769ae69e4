// Pictures into the DDR2 memories behind an FPGA, by plain writes for speed.
#include "raw_msg/raw_msg.h"

#include "base/owners.h"
#include "eth_raw/frame_layout.h"
#include "log/write.h"
#include "raw_msg/ddr2.h"
#include "timer/sleep.h"

#include <algorithm>
#include <cstring>

namespace {

using namespace std::chrono_literals;

constexpr uint32_t kChunkSize = 15360; // 240 bursts: what the card collects before it stores it
constexpr auto kFirstMemoryPause = 2us;
constexpr uint8_t kTransferTarget = 'e';

constexpr int kNoInterface = -1;

int interface_of(uint8_t fpga_sel) {
    constexpr int kInterfaceOfFpga[] = {2, 1};
    return fpga_sel < std::size(kInterfaceOfFpga) ? kInterfaceOfFpga[fpga_sel] : kNoInterface;
}

// A failed send is logged where it fails. The walk goes on: a picture with a gap is still seen.
void write_register(uint8_t fpga_sel, uint32_t addr, const uint8_t *data, uint32_t len) {
    const int index = interface_of(fpga_sel);
    if (index != kNoInterface) {
        (void)RawSockSendMsg(index, 0, 0, addr, RAW_MSG_CODE_WRITE, data, len);
    }
}

void start_storing(uint8_t fpga_sel, uint32_t control, uint32_t addr, uint32_t len) {
    uint8_t record[ddr2::kRecordSize] = {};
    store_le(record, ddr2::kAddr, addr);
    store_le(record, ddr2::kBursts, ddr2::bursts_of(len));
    store_le(record, ddr2::kStart, ddr2::kStarted);
    write_register(fpga_sel, control, record, sizeof record);
}

// The lines at their places in the card's memory, zeros between them. Null: no memory.
HeapBytes align_lines(uint32_t hor, uint16_t ver, const uint8_t *data) {
    const uint64_t line = uint64_t{hor} * ddr2::kPixelSize;
    const uint64_t stride = ddr2::line_stride(hor);
    HeapBytes aligned = heap_bytes(stride * ver);
    for (uint64_t i = 0; aligned != nullptr && i < ver; i++) {
        memcpy(aligned.get() + i * stride, data + i * line, static_cast<size_t>(line));
    }
    return aligned;
}

using ChunkWriter = void (*)(uint8_t ts_sel, uint8_t fpga_sel, uint32_t addr, uint16_t length,
                             uint32_t ignored, const uint8_t *chunk);
constexpr ChunkWriter kChunkWriters[] = {DDR2WriteProcess, DDR2WriteProcess2};

} // namespace

void DDR2Write(uint8_t ts_sel, uint8_t fpga_sel, uint32_t addr, uint32_t hor, uint16_t ver,
               const uint8_t *data, uint8_t ddr_sel) {
    LOG("ts_sel=%d,fpga_sel=%d,ddr_sel=%d,addr=0x%x,hor=%d,ver=%d\n", ts_sel, fpga_sel, ddr_sel,
        addr, static_cast<int>(hor), ver);
    const uint64_t total = ddr2::line_stride(hor) * ver;
    const HeapBytes aligned = align_lines(hor, ver, data);
    if (aligned == nullptr) {
        LOG("raw_msg: write picture to DDR2: no memory for %llu bytes\n",
            static_cast<unsigned long long>(total));
        return;
    }
    if (ddr_sel >= std::size(kChunkWriters)) {
        return;
    }
    const SleepsOnTime short_pauses; // hundreds of them, behind each chunk
    for (uint64_t offset = 0; offset < total; offset += kChunkSize) {
        const auto length = static_cast<uint16_t>(std::min<uint64_t>(kChunkSize, total - offset));
        kChunkWriters[ddr_sel](ts_sel, fpga_sel, addr, length, 0, aligned.get() + offset);
        addr += ddr2::address_step(length);
    }
}

void DDR2WriteProcess(uint8_t ts_sel, uint8_t fpga_sel, uint32_t addr, uint16_t length,
                      uint32_t /*ignored*/, const uint8_t *chunk) {
    if (ts_sel != kTransferTarget) {
        return;
    }
    write_register(fpga_sel, ddr2::kFirst.data, chunk, length);
    start_storing(fpga_sel, ddr2::kFirst.write_control, addr, length);
    sleep_full(kFirstMemoryPause);
}

// The second memory needs no pause.
void DDR2WriteProcess2(uint8_t ts_sel, uint8_t fpga_sel, uint32_t addr, uint16_t length,
                       uint32_t /*ignored*/, const uint8_t *chunk) {
    if (ts_sel != kTransferTarget) {
        return;
    }
    write_register(fpga_sel, ddr2::kSecond.data, chunk, length);
    LOG("addr = 0x%x\n", addr);
    start_storing(fpga_sel, ddr2::kSecond.write_control, addr, length);
}

int convert_index(int character) {
    switch (static_cast<uint8_t>(character)) {
    case '0':
    case 'B':
    case 'b':
        return 0;
    case '1':
    case 'A':
    case 'a':
        return 1;
    default:
        return -1;
    }
}
