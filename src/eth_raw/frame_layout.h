// frame_layout.h - the two frames of the raw message protocol, written once.
//
// Packer, unpacker and frame buffers take every offset from here.
#ifndef ETH_RAW_FRAME_LAYOUT_H
#define ETH_RAW_FRAME_LAYOUT_H

#include "base/field.h"
#include "eth_raw/eth_raw.h"

#include <array>
#include <cstddef>
#include <cstdint>

// The protocol's own fixed addresses; the hardware addresses of the interfaces play no part.
constexpr std::array<uint8_t, 6> eth_raw_tx_header{0xEB, 0x90, 0xEB, 0x90, 0xEB, 0x90};
constexpr std::array<uint8_t, 6> eth_raw_rx_header{0x44, 0x44, 0x44, 0x44, 0x44, 0x44};
constexpr uint16_t eth_raw_transfer_IP = 0x0007; // little-endian: the wire carries 07 00

constexpr uint32_t kMaxPayload = RUK_MAX_DATA; // largest payload of one frame, bytes
constexpr uint32_t kMinPayload = 64;           // shorter payloads are padded to this
constexpr uint32_t kChecksumSize = 2;          // behind the payload area, in both directions
constexpr uint16_t kChecksumStart = 0x5555;

// From the board to a card.
namespace request {
constexpr Field kDestination{0, 6};
constexpr Field kSource{6, 6};
constexpr Field kType{12, 2};
constexpr Field kMarker1{14, 1}; // 0x55
constexpr Field kMarker2{15, 1}; // 0xAA
constexpr Field kModel{16, 2};
constexpr Field kSlot{18, 1};
constexpr Field kSeq{19, 2};
constexpr Field kCode{21, 1};
constexpr Field kAddr{22, 4};
constexpr Field kLen{26, 2}; // the caller's length, never the padded one
constexpr Field kFields[] = {kDestination, kSource, kType, kMarker1, kMarker2, kModel,
                             kSlot,        kSeq,    kCode, kAddr,    kLen};
constexpr uint32_t kHeaderSize = 28;
constexpr size_t kSummedFrom = kModel.offset;
static_assert(tiles(kFields, kHeaderSize), "gap or overlap in the request header");
} // namespace request

// From a card to the board: the markers come the other way round and a status byte goes before the
// header fields, so a request that is looped back can never pass for a reply.
namespace reply {
constexpr Field kDestination{0, 6};
constexpr Field kSource{6, 6};
constexpr Field kType{12, 2};    // any value
constexpr Field kMarker1{14, 1}; // 0xAA
constexpr Field kMarker2{15, 1}; // 0x55
constexpr Field kAck{16, 1};
constexpr Field kModel{17, 2};
constexpr Field kSlot{19, 1};
constexpr Field kSeq{20, 2};
constexpr Field kCode{22, 1};
constexpr Field kAddr{23, 4};
constexpr Field kLen{27, 2};
constexpr Field kFields[] = {kDestination, kSource, kType, kMarker1, kMarker2, kAck,
                             kModel,       kSlot,   kSeq,  kCode,    kAddr,    kLen};
constexpr uint32_t kHeaderSize = 29;
constexpr size_t kSummedFrom = kAck.offset;
static_assert(tiles(kFields, kHeaderSize), "gap or overlap in the reply header");
} // namespace reply

constexpr uint8_t kRequestMarker1 = 0x55;
constexpr uint8_t kRequestMarker2 = 0xAA;

// The payload area of a request: a read carries only padding, whatever length it asks for.
constexpr uint32_t padded_payload(uint8_t code, uint32_t len) {
    return code == RAW_MSG_CODE_READ || len < kMinPayload ? kMinPayload : len;
}

constexpr uint32_t request_frame_len(uint32_t payload) {
    return request::kHeaderSize + payload + kChecksumSize;
}

#endif
