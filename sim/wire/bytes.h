// bytes.h - little-endian fields in byte buffers, and the 16-bit byte sum.
//
// Fields are read and written byte by byte: they lie at odd offsets, and the host's byte order
// and alignment rules must not matter.
#ifndef CARD_BYTES_H
#define CARD_BYTES_H

#include <cstddef>
#include <cstdint>
#include <span>

namespace card {

/** A field of a frame: where it starts and how many bytes it takes (1, 2 or 4). */
struct Field {
    size_t offset;
    size_t width;
};

using Bytes = std::span<const uint8_t>;
using MutableBytes = std::span<uint8_t>;

/** The field's value; the caller has checked that the buffer holds it. */
constexpr uint32_t load_le(Bytes buffer, Field field) {
    uint32_t value = 0;
    for (size_t i = 0; i < field.width; i++) {
        value |= static_cast<uint32_t>(buffer[field.offset + i]) << (8 * i);
    }
    return value;
}

/** Write the low bytes of `value` into the field; the caller has checked the buffer's size. */
constexpr void store_le(MutableBytes buffer, Field field, uint32_t value) {
    for (size_t i = 0; i < field.width; i++) {
        buffer[field.offset + i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

/** Sum of all bytes, modulo 65536. */
uint16_t byte_sum(Bytes bytes);

/** A 64-bit fingerprint of the bytes, for telling requests apart (no cryptographic strength). */
uint64_t fingerprint(Bytes bytes, uint64_t start);

} // namespace card

#endif
