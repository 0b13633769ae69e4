#include "requests.h"

#include <algorithm>

namespace requests {

namespace {

void put(Frame &frame, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; i++) {
        frame.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

} // namespace

uint16_t checksum(const uint8_t *frame, size_t end) {
    unsigned sum = 0x5555;
    for (size_t i = 16; i < end; i++) {
        sum += frame[i];
    }
    return static_cast<uint16_t>(sum);
}

uint32_t value_at(const uint8_t *frame, size_t offset, size_t width) {
    uint32_t value = 0;
    for (size_t i = width; i > 0; i--) {
        value = value << 8 | frame[offset + i - 1];
    }
    return value;
}

Frame build(const Fields &fields, const Frame &data) {
    Frame frame = {0xEB, 0x90, 0xEB, 0x90, 0xEB, 0x90, 0x44, 0x44,
                   0x44, 0x44, 0x44, 0x44, 0x07, 0x00, 0x55, 0xAA};
    put(frame, fields.model, 2);
    put(frame, fields.slot, 1);
    put(frame, fields.seq, 2);
    put(frame, fields.code, 1);
    put(frame, fields.addr, 4);
    put(frame, fields.len, 2);
    frame.insert(frame.end(), data.begin(), data.end());
    frame.resize(std::max<size_t>(frame.size(), 28 + 64), 0);
    put(frame, checksum(frame.data(), frame.size()), 2);
    return frame;
}

Frame read(uint32_t addr, uint16_t len, uint16_t seq) {
    return build({.seq = seq, .code = 0x00, .addr = addr, .len = len});
}

Frame write_ack(uint32_t addr, const Frame &data, uint16_t seq) {
    const auto len = static_cast<uint16_t>(data.size());
    return build({.seq = seq, .code = 0x11, .addr = addr, .len = len}, data);
}

Frame plain_write(uint32_t addr, const Frame &data) {
    const auto len = static_cast<uint16_t>(data.size());
    return build({.code = 0x01, .addr = addr, .len = len}, data);
}

} // namespace requests
