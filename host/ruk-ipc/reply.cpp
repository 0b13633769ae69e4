#include "reply.h"

#include "ap_msg/message_layout.h"

#include <algorithm>

namespace ipc {

namespace {

constexpr uint32_t kGreetingData = 72; // more than its text has
constexpr size_t kGreetingText = 32;
constexpr uint32_t kUpdateReplyData = 4; // the kind of update

// From the target id to the length all of the request's head comes back; the module id before it is
// the replying one's.
bool echoes_head(const Request &request, std::span<const uint8_t> message) {
    const auto begin = request.bytes.begin();
    return std::equal(begin + message::kTarget.offset, begin + message::kDataOffset,
                      message.begin() + message::kTarget.offset);
}

std::string wrong_length(size_t length, size_t wanted) {
    return "a reply of " + std::to_string(length) + " bytes instead of " + std::to_string(wanted);
}

// The length that the heads of a reply of this kind must be followed up to, past the 40 bytes.
uint32_t data_wanted(const Request &request) {
    switch (request.reply) {
    case ReplyKind::kData:
        return request.len;
    case ReplyKind::kUpdate:
        return kUpdateReplyData;
    case ReplyKind::kGreeting:
        return kGreetingData;
    default:
        return 0;
    }
}

} // namespace

bool answers(const Request &request, std::span<const uint8_t> message, uint32_t service) {
    if (message.size() < message::kHeaderSize) {
        return false;
    }
    const uint8_t *bytes = message.data();
    if (load_le(bytes, message::kAptid) != service || load_le(bytes, message::kKind) != 0 ||
        load_le(bytes, message::kClass) != message::kServiceClass) {
        return false;
    }
    if (request.reply == ReplyKind::kGreeting) {
        return load_le(bytes, message::kCode) == message::kCodeGreeting;
    }
    return load_le(bytes, message::kSource) == module_of(service) && echoes_head(request, message);
}

std::string check_reply(const Request &request, const Reply &reply) {
    const uint32_t wanted = data_wanted(request);
    const uint8_t *bytes = reply.bytes.data();
    if (request.reply == ReplyKind::kData) {
        const uint32_t carried = load_le(bytes, message::kDataLen);
        if (carried != wanted) {
            return std::to_string(carried) + " bytes of data instead of " + std::to_string(wanted);
        }
    }
    if (reply.length != message::kHeaderSize + wanted) {
        return wrong_length(reply.length, message::kHeaderSize + wanted);
    }
    if (request.reply == ReplyKind::kUpdate &&
        load_le(bytes, message::kUpdateKind) !=
            load_le(request.bytes.data(), message::kUpdateKind)) {
        return "the reply to an update of kind " + hex32(load_le(bytes, message::kUpdateKind));
    }
    return {};
}

uint32_t result_of(const Reply &reply) {
    return load_le(reply.bytes.data(), message::kResult);
}

std::span<const uint8_t> data_of(const Reply &reply) {
    return std::span(reply.bytes)
        .subspan(message::kDataOffset, load_le(reply.bytes.data(), message::kDataLen));
}

std::string greeting_of(const Reply &reply) {
    const auto text = std::span(reply.bytes).subspan(message::kDataOffset, kGreetingText);
    return {text.begin(), std::find(text.begin(), text.end(), 0)};
}

} // namespace ipc
