// parse.h - numbers, percentages, times and address ranges as they are typed.
//
// What names something on the card (address, model, slot, code, status, type) is hexadecimal with
// or without 0x. What counts something (length, number of times, seed) is decimal, or hexadecimal
// with 0x. Each function wants its whole text used, and gives nothing otherwise.
#ifndef CARD_PARSE_H
#define CARD_PARSE_H

#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include "faults/faults.h"

namespace card {

std::optional<uint32_t> parse_hex(std::string_view text, uint32_t max);
std::optional<uint64_t> parse_count(std::string_view text, uint64_t max);

/** "2", "0.5" or "2%": 0 to 100 with up to four decimals; the result is in parts per million. */
std::optional<uint32_t> parse_percent(std::string_view text);

/** "500", "500us", "20ms" or "1s", at most an hour; the result is in microseconds. */
std::optional<uint64_t> parse_duration(std::string_view text);

/** "ADDR", "ADDR-ADDR" or "any", each perhaps with "xN" behind it (N times). */
std::optional<AddressRange> parse_address_range(std::string_view text);

using Halves = std::optional<std::pair<std::string_view, std::string_view>>;

/** Cut at the last `mark`; nothing when there is none. */
Halves split_last(std::string_view text, char mark);

/** Cut at the first `mark`; nothing when there is none. */
Halves split_first(std::string_view text, char mark);

} // namespace card

#endif
