// bus_block_layout.h - the frames of the bus block protocol, written once.
//
// They have no source address: where an Ethernet header carries it stand the frame's length and its
// type. Requests and replies share one layout; only the destination and the types differ.
#ifndef ETH_RAW_BUS_BLOCK_BUS_BLOCK_LAYOUT_H
#define ETH_RAW_BUS_BLOCK_BUS_BLOCK_LAYOUT_H

#include "base/field.h"
#include "eth_raw/frame_layout.h"

#include <algorithm>

namespace bus_block {

constexpr Field kDestination{0, 6};
constexpr Field kLength{6, 4}; // of the whole frame, checksum included
constexpr Field kReserved0{10, 1};
constexpr Field kType{11, 1};
constexpr Field kEtherType{12, 2};
constexpr Field kReserved1{14, 2};
constexpr Field kAddr{16, 4};
constexpr Field kDataLength{20, 4};
constexpr Field kFields[] = {kDestination, kLength,    kReserved0, kType,
                             kEtherType,   kReserved1, kAddr,      kDataLength};
constexpr uint32_t kHeaderSize = 24;
constexpr Field kAckFlag{kHeaderSize, 1}; // in a response: the first byte of the data area
constexpr size_t kSummedFrom = kLength.offset;
static_assert(tiles(kFields, kHeaderSize), "gap or overlap in the bus block header");

constexpr uint8_t kWrite = 0;       // request: data to write
constexpr uint8_t kReadRequest = 1; // request: data wanted
constexpr uint8_t kReadBack = 2;    // reply: the data
constexpr uint8_t kResponse = 3;    // reply: carried out or refused

constexpr uint8_t kCarriedOut = 0; // the only ACK flag that is no refusal

constexpr uint32_t kMaxData = 8000;      // data bytes of one frame
constexpr uint32_t kMinDataArea = 64;    // shorter data, and every read request, are padded to this
constexpr uint32_t kMaxBlock = 64 << 20; // bytes of one transfer

constexpr uint32_t frame_len(uint32_t data_area) {
    return kHeaderSize + data_area + kChecksumSize;
}

constexpr uint32_t kMinFrame = frame_len(0);
constexpr uint32_t kResponseFrame = frame_len(kMinDataArea); // whatever its length field says
constexpr uint32_t kBufferSize = 8050;                       // a little more than the largest frame
constexpr uint32_t kMaxReceived = 8046; // what is longer was cut off, or is not of this protocol
static_assert(frame_len(kMaxData) <= kMaxReceived && kMaxReceived < kBufferSize);

constexpr uint32_t data_area(uint8_t type, uint32_t n) {
    return type == kReadRequest ? kMinDataArea : std::max(n, kMinDataArea);
}

constexpr Field checksum_field(uint32_t frame_length) {
    return {frame_length - kChecksumSize, kChecksumSize};
}

} // namespace bus_block

#endif
