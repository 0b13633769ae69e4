// orders.h - the values of options that are made of several parts.
//
// Each function wants its whole text used, and gives nothing otherwise.
#ifndef CARD_ORDERS_H
#define CARD_ORDERS_H

#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "faults/faults.h"
#include "firmware/firmware_side.h"
#include "pictures/picture_file.h"
#include "registers/memory_file.h"

namespace card {

/** "FILE" or "FILE@ADDR". */
std::optional<LoadOrder> parse_load(std::string_view text);

/** "FILE" or "FILE@ADDR:LEN", within the memory. */
std::optional<SaveOrder> parse_save(std::string_view text);

/** "MEM:ADDR:WIDTHxHEIGHT", within the memory. */
std::optional<Ddr2PictureOrder> parse_ddr2_picture(std::string_view text);

/** "NAME" or "NAME:STATUS", with the name of a field of a firmware transfer. */
std::optional<FirmwareRefusal> parse_field_refusal(std::string_view text);

/** "N" or "N:STATUS", with a block's number from 1 on. */
std::optional<FirmwareRefusal> parse_block_refusal(std::string_view text);

/** "MIN" or "MIN:MAX": the shortest and the longest time, in microseconds. */
std::optional<std::pair<uint64_t, uint64_t>> parse_delay(std::string_view text);

/** "FAULT:N[,N...]", with numbers from 1 on. */
std::optional<std::vector<NthOrder>> parse_nth(std::string_view text);

/** "STATUS@RANGE": refuse requests to these addresses. */
std::optional<AddressRule> parse_error(std::string_view text);

/** "RANGE": do not answer requests to these addresses. */
std::optional<AddressRule> parse_silence(std::string_view text);

/** "LEN@RANGE" or "+LEN@RANGE": lie about the length of replies to these addresses. */
std::optional<AddressRule> parse_lie(std::string_view text);

} // namespace card

#endif
