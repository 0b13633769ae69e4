// bus_frames.h - frames of the bus block protocol, built by hand with offsets of their own.
#ifndef TESTS_UNIT_HELPERS_BUS_FRAMES_H
#define TESTS_UNIT_HELPERS_BUS_FRAMES_H

#include "stand_ins/fake_wire.h"

#include <algorithm>
#include <numeric>

namespace bus_frames {

inline void put(Frame &frame, size_t offset, uint32_t value, size_t width) {
    for (size_t i = 0; i < width; i++) {
        frame.at(offset + i) = static_cast<uint8_t>(value >> (8 * i));
    }
}

inline uint32_t get(const Frame &frame, size_t offset, size_t width) {
    uint32_t value = 0;
    for (size_t i = 0; i < width; i++) {
        value |= static_cast<uint32_t>(frame.at(offset + i)) << (8 * i);
    }
    return value;
}

/** Bytes 6 to the end, exclusive. */
inline uint32_t sum(const Frame &frame, size_t end) {
    return std::accumulate(frame.begin() + 6, frame.begin() + static_cast<std::ptrdiff_t>(end),
                           0U) &
           0xFFFF;
}

/** Make the checksum at the end right. */
inline void seal(Frame &frame) {
    put(frame, frame.size() - 2, sum(frame, frame.size() - 2), 2);
}

inline Frame build(uint8_t destination, uint8_t other, uint8_t type, uint32_t addr, uint32_t n,
                   const Frame &data, size_t area) {
    Frame frame(24 + area + 2, 0);
    for (size_t i = 0; i < 6; i++) {
        frame[i] = i % 2 == 0 ? destination : other;
    }
    put(frame, 6, static_cast<uint32_t>(frame.size()), 4);
    frame[11] = type;
    frame[12] = 7;
    put(frame, 16, addr, 4);
    put(frame, 20, n, 4);
    std::copy(data.begin(), data.end(), frame.begin() + 24);
    seal(frame);
    return frame;
}

/** The request that writes these data. */
inline Frame write_request(uint32_t addr, const Frame &data) {
    return build(0xEB, 0x90, 0, addr, static_cast<uint32_t>(data.size()), data,
                 std::max<size_t>(data.size(), 64));
}

inline Frame read_request(uint32_t addr, uint32_t n) {
    return build(0xEB, 0x90, 1, addr, n, {}, 64);
}

/** The answer to a read, not padded. */
inline Frame read_back(uint32_t addr, const Frame &data) {
    return build(0x44, 0x44, 2, addr, static_cast<uint32_t>(data.size()), data, data.size());
}

inline Frame response(uint32_t addr, uint8_t flag) {
    Frame frame = build(0x44, 0x44, 3, addr, 1, {flag}, 64);
    put(frame, 6, 0xFFFFFFFF, 4); // nobody looks at the length of a response
    seal(frame);
    return frame;
}

/** Bytes without a short period. */
inline Frame pattern(size_t size) {
    Frame bytes(size);
    for (size_t i = 0; i < size; i++) {
        bytes[i] = static_cast<uint8_t>(1 + i % 251);
    }
    return bytes;
}

inline Frame part(const Frame &bytes, size_t offset, size_t size) {
    const auto from = bytes.begin() + static_cast<std::ptrdiff_t>(offset);
    return {from, from + static_cast<std::ptrdiff_t>(size)};
}

} // namespace bus_frames

#endif
