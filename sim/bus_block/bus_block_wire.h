// bus_block_wire.h - bus block frames on the wire, seen from the card: requests in, replies out.
//
// As with the raw messages, nothing here is shared with the sender of the requests.
#ifndef CARD_BUS_BLOCK_WIRE_H
#define CARD_BUS_BLOCK_WIRE_H

#include "wire/bytes.h"
#include "wire/wire.h"

namespace card::bus {

constexpr Field kFrameLength{6, 4};
constexpr Field kType{11, 1};
constexpr Field kAddr{16, 4};
constexpr Field kDataLength{20, 4};
constexpr size_t kData = 24;
constexpr size_t kSumStart = 6; // the sum goes from here on and begins with 0
constexpr size_t kMinArea = 64; // shorter data are padded to this, and read requests carry this
constexpr size_t kMaxData = 8000;
constexpr size_t kMaxFrame = kData + kMaxData + wire::kChecksumSize;

constexpr uint8_t kTypeWrite = 0;
constexpr uint8_t kTypeRead = 1;
constexpr uint8_t kTypeReadBack = 2;
constexpr uint8_t kTypeResponse = 3;

/** One request, taken apart. `data` points into the received frame. */
struct Request {
    uint8_t type = 0;
    uint32_t addr = 0;
    uint32_t len = 0;      // bytes to write, or bytes asked for
    Bytes data;            // the bytes to write; empty in a read request
    uint16_t checksum = 0; // as received
    uint16_t computed = 0; // as it should be
};

enum class Decoded : uint8_t { kRequest, kBadType, kBadLength, kBadChecksum };

/** True when the frame goes from the board to the cards and is one of this protocol. */
bool is_from_board(Bytes frame);

/**
 * Take apart a frame that is_from_board has claimed. Type, address and length are set in every
 * case, the checksums as far as the length is right, `data` only for kRequest.
 */
Decoded decode_request(Bytes frame, Request &out);

/**
 * Build a reply around the data that already lie at offset kData of `frame`.
 *
 *   len      what the data length field says
 *   carried  data bytes in the frame, at most kMaxData
 *
 * Data shorter than 64 bytes are filled up with zeros. Returns the frame's length.
 */
size_t encode_reply(uint8_t type, uint32_t addr, uint32_t len, size_t carried, MutableBytes frame);

} // namespace card::bus

#endif
