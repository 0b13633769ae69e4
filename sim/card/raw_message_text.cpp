#include "card/raw_message_text.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "pictures/picture_text.h"
#include "wire/wire.h"

namespace card {

namespace {

constexpr size_t kShownBytes = 16;

struct CodeName {
    uint8_t code;
    const char *request;
    const char *reply;
};
constexpr CodeName kCodeNames[] = {
    {wire::kCodeRead, "read", "data"},
    {wire::kCodeWrite, "write", "code-01"},
    {wire::kCodeWriteAck, "write-ack", "ack"},
    {wire::kCodeAck, "code-10", "ack-10"},
};

std::string code_name(uint8_t code, bool is_reply) {
    for (const CodeName &row : kCodeNames) {
        if (row.code == code) {
            return is_reply ? row.reply : row.request;
        }
    }
    std::array<char, 16> text{};
    (void)std::snprintf(text.data(), text.size(), "code-%02x", code);
    return text.data();
}

std::string hex_bytes(Bytes bytes) {
    std::string out;
    std::array<char, 4> text{};
    for (const uint8_t byte : bytes.first(std::min(bytes.size(), kShownBytes))) {
        (void)std::snprintf(text.data(), text.size(), " %02x", byte);
        out += text.data();
    }
    return out + (bytes.size() > kShownBytes ? " ..." : "");
}

struct Head {
    uint32_t model;
    uint32_t slot;
    uint32_t seq;
    uint32_t addr;
    uint32_t len;
};

std::string head_text(const Head &head) {
    std::array<char, 96> text{};
    (void)std::snprintf(text.data(), text.size(), " model %04x slot %02x seq %u addr %08x len %u",
                        head.model, head.slot, head.seq, head.addr, head.len);
    return text.data();
}

std::string request_text(Bytes frame) {
    wire::Request request;
    const wire::Decoded decoded = wire::decode_request(frame, request);
    std::string out =
        code_name(request.code, false) +
        head_text({request.model, request.slot, request.seq, request.addr, request.len});
    if (decoded == wire::Decoded::kBadChecksum) {
        std::array<char, 48> text{};
        (void)std::snprintf(text.data(), text.size(), " checksum %04x should be %04x",
                            request.checksum, request.computed);
        out += text.data();
    }
    if (!request.data.empty()) {
        out += " data" + hex_bytes(request.data);
    }
    return decoded == wire::Decoded::kRequest ? out + describe_picture_request(request) : out;
}

std::string reply_text(Bytes frame) {
    const uint32_t len = load_le(frame, wire::reply::kLen);
    const size_t room = frame.size() - wire::reply::kPayload - wire::kChecksumSize;
    std::array<char, 16> status{};
    (void)std::snprintf(status.data(), status.size(), " status %02x",
                        load_le(frame, wire::reply::kStatus));
    std::string out =
        code_name(static_cast<uint8_t>(load_le(frame, wire::reply::kCode)), true) + status.data() +
        head_text({load_le(frame, wire::reply::kModel), load_le(frame, wire::reply::kSlot),
                   load_le(frame, wire::reply::kSeq), load_le(frame, wire::reply::kAddr), len});
    if (len > 0) {
        out +=
            " data" + hex_bytes(frame.subspan(wire::reply::kPayload, std::min<size_t>(len, room)));
    }
    return out;
}

} // namespace

std::string describe_raw_message(Bytes frame) {
    if (frame.size() < wire::kMinFrame) {
        return "too short to tell";
    }
    return wire::is_from_board(frame) ? request_text(frame) : reply_text(frame);
}

} // namespace card
