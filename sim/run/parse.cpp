#include "run/parse.h"

#include <array>
#include <charconv>
#include <limits>

namespace card {

namespace {

constexpr uint64_t kHourUs = 3'600'000'000;
constexpr uint32_t kPercentDecimals = 4; // 100 % = 1,000,000 parts: one decimal per tenth part

struct Unit {
    std::string_view suffix;
    uint64_t us;
};
// Longer suffixes first: "ms" ends in "s" too.
constexpr std::array<Unit, 3> kUnits = {{{"us", 1}, {"ms", 1000}, {"s", 1'000'000}}};

bool take_prefix(std::string_view &text, std::string_view prefix) {
    if (!text.starts_with(prefix)) {
        return false;
    }
    text.remove_prefix(prefix.size());
    return true;
}

// Take the digits at the start of the text; nothing when there are none or the value is too large.
std::optional<uint64_t> take_digits(std::string_view &text, int base, uint64_t max) {
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc{} || value > max) {
        return std::nullopt;
    }
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return value;
}

std::optional<uint64_t> take_hex(std::string_view &text, uint64_t max) {
    if (!take_prefix(text, "0x")) {
        take_prefix(text, "0X");
    }
    return take_digits(text, 16, max);
}

// The decimals of a percentage, in parts per million.
std::optional<uint32_t> decimals_ppm(std::string_view digits) {
    if (digits.empty() || digits.size() > kPercentDecimals) {
        return std::nullopt;
    }
    uint32_t value = 0;
    for (size_t i = 0; i < kPercentDecimals; i++) {
        const char digit = i < digits.size() ? digits[i] : '0';
        if (digit < '0' || digit > '9') {
            return std::nullopt;
        }
        value = value * 10 + static_cast<uint32_t>(digit - '0');
    }
    return value;
}

bool take_addresses(std::string_view &text, AddressRange &out) {
    constexpr uint32_t kLastAddress = std::numeric_limits<uint32_t>::max();
    if (take_prefix(text, "any")) {
        out.first = 0;
        out.last = kLastAddress;
        return true;
    }
    const auto first = take_hex(text, kLastAddress);
    if (!first) {
        return false;
    }
    out.first = out.last = static_cast<uint32_t>(*first);
    if (!take_prefix(text, "-")) {
        return true;
    }
    const auto last = take_hex(text, kLastAddress);
    if (!last || *last < *first) {
        return false;
    }
    out.last = static_cast<uint32_t>(*last);
    return true;
}

Halves cut_at(std::string_view text, size_t at) {
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    return std::pair(text.substr(0, at), text.substr(at + 1));
}

} // namespace

std::optional<uint32_t> parse_hex(std::string_view text, uint32_t max) {
    const auto value = take_hex(text, max);
    if (!value || !text.empty()) {
        return std::nullopt;
    }
    return static_cast<uint32_t>(*value);
}

std::optional<uint64_t> parse_count(std::string_view text, uint64_t max) {
    const bool hex = text.starts_with("0x") || text.starts_with("0X");
    const auto value = hex ? take_hex(text, max) : take_digits(text, 10, max);
    return text.empty() ? value : std::nullopt;
}

std::optional<uint32_t> parse_percent(std::string_view text) {
    if (text.ends_with('%')) {
        text.remove_suffix(1);
    }
    const auto whole = take_digits(text, 10, 100);
    if (!whole) {
        return std::nullopt;
    }
    auto ppm = static_cast<uint32_t>(*whole * (kAlways / 100));
    if (take_prefix(text, ".")) {
        const auto decimals = decimals_ppm(text);
        if (!decimals) {
            return std::nullopt;
        }
        ppm += *decimals;
        text = {};
    }
    if (!text.empty() || ppm > kAlways) {
        return std::nullopt;
    }
    return ppm;
}

std::optional<uint64_t> parse_duration(std::string_view text) {
    uint64_t unit_us = 1;
    for (const Unit &unit : kUnits) {
        if (text.ends_with(unit.suffix)) {
            text.remove_suffix(unit.suffix.size());
            unit_us = unit.us;
            break;
        }
    }
    const auto value = take_digits(text, 10, kHourUs / unit_us);
    if (!value || !text.empty()) {
        return std::nullopt;
    }
    return *value * unit_us;
}

std::optional<AddressRange> parse_address_range(std::string_view text) {
    AddressRange range;
    if (!take_addresses(text, range)) {
        return std::nullopt;
    }
    if (take_prefix(text, "x")) {
        const auto times = take_digits(text, 10, std::numeric_limits<uint64_t>::max());
        if (!times || *times == 0) {
            return std::nullopt;
        }
        range.times = *times;
    }
    return text.empty() ? std::optional(range) : std::nullopt;
}

Halves split_last(std::string_view text, char mark) {
    return cut_at(text, text.rfind(mark));
}

Halves split_first(std::string_view text, char mark) {
    return cut_at(text, text.find(mark));
}

} // namespace card
