#include "bus_block/bus_block_wire.h"

#include <algorithm>

namespace card::bus {

namespace {

constexpr Field kReserved0{10, 1};
constexpr Field kReserved1{14, 2};
constexpr size_t kShortest = kData + kMinArea + wire::kChecksumSize;

Field checksum_field(size_t frame_len) {
    return {frame_len - wire::kChecksumSize, wire::kChecksumSize};
}

size_t data_area(const Request &head) {
    return head.type == kTypeRead ? kMinArea : std::max<size_t>(head.len, kMinArea);
}

// What the checksum covers: all up to the end of the data, but nothing beyond the frame.
Bytes summed(Bytes frame, uint32_t len) {
    const size_t end = std::min(kData + len, frame.size() - wire::kChecksumSize);
    return frame.subspan(kSumStart, end - kSumStart);
}

} // namespace

// A raw message is none of these: where they have a reserved byte of 0, it has 0x44 of the
// board's address.
bool is_from_board(Bytes frame) {
    return frame.size() >= kShortest &&
           std::ranges::equal(frame.first(wire::kCardAddress.size()), wire::kCardAddress) &&
           load_le(frame, kReserved0) == 0 && load_le(frame, wire::kType) == wire::kTypeValue &&
           load_le(frame, kReserved1) == 0;
}

Decoded decode_request(Bytes frame, Request &out) {
    out.type = static_cast<uint8_t>(load_le(frame, kType));
    out.addr = load_le(frame, kAddr);
    out.len = load_le(frame, kDataLength);
    if (out.type != kTypeWrite && out.type != kTypeRead) {
        return Decoded::kBadType;
    }
    if (out.len > kMaxData || frame.size() != load_le(frame, kFrameLength) ||
        frame.size() != kData + data_area(out) + wire::kChecksumSize) {
        return Decoded::kBadLength;
    }
    out.checksum = static_cast<uint16_t>(load_le(frame, checksum_field(frame.size())));
    out.computed = byte_sum(summed(frame, out.len));
    if (out.checksum != out.computed) {
        return Decoded::kBadChecksum;
    }
    if (out.type == kTypeWrite) {
        out.data = frame.subspan(kData, out.len);
    }
    return Decoded::kRequest;
}

size_t encode_reply(uint8_t type, uint32_t addr, uint32_t len, size_t carried, MutableBytes frame) {
    const size_t end = kData + carried;
    const size_t size = kData + std::max(carried, kMinArea) + wire::kChecksumSize;
    std::ranges::copy(wire::kBoardAddress, frame.begin());
    store_le(frame, kFrameLength, static_cast<uint32_t>(size));
    store_le(frame, kReserved0, 0);
    store_le(frame, kType, type);
    store_le(frame, wire::kType, wire::kTypeValue);
    store_le(frame, kReserved1, 0);
    store_le(frame, kAddr, addr);
    store_le(frame, kDataLength, len);
    std::ranges::fill(frame.subspan(end, size - wire::kChecksumSize - end), uint8_t{0});
    const Bytes all = frame.first(size);
    store_le(frame, checksum_field(size),
             byte_sum(all.subspan(kSumStart, size - wire::kChecksumSize - kSumStart)));
    return size;
}

} // namespace card::bus
