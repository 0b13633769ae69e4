// numbers.h - numbers as they are typed, read strictly.
//
// As with the other programs, what names something (address, slot, model, id, kind, byte) is
// hexadecimal with or without 0x, and what counts something is decimal, or hexadecimal with 0x.
#ifndef RUK_IPC_NUMBERS_H
#define RUK_IPC_NUMBERS_H

#include <cstdint>
#include <optional>
#include <string_view>

namespace ipc {

/** The whole text as a hexadecimal number up to max; nothing when it is none. */
std::optional<uint32_t> parse_hex(std::string_view text, uint32_t max);

/** The whole text as a decimal number, or a hexadecimal one behind 0x, from min to max. */
std::optional<uint32_t> parse_count(std::string_view text, uint32_t min, uint32_t max);

} // namespace ipc

#endif
