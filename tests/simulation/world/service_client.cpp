#include "world/service_client.h"

#include "scheduler/trace.h"

#include "ap_msg/ap_msg.h"

#include <algorithm>

namespace sim {

namespace {

constexpr size_t kHead = 38;
constexpr size_t kShortest = 40;

void put(Message &message, size_t at, uint32_t value, size_t bytes) {
    for (size_t i = 0; i < bytes; i++) {
        message[at + i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

uint32_t get(const Message &message, size_t at, size_t bytes) {
    uint32_t value = 0;
    for (size_t i = bytes; i > 0; i--) {
        value = value << 8 | message[at + i - 1];
    }
    return value;
}

} // namespace

Message message_of(const ServiceRequest &request) {
    constexpr uint32_t kServiceClass = 28;
    constexpr uint32_t kTarget = 0xFE;
    Message message(kHead + request.data.size());
    put(message, 0, request.requester, 4);
    put(message, 18, kServiceClass, 2);
    put(message, 25, kTarget, 1);
    put(message, 26, request.code, 1);
    put(message, 27, request.slot, 1);
    put(message, 28, request.model, 2);
    put(message, 32, request.addr, 4);
    put(message, 36, request.len, 2);
    std::copy(request.data.begin(), request.data.end(), message.begin() + kHead);
    return message;
}

std::vector<uint8_t> picture_data(uint32_t width, uint32_t height, const std::string &name) {
    constexpr size_t kSizes = 8;
    Message data(kSizes + name.size() + 1);
    put(data, 0, width, 4);
    put(data, 4, height, 4);
    std::copy(name.begin(), name.end(), data.begin() + kSizes);
    return data;
}

ServiceReply reply_in(const Message &message) {
    if (message.size() < kShortest) {
        fail("a reply of %zu bytes", message.size());
    }
    const uint32_t len = get(message, 8, 4);
    if (message.size() < kShortest + len) {
        fail("a reply says %u bytes of data and is %zu bytes long", len, message.size());
    }
    ServiceReply reply{.addr = get(message, 32, 4), .result = get(message, 12, 4), .data = {}};
    reply.data.assign(message.begin() + kHead, message.begin() + kHead + len);
    return reply;
}

void start_service() {
    (void)PmdApFileTaskCreate(nullptr);
    (void)PmdApRecvTaskCreate(nullptr);
}

} // namespace sim
