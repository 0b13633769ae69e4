#include "wire/bytes.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

namespace card {

namespace {

constexpr size_t kWord = sizeof(uint64_t);

// Up to eight bytes as one word, in the host's order; what is missing counts as 0.
uint64_t load_word(Bytes bytes) {
    uint64_t word = 0;
    std::memcpy(&word, bytes.data(), std::min(kWord, bytes.size()));
    return word;
}

} // namespace

// Sanitizers would look at every single byte, and what is summed is part of a frame that has come.
// The loop calls nothing: what is watched is not drawn into what is not.
__attribute__((no_sanitize("address", "undefined"))) uint16_t byte_sum(Bytes bytes) {
    const uint8_t *const from = bytes.data();
    const size_t count = bytes.size();
    uint32_t sum = 0; // may overflow: only its low 16 bits count
    for (size_t i = 0; i < count; i++) {
        sum += from[i];
    }
    return static_cast<uint16_t>(sum);
}

uint64_t fingerprint(Bytes bytes, uint64_t start) {
    constexpr uint64_t kOdd = 0xD6E8FEB86659FD93U;
    // Two independent halves, word by word in turn: the processor works on both at once.
    std::array<uint64_t, 2> halves = {start * kOdd, bytes.size()};
    size_t at = 0;
    for (; at + 2 * kWord <= bytes.size(); at += 2 * kWord) {
        std::array<uint64_t, 2> words{};
        std::memcpy(words.data(), bytes.data() + at, sizeof words);
        halves[0] = (std::rotl(halves[0], 23) ^ words[0]) * kOdd;
        halves[1] = (std::rotl(halves[1], 29) ^ words[1]) * kOdd;
    }
    for (; at < bytes.size(); at += kWord) {
        halves[0] = (std::rotl(halves[0], 23) ^ load_word(bytes.subspan(at))) * kOdd;
    }
    uint64_t hash = (halves[0] ^ (halves[0] >> 32)) * kOdd + halves[1];
    hash = (hash ^ (hash >> 32)) * kOdd;
    return hash ^ (hash >> 29);
}

} // namespace card
