// What makes a received frame a reply of the bus block protocol.
#include "eth_raw/bus_block.h"

#include "eth_raw/bus_block/bus_block_layout.h"

#include <cstring>

namespace {

// The length that a reply claims; 0 for a frame that is none.
uint32_t claimed_length(const uint8_t *frame) {
    switch (load_le(frame, bus_block::kType)) {
    case bus_block::kReadBack:
        return load_le(frame, bus_block::kLength);
    case bus_block::kResponse:
        return bus_block::kResponseFrame;
    default:
        return 0;
    }
}

} // namespace

int packet_header_judge(const uint8_t *a, const uint8_t *b, uint32_t count) {
    return count == 0 || memcmp(a, b, count) == 0 ? 0 : -1;
}

uint16_t packet_checksum_calc(const uint8_t *frame, uint32_t L) {
    if (L < bus_block::kSummedFrom + kChecksumSize) {
        return 0;
    }
    uint16_t sum = 0; // modulo 65536
    for (size_t i = bus_block::kSummedFrom; i < L - kChecksumSize; i++) {
        sum = static_cast<uint16_t>(sum + frame[i]);
    }
    return sum;
}

int packet_checksum_judge(uint16_t x, uint16_t y) {
    return x == y ? 0 : -1;
}

int packet_length_judge(const uint8_t *frame, uint32_t n) {
    return load_le(frame, bus_block::kDataLength) == n ? 0 : -1;
}

int judge_packet(const uint8_t *frame, uint32_t size, uint32_t addr) {
    if (size < bus_block::kMinFrame ||
        packet_header_judge(frame + bus_block::kDestination.offset, eth_raw_rx_header.data(),
                            bus_block::kDestination.width) != 0) {
        return -1;
    }
    const uint32_t length = claimed_length(frame);
    if (length < bus_block::kMinFrame || length > size) {
        return -1;
    }
    const auto received = static_cast<uint16_t>(load_le(frame, bus_block::checksum_field(length)));
    if (packet_checksum_judge(packet_checksum_calc(frame, length), received) != 0) {
        return -1;
    }
    return load_le(frame, bus_block::kAddr) == addr ? 0 : -1;
}
