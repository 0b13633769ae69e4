// hex_dump.h - bytes on standard output, as the dumps of frames and messages show them.
#ifndef BASE_HEX_DUMP_H
#define BASE_HEX_DUMP_H

#include <cstddef>
#include <cstdint>
#include <span>

/**
 * Two digits and a blank for each byte. With a number per line, a line end goes before each line;
 * the last one is left to the caller, who holds standard output (StdoutGuard).
 */
void print_hex(std::span<const uint8_t> bytes, size_t per_line = 0);

#endif
