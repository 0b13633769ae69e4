#include "base/hex_dump.h"

#include <cstdio>

void print_hex(std::span<const uint8_t> bytes, size_t per_line) {
    for (size_t i = 0; i < bytes.size(); i++) {
        if (per_line != 0 && i % per_line == 0) {
            printf("\n");
        }
        printf("%02x ", bytes[i]);
    }
}
