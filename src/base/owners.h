// owners.h - heap memory and files, each held by a scope.
#ifndef BASE_OWNERS_H
#define BASE_OWNERS_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>

struct FreeMemory {
    void operator()(uint8_t *memory) const {
        std::free(memory);
    }
};
using HeapBytes = std::unique_ptr<uint8_t, FreeMemory>;

struct CloseFile {
    void operator()(FILE *file) const {
        // For files that are read; whoever writes closes the file himself and looks at the result.
        (void)fclose(file);
    }
};
using File = std::unique_ptr<FILE, CloseFile>;

/** a x b x c, or the largest number when it does not fit: more than any memory or file holds. */
constexpr uint64_t bytes_of(uint64_t a, uint64_t b, uint64_t c = 1) {
    uint64_t product = 0;
    if (__builtin_mul_overflow(a, b, &product) || __builtin_mul_overflow(product, c, &product)) {
        return std::numeric_limits<uint64_t>::max();
    }
    return product;
}

/** Zeroed heap memory, also for size 0. Null: not to be had. */
inline HeapBytes heap_bytes(uint64_t size) {
    if (size > std::numeric_limits<size_t>::max()) {
        return nullptr;
    }
    return HeapBytes(static_cast<uint8_t *>(
        std::calloc(size == 0 ? 1 : static_cast<size_t>(size), sizeof(uint8_t))));
}

#endif
