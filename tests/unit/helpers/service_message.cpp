#include "helpers/service_message.h"

#include "ap_msg/ap_msg.h"

#include <algorithm>
#include <cstdio>
#include <memory>

namespace {

using Bytes = std::vector<uint8_t>;

void set(Bytes &message, size_t at, unsigned width, uint32_t value) {
    for (unsigned i = 0; i < width; i++) {
        message.at(at + i) = static_cast<uint8_t>(value >> (8 * i));
    }
}

uint32_t len_of(const MessageFields &fields) {
    return static_cast<uint32_t>(fields.len == kLenOfData ? static_cast<int>(fields.data.size())
                                                          : fields.len);
}

} // namespace

Bytes message_with(const MessageFields &fields) {
    Bytes message(38);
    set(message, 0, 4, fields.aptid);
    set(message, 4, 4, 0xE1E2E3E4); // reserved: comes back as it is
    set(message, 8, 4, 0xD1D2D3D4); // overwritten in replies, like the next
    set(message, 12, 4, 0xC1C2C3C4);
    set(message, 16, 2, static_cast<uint32_t>(fields.kind));
    set(message, 18, 2, static_cast<uint32_t>(fields.message_class));
    set(message, 20, 4, 0xB1B2B3B4); // message id: not looked at
    message.at(24) = 0x55;
    message.at(25) = fields.id;
    message.at(26) = fields.code;
    message.at(27) = fields.slot;
    set(message, 28, 2, fields.model);
    set(message, 30, 2, fields.seq);
    set(message, 32, 4, fields.addr);
    set(message, 36, 2, len_of(fields));
    message.insert(message.end(), fields.data.begin(), fields.data.end());
    return message;
}

Bytes reply_to(const Bytes &message, uint32_t own_aptid, uint32_t result, uint32_t data_len) {
    Bytes reply(message.begin(),
                message.begin() + static_cast<int>(std::min<size_t>(40, message.size())));
    reply.resize(40);
    set(reply, 0, 4, own_aptid);
    set(reply, 8, 4, data_len);
    set(reply, 12, 4, result);
    reply[24] = 0x3B;
    return reply;
}

int deal(const Bytes &message) {
    const auto exact = std::make_unique<uint8_t[]>(message.size());
    std::copy(message.begin(), message.end(), exact.get());
    return ApipcEventDeal(0, 0, exact.get(), static_cast<int>(message.size()));
}

std::string request_line(const MessageFields &fields) {
    char line[200];
    (void)snprintf(line, sizeof line,
                   "|aptid:0x%x index:0 slot:%x model:%x seq:%d code:%x addr:0x%x len:%d\n",
                   fields.aptid, fields.slot, fields.model, fields.seq, fields.code, fields.addr,
                   static_cast<int>(len_of(fields)));
    return line;
}
