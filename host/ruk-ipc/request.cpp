#include "request.h"

#include "ap_msg/message_layout.h"
#include "eth_raw/frame_layout.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace ipc {

namespace {

constexpr uint32_t kLastAddr = 0xFFFFFFFF;

// The service writes there without acknowledgement whatever was asked for.
constexpr uint8_t kPlainSlot = 1;
constexpr uint16_t kPlainModel = 0;
constexpr uint32_t kPlainAddrs = 0x10000000;

bool is_written_plainly(const Arguments &arguments, uint32_t addr) {
    return arguments.command->code == message::kCodeWriteAck && arguments.slot == kPlainSlot &&
           arguments.model == kPlainModel && addr < kPlainAddrs;
}

void append_le(std::vector<uint8_t> &data, uint32_t value) {
    uint8_t bytes[sizeof value];
    store_le(bytes, {0, sizeof bytes}, value);
    data.insert(data.end(), bytes, bytes + sizeof bytes);
}

void append_text(std::vector<uint8_t> &data, const std::string &text) {
    data.insert(data.end(), text.begin(), text.end());
    data.push_back(0);
}

// What goes behind the heads.
std::vector<uint8_t> request_data(const Arguments &arguments, std::span<const uint8_t> data) {
    std::vector<uint8_t> bytes;
    switch (arguments.command->code) {
    case message::kCodePutPicture:
    case message::kCodeGetPicture:
        append_le(bytes, arguments.width);
        append_le(bytes, arguments.height);
        append_text(bytes, arguments.file);
        break;
    case message::kCodeUpdate:
        append_le(bytes, arguments.kind);
        append_text(bytes, arguments.file);
        break;
    case message::kCodeGreeting:
        append_text(bytes, arguments.text);
        break;
    default:
        bytes.assign(data.begin(), data.end());
    }
    return bytes;
}

void store_heads(uint8_t *to, const Arguments &arguments, uint32_t addr, uint32_t len,
                 Origin origin) {
    store_le(to, message::kAptid, origin.address);
    store_le(to, message::kClass, message::kServiceClass);
    store_le(to, message::kSource, module_of(origin.address));
    store_le(to, message::kTarget, arguments.target_id);
    store_le(to, message::kCode, arguments.command->code);
    store_le(to, message::kSlot, arguments.slot);
    store_le(to, message::kModel, arguments.model);
    store_le(to, message::kSeq, origin.seq);
    store_le(to, message::kAddr, addr);
    store_le(to, message::kLen, len);
}

} // namespace

uint32_t piece_count(uint32_t total) {
    return std::max<uint32_t>(1, (total + kMaxPayload - 1) / kMaxPayload);
}

Piece piece_at(uint32_t total, uint32_t number) {
    const uint32_t offset = number * kMaxPayload;
    return {offset, std::min(kMaxPayload, total - offset)};
}

Request build_request(const Arguments &arguments, Piece piece, std::span<const uint8_t> data,
                      Origin origin) {
    const uint32_t addr = arguments.addr + piece.offset;
    const std::vector<uint8_t> carried = request_data(arguments, data);
    const bool reads = arguments.command->reply == ReplyKind::kData;
    const auto len = reads ? piece.len : static_cast<uint32_t>(carried.size());
    // As the service's own messages: the data begin within the header, and two bytes follow them.
    std::vector<uint8_t> bytes(message::kHeaderSize + carried.size());
    store_heads(bytes.data(), arguments, addr, len, origin);
    std::copy(carried.begin(), carried.end(), bytes.begin() + message::kDataOffset);
    const ReplyKind reply =
        is_written_plainly(arguments, addr) ? ReplyKind::kNone : arguments.command->reply;
    return {.bytes = std::move(bytes), .reply = reply, .addr = addr, .len = len};
}

size_t longest_name(const CommandRow &command) {
    constexpr size_t kKindAndNul = sizeof(uint32_t) + 1;
    switch (command.code) {
    case message::kCodeUpdate:
        return message::kFileRequestArea - message::kRequestHeadSize - kKindAndNul;
    case message::kCodeGetPicture:
        return message::kLongestBmpName - strlen(".bmp");
    default:
        return message::kLongestPictureName;
    }
}

std::string check_range(const CommandRow &command, uint32_t addr, size_t len) {
    if (len <= uint64_t{kLastAddr} - addr + 1) {
        return {};
    }
    return std::string(command.word) + ": " + std::to_string(len) + " bytes from " + hex32(addr) +
           " on end behind the last address " + hex32(kLastAddr);
}

std::string hex32(uint32_t value) {
    char text[sizeof "0x12345678"];
    (void)std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(value));
    return text;
}

std::string hex(uint32_t value) {
    char text[sizeof "0x12345678"];
    (void)std::snprintf(text, sizeof text, "0x%x", static_cast<unsigned>(value));
    return text;
}

} // namespace ipc
