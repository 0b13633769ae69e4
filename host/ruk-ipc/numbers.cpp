#include "numbers.h"

#include <charconv>

namespace ipc {

namespace {

constexpr int kHexadecimal = 16;
constexpr int kDecimal = 10;
constexpr size_t kPrefix = 2;

bool has_prefix(std::string_view text) {
    return text.starts_with("0x") || text.starts_with("0X");
}

std::optional<uint32_t> parse_digits(std::string_view digits, int base, uint32_t max) {
    uint32_t value = 0;
    const char *end = digits.data() + digits.size();
    const auto [stopped, error] = std::from_chars(digits.data(), end, value, base);
    if (error != std::errc{} || stopped != end || value > max) {
        return std::nullopt;
    }
    return value;
}

} // namespace

std::optional<uint32_t> parse_hex(std::string_view text, uint32_t max) {
    return parse_digits(has_prefix(text) ? text.substr(kPrefix) : text, kHexadecimal, max);
}

std::optional<uint32_t> parse_count(std::string_view text, uint32_t min, uint32_t max) {
    const auto value = has_prefix(text) ? parse_digits(text.substr(kPrefix), kHexadecimal, max)
                                        : parse_digits(text, kDecimal, max);
    return value && *value >= min ? value : std::nullopt;
}

} // namespace ipc
