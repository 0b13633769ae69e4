#include "bytes.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace card {

uint32_t load_le(Bytes buffer, Field field) {
    uint32_t value = 0;
    for (size_t i = 0; i < field.width; i++) {
        value |= static_cast<uint32_t>(buffer[field.offset + i]) << (8 * i);
    }
    return value;
}

void store_le(MutableBytes buffer, Field field, uint32_t value) {
    for (size_t i = 0; i < field.width; i++) {
        buffer[field.offset + i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

uint16_t byte_sum(Bytes bytes) {
    uint32_t sum = 0; // cannot overflow: a frame has far fewer than 2^24 bytes
    for (const uint8_t byte : bytes) {
        sum += byte;
    }
    return static_cast<uint16_t>(sum);
}

uint64_t fingerprint(Bytes bytes, uint64_t start) {
    constexpr uint64_t kOdd = 0xD6E8FEB86659FD93U;
    uint64_t hash = start * kOdd + bytes.size();
    // Whole words, because this runs for every request; the tail is a short last word.
    for (size_t at = 0; at < bytes.size(); at += sizeof(uint64_t)) {
        uint64_t word = 0;
        std::memcpy(&word, bytes.data() + at, std::min(sizeof word, bytes.size() - at));
        hash = (std::rotl(hash, 23) ^ word) * kOdd;
    }
    hash ^= hash >> 32;
    hash *= kOdd;
    return hash ^ (hash >> 29);
}

} // namespace card
