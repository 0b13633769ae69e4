// field.h - named little-endian fields of a layout.
//
// Frames, messages and files are described once, as fields; many stand at odd offsets, so they are
// loaded and stored byte by byte.
#ifndef BASE_FIELD_H
#define BASE_FIELD_H

#include <cstddef>
#include <cstdint>
#include <span>

struct Field {
    size_t offset;
    size_t width;
};

constexpr uint32_t load_le(const uint8_t *from, Field field) {
    uint32_t value = 0;
    for (size_t i = field.width; i > 0; i--) {
        value = (value << 8) | from[field.offset + i - 1];
    }
    return value;
}

constexpr void store_le(uint8_t *to, Field field, uint32_t value) {
    for (size_t i = 0; i < field.width; i++) {
        to[field.offset + i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

/** Whether the fields follow each other without gap or overlap and fill so many bytes. */
constexpr bool tiles(std::span<const Field> fields, size_t size) {
    size_t next = 0;
    for (const Field &field : fields) {
        if (field.offset != next) {
            return false;
        }
        next += field.width;
    }
    return next == size;
}

#endif
