#include "wire/wire.h"

#include <algorithm>

namespace card::wire {

namespace {

// A request in which even the head is cut off cannot be told from other traffic.
constexpr size_t kTellingSize = kMarker + kRequestMarker.size();

bool has_bytes_at(Bytes frame, size_t offset, Bytes expected) {
    return std::ranges::equal(frame.subspan(offset, expected.size()), expected);
}

Field checksum_field(size_t frame_len) {
    return {frame_len - kChecksumSize, kChecksumSize};
}

uint16_t checksum_over(Bytes bytes) {
    return static_cast<uint16_t>(kChecksumStart + byte_sum(bytes));
}

bool is_known_code(uint8_t code) {
    return code == kCodeRead || code == kCodeWrite || code == kCodeWriteAck;
}

void load_head(Bytes frame, Request &out) {
    out.model = static_cast<uint16_t>(load_le(frame, request::kModel));
    out.slot = static_cast<uint8_t>(load_le(frame, request::kSlot));
    out.seq = static_cast<uint16_t>(load_le(frame, request::kSeq));
    out.code = static_cast<uint8_t>(load_le(frame, request::kCode));
    out.addr = load_le(frame, request::kAddr);
    out.len = static_cast<uint16_t>(load_le(frame, request::kLen));
}

// The payload area: a read request carries 64 bytes however much it asks for.
size_t payload_area(const Request &head) {
    if (head.code == kCodeRead) {
        return request::kMinPayload;
    }
    return std::max<size_t>(head.len, request::kMinPayload);
}

Decoded check_body(Bytes frame, Request &out) {
    const size_t area = payload_area(out);
    if (out.len > kMaxPayload || frame.size() != request::kPayload + area + kChecksumSize) {
        return Decoded::kBadLength;
    }
    out.checksum = static_cast<uint16_t>(load_le(frame, checksum_field(frame.size())));
    out.computed = checksum_over(frame.subspan(kSumStart, request::kPayload + area - kSumStart));
    if (out.checksum != out.computed) {
        return Decoded::kBadChecksum;
    }
    if (!is_known_code(out.code)) {
        return Decoded::kBadCode;
    }
    if (out.code != kCodeRead) {
        out.data = frame.subspan(request::kPayload, out.len);
    }
    return Decoded::kRequest;
}

} // namespace

bool is_from_board(Bytes frame) {
    return frame.size() >= kTellingSize && has_bytes_at(frame, kDestination, kCardAddress) &&
           has_bytes_at(frame, kSource, kBoardAddress);
}

Decoded decode_request(Bytes frame, Request &out) {
    out = Request{};
    if (!is_from_board(frame)) {
        return Decoded::kOtherProtocol;
    }
    if (!has_bytes_at(frame, kMarker, kRequestMarker)) {
        return Decoded::kOtherMarkers;
    }
    if (load_le(frame, kType) != kTypeValue) {
        return Decoded::kBadType;
    }
    if (frame.size() < request::kPayload + kChecksumSize) {
        return Decoded::kBadLength;
    }
    load_head(frame, out);
    return check_body(frame, out);
}

size_t encode_reply(const ReplyHead &head, size_t carried, MutableBytes frame) {
    const size_t end = reply::kPayload + carried;
    const size_t size = std::max(end + kChecksumSize, kMinFrame);
    std::ranges::copy(kBoardAddress, frame.begin() + kDestination);
    std::ranges::copy(kCardAddress, frame.begin() + kSource);
    store_le(frame, kType, head.type);
    std::ranges::copy(kReplyMarker, frame.begin() + kMarker);
    store_le(frame, reply::kStatus, head.status);
    store_le(frame, reply::kModel, head.model);
    store_le(frame, reply::kSlot, head.slot);
    store_le(frame, reply::kSeq, head.seq);
    store_le(frame, reply::kCode, head.code);
    store_le(frame, reply::kAddr, head.addr);
    store_le(frame, reply::kLen, head.len);
    std::ranges::fill(frame.subspan(end, size - kChecksumSize - end), uint8_t{0});
    // The receiver sums as far as the length field says; beyond the frame there is nothing to sum.
    const size_t summed_end = std::min(reply::kPayload + head.len, size - kChecksumSize);
    store_le(frame, checksum_field(size),
             checksum_over(frame.subspan(kSumStart, summed_end - kSumStart)));
    return size;
}

void spoil_checksum(MutableBytes frame, uint16_t change) {
    const Field field = checksum_field(frame.size());
    store_le(frame, field, load_le(frame, field) ^ change);
}

} // namespace card::wire
