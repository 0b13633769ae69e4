// wire.h - raw message frames on the wire, seen from the card: requests in, replies out.
//
// The layouts are those of docs/protocol.md. Nothing here is shared with the tool that sends the
// requests, so that one wrong number cannot cancel itself out.
#ifndef CARD_WIRE_H
#define CARD_WIRE_H

#include <array>
#include <cstddef>
#include <cstdint>

#include "wire/bytes.h"

namespace card::wire {

using Address = std::array<uint8_t, 6>;

constexpr Address kCardAddress = {0xEB, 0x90, 0xEB, 0x90, 0xEB, 0x90};
constexpr Address kBoardAddress = {0x44, 0x44, 0x44, 0x44, 0x44, 0x44};

// Ethernet head and markers, the same in both directions.
constexpr size_t kDestination = 0;
constexpr size_t kSource = 6;
constexpr Field kType{12, 2};
constexpr size_t kMarker = 14; // two bytes; in a reply they come in the opposite order
constexpr size_t kSumStart = 16;

constexpr uint32_t kTypeValue = 0x0007; // bytes 07 00
constexpr std::array<uint8_t, 2> kRequestMarker = {0x55, 0xAA};
constexpr std::array<uint8_t, 2> kReplyMarker = {0xAA, 0x55};

namespace request {
constexpr Field kModel{16, 2};
constexpr Field kSlot{18, 1};
constexpr Field kSeq{19, 2};
constexpr Field kCode{21, 1};
constexpr Field kAddr{22, 4};
constexpr Field kLen{26, 2};
constexpr size_t kPayload = 28;
constexpr size_t kMinPayload = 64; // shorter writes, and every read request, are padded to this
} // namespace request

namespace reply {
constexpr Field kStatus{16, 1};
constexpr Field kModel{17, 2};
constexpr Field kSlot{19, 1};
constexpr Field kSeq{20, 2};
constexpr Field kCode{22, 1};
constexpr Field kAddr{23, 4};
constexpr Field kLen{27, 2};
constexpr size_t kPayload = 29;
} // namespace reply

constexpr size_t kChecksumSize = 2;
constexpr uint16_t kChecksumStart = 0x5555;
constexpr size_t kMaxPayload = 1400;
constexpr size_t kMinFrame = 60;   // what Ethernet needs, without the frame check sequence
constexpr size_t kMaxFrame = 1514; // what Ethernet allows at the usual 1500 bytes

constexpr uint8_t kCodeRead = 0x00;     // read request; read data in a reply
constexpr uint8_t kCodeWrite = 0x01;    // write, no reply wanted
constexpr uint8_t kCodeAck = 0x10;      // the other acknowledgement code
constexpr uint8_t kCodeWriteAck = 0x11; // write with acknowledgement; acknowledgement
constexpr uint8_t kStatusCarriedOut = 0x00;

/** One request, taken apart. `data` points into the received frame. */
struct Request {
    uint16_t model = 0;
    uint8_t slot = 0;
    uint8_t code = 0;
    uint32_t addr = 0;
    uint16_t seq = 0;
    uint16_t len = 0;      // bytes to write, or bytes asked for
    Bytes data;            // the `len` bytes to write; empty in a read request
    uint16_t checksum = 0; // as received
    uint16_t computed = 0; // as it should be
};

/** The head of one reply. */
struct ReplyHead {
    uint8_t status = kStatusCarriedOut;
    uint16_t model = 0;
    uint8_t slot = 0;
    uint8_t code = 0;
    uint32_t addr = 0;
    uint16_t seq = 0;
    uint16_t len = 0; // what the field says; the payload carried may differ on purpose
    uint16_t type = kTypeValue;
};

enum class Decoded : uint8_t {
    kRequest,
    kOtherProtocol, // other addresses, or too short to tell
    kOtherMarkers,  // our addresses, but not the request markers
    kBadType,
    kBadLength,
    kBadCode,
    kBadChecksum,
};

/** True when the frame goes from the board to the cards, whatever it carries. */
bool is_from_board(Bytes frame);

/**
 * Take a received frame apart. The fields of `out` are set as far as the frame holds them (for the
 * trace), also when the result is not kRequest; `data` only when it is.
 */
Decoded decode_request(Bytes frame, Request &out);

/**
 * Build a reply around the payload that already lies at offset reply::kPayload of `frame`.
 *
 *   carried  payload bytes in the frame, at most frame.size() - reply::kPayload - kChecksumSize;
 *            the frame has to have room for kMinFrame bytes as well
 *
 * Short frames are filled with zeros between payload and checksum, so that the checksum stays the
 * last two bytes. Returns the frame's length.
 */
size_t encode_reply(const ReplyHead &head, size_t carried, MutableBytes frame);

/** Change the checksum of an encoded reply by a value other than 0, so that it is wrong. */
void spoil_checksum(MutableBytes frame, uint16_t change);

} // namespace card::wire

#endif
