#include "run/orders.h"

#include <limits>

#include "run/parse.h"
#include "wire/wire.h"

namespace card {

namespace {

constexpr uint32_t kMax8 = std::numeric_limits<uint8_t>::max();
constexpr uint32_t kMax16 = std::numeric_limits<uint16_t>::max();
constexpr uint32_t kMax32 = std::numeric_limits<uint32_t>::max();

// Counted from 1.
std::optional<uint64_t> parse_number(std::string_view text) {
    const auto value = parse_count(text, kMax32);
    return value && *value > 0 ? value : std::nullopt;
}

// A status that refuses.
std::optional<uint8_t> parse_status(std::string_view text) {
    const auto status = parse_hex(text, kMax8);
    return status && *status != wire::kStatusCarriedOut
               ? std::optional(static_cast<uint8_t>(*status))
               : std::nullopt;
}

// The status behind what is refused, "WHAT" or "WHAT:STATUS"; cuts it off the text.
std::optional<uint8_t> take_status(std::string_view &text) {
    constexpr uint8_t kUsual = 0x01;
    const auto parts = split_first(text, ':');
    if (!parts) {
        return kUsual;
    }
    text = parts->first;
    return parse_status(parts->second);
}

} // namespace

std::optional<LoadOrder> parse_load(std::string_view text) {
    const auto parts = split_last(text, '@');
    const auto path = parts ? parts->first : text;
    const auto addr = parts ? parse_hex(parts->second, kMax32) : 0;
    if (path.empty() || !addr) {
        return std::nullopt;
    }
    return LoadOrder{.path = std::string(path), .addr = *addr};
}

std::optional<SaveOrder> parse_save(std::string_view text) {
    const auto parts = split_last(text, '@');
    if (!parts) {
        return text.empty() ? std::nullopt : std::optional(SaveOrder{.path = std::string(text)});
    }
    const auto range = split_first(parts->second, ':');
    const auto addr = range ? parse_hex(range->first, kMax32) : std::nullopt;
    const auto len = range ? parse_count(range->second, kMemorySize) : std::nullopt;
    if (parts->first.empty() || !addr || !len || *len == 0 || *len > kMemorySize - *addr) {
        return std::nullopt;
    }
    return SaveOrder{.path = std::string(parts->first), .whole = false, .addr = *addr, .len = *len};
}

std::optional<Ddr2PictureOrder> parse_ddr2_picture(std::string_view text) {
    const auto head = split_first(text, ':');
    const auto tail = head ? split_first(head->second, ':') : std::nullopt;
    const auto sides = tail ? split_last(tail->second, 'x') : std::nullopt;
    if (!sides) {
        return std::nullopt;
    }
    const auto memory = parse_count(head->first, kMax8);
    const auto addr = parse_hex(tail->first, kMax32);
    const auto width = parse_count(sides->first, kMax32);
    const auto height = parse_count(sides->second, kMax32);
    if (!memory || !addr || !width || !height) {
        return std::nullopt;
    }
    const Ddr2PictureOrder order{.memory = static_cast<size_t>(*memory),
                                 .addr = *addr,
                                 .width = static_cast<uint32_t>(*width),
                                 .height = static_cast<uint32_t>(*height)};
    return ddr2_picture_fits(order) ? std::optional(order) : std::nullopt;
}

std::optional<FirmwareRefusal> parse_field_refusal(std::string_view text) {
    const auto status = take_status(text);
    const auto field = find_firmware_field(text);
    if (!status || !field) {
        return std::nullopt;
    }
    return FirmwareRefusal{.field = field, .status = *status};
}

std::optional<FirmwareRefusal> parse_block_refusal(std::string_view text) {
    const auto status = take_status(text);
    const auto block = parse_number(text);
    if (!status || !block) {
        return std::nullopt;
    }
    return FirmwareRefusal{.block = *block, .status = *status};
}

std::optional<std::pair<uint64_t, uint64_t>> parse_delay(std::string_view text) {
    const auto parts = split_first(text, ':');
    const auto min = parse_duration(parts ? parts->first : text);
    const auto max = parts ? parse_duration(parts->second) : min;
    if (!min || !max || *max < *min) {
        return std::nullopt;
    }
    return std::pair(*min, *max);
}

std::optional<std::vector<NthOrder>> parse_nth(std::string_view text) {
    const auto parts = split_first(text, ':');
    const auto fault = parts ? find_random_fault(parts->first) : std::nullopt;
    if (!fault) {
        return std::nullopt;
    }
    std::vector<NthOrder> orders;
    std::optional<std::string_view> rest = parts->second;
    while (rest) {
        const auto cut = split_first(*rest, ',');
        const auto number = parse_number(cut ? cut->first : *rest);
        if (!number) {
            return std::nullopt;
        }
        orders.push_back({*fault, *number});
        rest = cut ? std::optional(cut->second) : std::nullopt;
    }
    return orders;
}

std::optional<AddressRule> parse_error(std::string_view text) {
    const auto parts = split_first(text, '@');
    const auto status = parts ? parse_status(parts->first) : std::nullopt;
    const auto range = parts ? parse_address_range(parts->second) : std::nullopt;
    if (!status || !range) {
        return std::nullopt;
    }
    return AddressRule{.fault = Fault::kError, .range = *range, .status = *status};
}

std::optional<AddressRule> parse_silence(std::string_view text) {
    const auto range = parse_address_range(text);
    return range ? std::optional(AddressRule{.fault = Fault::kSilence, .range = *range})
                 : std::nullopt;
}

std::optional<AddressRule> parse_lie(std::string_view text) {
    const bool relative = text.starts_with('+');
    text.remove_prefix(relative ? 1 : 0);
    const auto parts = split_first(text, '@');
    const auto amount = parts ? parse_count(parts->first, kMax16) : std::nullopt;
    const auto range = parts ? parse_address_range(parts->second) : std::nullopt;
    if (!amount || !range) {
        return std::nullopt;
    }
    return AddressRule{.fault = Fault::kLieLength,
                       .range = *range,
                       .lie = {.relative = relative, .amount = static_cast<uint32_t>(*amount)}};
}

} // namespace card
