#include "main/commands/command.h"

#include <algorithm>
#include <climits>
#include <cstdlib>

namespace {

constexpr int kHexadecimal = 16;
constexpr int kDecimal = 10;

} // namespace

uint32_t parse_hex(const char *word) {
    return static_cast<uint32_t>(std::strtoul(word, nullptr, kHexadecimal));
}

int parse_index(const char *word) {
    const long value = std::strtol(word, nullptr, kDecimal);
    return static_cast<int>(std::clamp<long>(value, INT_MIN, INT_MAX));
}

uint32_t parse_decimal(const char *word) {
    return static_cast<uint32_t>(std::strtoul(word, nullptr, kDecimal));
}
