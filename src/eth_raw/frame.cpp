#include "eth_raw/eth_raw.h"

#include "eth_raw/frame_layout.h"
#include "eth_raw/received_frame.h"
#include "log/write.h"

#include <algorithm>

namespace {

// Both sides of the link add up the bytes from their first header field to the end of the payload,
// modulo 65536. A sum no wider than that makes vector code of twice the speed.
uint16_t checksum(std::span<const uint8_t> bytes) {
    uint16_t sum = kChecksumStart;
    for (const uint8_t byte : bytes) {
        sum = static_cast<uint16_t>(sum + byte);
    }
    return sum;
}

bool has_address(const uint8_t *frame, Field field, std::span<const uint8_t> address) {
    return std::equal(address.begin(), address.end(), frame + field.offset);
}

struct Checksums {
    uint16_t received;
    uint16_t computed;
};

// The checksum is always the last two bytes as received, also behind padding. It sums up to the
// claimed end, or as far as the frame goes.
Checksums checksums_of(std::span<const uint8_t> frame, size_t claimed) {
    const size_t end = std::min(claimed, frame.size());
    return {.received = static_cast<uint16_t>(
                load_le(frame.data(), {frame.size() - kChecksumSize, kChecksumSize})),
            .computed = checksum(frame.first(end).subspan(reply::kSummedFrom))};
}

void log_damaged(const Checksums &sums) {
    LOG("recv packet crc error:0x%x, should be: 0x%x\n", sums.received, sums.computed);
}

// A reply that claims more than arrived is refused whatever the sum says.
bool is_intact(std::span<const uint8_t> frame, size_t payload_len) {
    const size_t claimed = reply::kHeaderSize + payload_len;
    const Checksums sums = checksums_of(frame, claimed);
    if (sums.computed == sums.received && claimed <= frame.size()) {
        return true;
    }
    log_damaged(sums);
    return false;
}

} // namespace

// The only filter between the protocol's replies and other traffic on the interface.
bool is_from_card(std::span<const uint8_t> frame) {
    return frame.size() >= reply::kSummedFrom &&
           has_address(frame.data(), reply::kDestination, eth_raw_rx_header) &&
           has_address(frame.data(), reply::kSource, eth_raw_tx_header) &&
           load_le(frame.data(), reply::kMarker1) == kRequestMarker2 &&
           load_le(frame.data(), reply::kMarker2) == kRequestMarker1;
}

uint32_t RawMsgHeaderPack(uint16_t model, uint8_t slot, uint8_t code, uint32_t addr, uint16_t seq,
                          uint8_t **buf, uint16_t len) {
    uint8_t *frame = *buf - request::kHeaderSize;
    const uint32_t payload = padded_payload(code, len);

    std::copy(eth_raw_tx_header.begin(), eth_raw_tx_header.end(),
              frame + request::kDestination.offset);
    std::copy(eth_raw_rx_header.begin(), eth_raw_rx_header.end(), frame + request::kSource.offset);
    store_le(frame, request::kType, eth_raw_transfer_IP);
    store_le(frame, request::kMarker1, kRequestMarker1);
    store_le(frame, request::kMarker2, kRequestMarker2);
    store_le(frame, request::kModel, model);
    store_le(frame, request::kSlot, slot);
    store_le(frame, request::kSeq, seq);
    store_le(frame, request::kCode, code);
    store_le(frame, request::kAddr, addr);
    store_le(frame, request::kLen, len);

    const size_t summed_to = request::kHeaderSize + payload;
    store_le(frame, {summed_to, kChecksumSize},
             checksum({frame + request::kSummedFrom, summed_to - request::kSummedFrom}));
    *buf = frame;
    return request_frame_len(payload);
}

uint8_t *RawMsgHeaderUnpack(const uint8_t *frame, uint32_t frame_len, uint8_t *ack, uint16_t *model,
                            uint8_t *slot, uint8_t *code, uint32_t *addr, uint16_t *seq,
                            uint16_t *len) {
    const std::span<const uint8_t> received(frame, frame_len);
    if (!is_from_card(received)) {
        return nullptr;
    }
    if (received.size() < reply::kHeaderSize + kChecksumSize) {
        log_damaged(checksums_of(received, received.size())); // too short for a header
        return nullptr;
    }
    *model = static_cast<uint16_t>(load_le(frame, reply::kModel));
    *slot = static_cast<uint8_t>(load_le(frame, reply::kSlot));
    *code = static_cast<uint8_t>(load_le(frame, reply::kCode));
    *addr = load_le(frame, reply::kAddr);
    *len = static_cast<uint16_t>(load_le(frame, reply::kLen));
    *ack = static_cast<uint8_t>(load_le(frame, reply::kAck));
    *seq = static_cast<uint16_t>(load_le(frame, reply::kSeq));
    if (!is_intact(received, *len)) {
        return nullptr;
    }
    return const_cast<uint8_t *>(frame) + reply::kHeaderSize; // the caller's own buffer
}

uint32_t RawSockMsgHeaderSize(void) {
    return static_cast<uint32_t>(reply::kHeaderSize - reply::kAck.offset);
}

uint32_t RawSockMsgJumboFrameSize(void) {
    return kMaxPayload;
}
